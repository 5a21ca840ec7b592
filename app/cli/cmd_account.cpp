// account add | list | show | set | remove.
//
// Passwords come only from standard input (--password-stdin: the first line
// is the incoming password; --smtp-password-stdin: the next line is the SMTP
// password; --socks-password-stdin: the next the SOCKS proxy's) or from the
// question a synchronization asks on the terminal; never from an argument.
// They are never printed: list and show say "stored" or "not stored".
#include <algorithm>
#include <cstdio>

#include "app/cli/cli_result.h"
#include "app/cli/commands.h"
#include "app/cli/json_writer.h"
#include "net/secret.h"
#include "app/cli/text_table.h"
#include "services/imap4_service.h"
#include "services/port_rules.h"
#include "services/service_keys.h"
#include "services/service_registry.h"

namespace trv::cli {

namespace {

struct SubcommandOptions {
  const char* name;
  size_t args;  // positional arguments after the subcommand; kAny for one or more
  std::vector<std::string> options;
};
constexpr size_t kAny = 0xFFFF;

const std::vector<SubcommandOptions>& Subcommands() {
  static const std::vector<SubcommandOptions> subcommands = {
      {"add", 0, {"--class", "--name", "--email", "--host", "--port", "--user", "--password-stdin", "--ssl",
                  "--smtp-host", "--smtp-port", "--smtp-ssl", "--smtp-auth", "--smtp-user", "--smtp-password-stdin",
                  "--socks", "--socks-host", "--socks-port", "--socks-user", "--socks-password-stdin"}},
      {"list", 0, {}},
      {"show", 1, {}},
      {"set", kAny, {"--password-stdin", "--smtp-password-stdin"}},
      {"remove", 1, {"--delete-storage"}},
  };
  return subcommands;
}

const char* const kSslModes[] = {"none", "implicit", "explicit"};
const char* const kAuthModes[] = {"none", "after-incoming", "same", "credentials"};
const char* const kSocksVersions[] = {"", "4", "4a", "5"};

// The index of `value` in `names` (any case); -1 when it is none of them.
template <size_t N>
int IndexOf(const char* const (&names)[N], const std::string& value) {
  for (size_t i = 0; i < N; ++i) {
    if (*names[i] && EqualsNoCase(value, names[i])) return static_cast<int>(i);
  }
  return -1;
}

bool ValidPort(const std::string& text) {
  int port = 0;
  for (char c : text) {
    if (c < '0' || c > '9' || (port = port * 10 + (c - '0')) > 65535) return false;
  }
  return !text.empty() && port > 0;
}

bool ValidateAdd(const ParsedArgs& args, std::string* error) {
  for (const char* required : {"--class", "--name", "--email", "--host"}) {
    if (!args.has(required) || args.value(required).empty()) {
      *error = std::string("account add needs ") + required;
      return false;
    }
  }
  if (!EqualsNoCase(args.value("--class"), "POP3") && !EqualsNoCase(args.value("--class"), "IMAP4")) {
    *error = "--class takes POP3 or IMAP4";
  } else if (args.has("--ssl") && IndexOf(kSslModes, args.value("--ssl")) < 0) {
    *error = "--ssl takes none, implicit or explicit";
  } else if (args.has("--smtp-ssl") && IndexOf(kSslModes, args.value("--smtp-ssl")) < 0) {
    *error = "--smtp-ssl takes none, implicit or explicit";
  } else if (args.has("--smtp-auth") && IndexOf(kAuthModes, args.value("--smtp-auth")) < 0) {
    *error = "--smtp-auth takes none, after-incoming, same or credentials";
  } else if (args.has("--socks") && IndexOf(kSocksVersions, args.value("--socks")) < 0) {
    *error = "--socks takes 4, 4a or 5";
  } else if (args.has("--socks") != (args.has("--socks-host") && args.has("--socks-port"))) {
    *error = "a SOCKS proxy needs --socks, --socks-host and --socks-port together";
  } else if (args.has("--socks-password-stdin") && !args.has("--socks-user")) {
    *error = "--socks-password-stdin needs --socks-user";
  } else if (args.has("--password-stdin") && !args.has("--user")) {
    *error = "--password-stdin needs --user";
  } else if (args.has("--smtp-password-stdin") && !args.has("--smtp-user")) {
    *error = "--smtp-password-stdin needs --smtp-user";
  }
  for (const char* port : {"--port", "--smtp-port", "--socks-port"}) {
    if (error->empty() && args.has(port) && !ValidPort(args.value(port))) {
      *error = std::string(port) + " takes a number from 1 to 65535";
    }
  }
  return error->empty();
}

// Reads one line of standard input without its line end. False at the end
// of the input or when the line is empty.
bool ReadSecretLine(std::string* line) {
  line->clear();
  int c = 0;
  bool any = false;
  while ((c = std::fgetc(stdin)) != EOF && c != '\n') {
    any = true;
    line->push_back(static_cast<char>(c));
  }
  if (!line->empty() && line->back() == '\r') line->pop_back();
  return any && !line->empty();
}

// The passwords of --password-stdin, --smtp-password-stdin and
// --socks-password-stdin, in that order; the SOCKS one serves both protocols.
bool ReadPasswords(CliContext& ctx, const ParsedArgs& args, ProtocolSettings* incoming, ProtocolSettings* smtp,
                   int* status) {
  std::string socks;
  for (auto [option, target] : {std::pair{"--password-stdin", &incoming->password},
                                std::pair{"--smtp-password-stdin", &smtp->password},
                                std::pair{"--socks-password-stdin", &socks}}) {
    if (!args.has(option)) continue;
    if (!ReadSecretLine(target)) {
      *status = Fail(ctx, std::string(option) + ": no password on standard input (one line each)", rc::kInvalidArg);
      return false;
    }
  }
  if (args.has("--password-stdin")) incoming->store_password = true;
  if (args.has("--smtp-password-stdin")) smtp->store_password = true;
  if (!socks.empty()) incoming->socks_password = smtp->socks_password = socks;
  WipeSecret(&socks);
  return true;
}

// Server, port (by the editor's rules when not given) and TLS mode.
void SetServer(ProtocolSettings& p, MailProtocol protocol, const std::string& host, const std::string& port,
               const std::string& ssl) {
  const int mode = ssl.empty() ? 0 : IndexOf(kSslModes, ssl);
  p.host = host;
  p.use_ssl = mode != 0;
  p.ssl_explicit = mode != 1;
  p.port = port.empty() ? PortAfterSslToggle(protocol, p.use_ssl, p.ssl_explicit, PlainPort(protocol))
                        : std::stoi(port);
}

void SetSocks(ProtocolSettings& p, const ParsedArgs& args) {
  if (!args.has("--socks")) return;
  p.socks_version = static_cast<uint32_t>(IndexOf(kSocksVersions, args.value("--socks")));
  p.socks_address = args.value("--socks-host");
  p.socks_port = std::stoi(args.value("--socks-port"));
  p.socks_auth = args.has("--socks-user");
  p.socks_user = args.value("--socks-user");
}

std::string Name(const MailService& service) { return Utf8(service.settings().service_name); }

MailService* FindOrFail(CliContext& ctx, const std::string& name, int* status) {
  MailService* service = FindService(*ctx.engine, name);
  if (service == nullptr) {
    *status = Fail(ctx, "no account \"" + name + "\" (or several by that name or address; \"account list\")",
                   kNotFound);
  }
  return service;
}

int RunAdd(CliContext& ctx, const ParsedArgs& args) {
  const std::string& name = args.value("--name");
  for (MailService* s : MailServices(*ctx.engine)) {
    if (EqualsNoCase(Name(*s), name)) return Fail(ctx, "an account named \"" + name + "\" exists", FromWin32(183));
  }
  const bool imap = EqualsNoCase(args.value("--class"), "IMAP4");
  ServiceSettings s;
  s.service_name = Utf8ToWide(name);
  s.email_address = Utf8ToWide(args.value("--email"));
  SetServer(s.incoming, imap ? MailProtocol::kImap4 : MailProtocol::kPop3, args.value("--host"),
            args.value("--port"), args.value("--ssl"));
  SetServer(s.smtp, MailProtocol::kSmtp, args.has("--smtp-host") ? args.value("--smtp-host") : args.value("--host"),
            args.value("--smtp-port"), args.has("--smtp-ssl") ? args.value("--smtp-ssl") : args.value("--ssl"));
  // A user name is kept in the file only with the "store password" switch;
  // the password itself may stay empty, and a run then asks for it.
  s.incoming.user_name = args.value("--user");
  s.incoming.store_password = args.has("--user");
  s.smtp.user_name = args.value("--smtp-user");
  s.smtp.store_password = args.has("--smtp-user");
  s.smtp_authentication =
      static_cast<SmtpAuthMode>(args.has("--smtp-auth") ? IndexOf(kAuthModes, args.value("--smtp-auth")) : 0);
  SetSocks(s.incoming, args);
  SetSocks(s.smtp, args);
  int status = kExitOk;
  if (!ReadPasswords(ctx, args, &s.incoming, &s.smtp, &status)) return status;

  MailService* created = nullptr;
  if (Result r = CreateService(*ctx.engine, imap ? "IMAP4" : "POP3", s, &created); r.failed()) {
    return Fail(ctx, "cannot add the account \"" + name + "\"", r);
  }
  const ServiceSettings made = created->settings();
  WriteOut(ctx, "account \"" + name + "\" added (" + created->ServiceClass() + " " + made.incoming.host + ":" +
                    std::to_string(made.incoming.port) + ", SMTP " + made.smtp.host + ":" +
                    std::to_string(made.smtp.port) + ", storage \"" + Utf8(created->storage().name()) + "\")\n");
  return kExitOk;
}

const char* Stored(const std::string& secret) { return secret.empty() ? "not stored" : "stored"; }

int RunAccountList(CliContext& ctx) {
  const std::vector<MailService*> services = MailServices(*ctx.engine);
  JsonWriter json;
  json.BeginArray();
  TextTable table({"NAME", "CLASS", "ADDRESS", "SERVER", "SMTP", "PASSWORD"},
                  std::vector<TextTable::Align>(6, TextTable::kLeft));
  for (MailService* service : services) {
    const ServiceSettings s = service->settings();
    json.BeginObject();
    for (auto [key, value] : {std::pair{"name", Utf8(s.service_name)}, {"class", service->ServiceClass()},
                              {"email", Utf8(s.email_address)}, {"host", s.incoming.host},
                              {"smtp_host", s.smtp.host}, {"storage", Utf8(service->storage().name())},
                              {"password", Stored(s.incoming.password)}}) {
      json.Key(key);
      json.String(value);
    }
    json.Key("port");
    json.Int(s.incoming.port);
    json.Key("smtp_port");
    json.Int(s.smtp.port);
    json.EndObject();
    table.AddRow({Utf8(s.service_name), service->ServiceClass(), Utf8(s.email_address),
                  s.incoming.host + ":" + std::to_string(s.incoming.port),
                  s.smtp.host + ":" + std::to_string(s.smtp.port), Stored(s.incoming.password)});
  }
  json.EndArray();
  WriteOut(ctx, ctx.json ? json.text() + "\n" : table.Render());
  return kExitOk;
}

// An IMAP4 account's folder records, in tree order: a "folders" array and a
// table after the keys.
void AddFolderRecords(Imap4Service& service, JsonWriter& json, std::string& text) {
  TextTable table({"SERVER PATH", "LOCAL FOLDER", "OPTIONS", "UIDNEXT", "UIDVALID"},
                  {TextTable::kLeft, TextTable::kLeft, TextTable::kLeft, TextTable::kRight, TextTable::kRight});
  json.Key("folders");
  json.BeginArray();
  MutexLock lock(service.folders_mutex());
  service.folders().ForEach([&](const Imap4FolderSync& r) {
    const std::string server = Utf8(r.ServerPath());
    json.BeginObject();
    for (auto [key, value] : {std::pair{"server", server}, {"local", Utf8(r.local)}, {"options", FolderOptionsText(r.sync)}}) {
      json.Key(key);
      json.String(value);
    }
    json.Key("uid_next");
    json.Int(r.uid_next);
    json.Key("uid_valid");
    json.Int(r.uid_valid);
    json.EndObject();
    table.AddRow({server, Utf8(r.local), FolderOptionsText(r.sync), std::to_string(r.uid_next), std::to_string(r.uid_valid)});
  });
  json.EndArray();
  text += table.rows() == 0 ? "\nno folders yet: a sync lists the server's mailboxes\n" : "\n" + table.Render();
}

int RunAccountShow(CliContext& ctx, const std::string& name) {
  int status = kExitOk;
  MailService* service = FindOrFail(ctx, name, &status);
  if (service == nullptr) return status;
  const ServiceSettings s = service->settings();
  std::vector<std::pair<std::string, std::string>> lines;
  for (const ServiceKey& key : ServiceKeys(service->ServiceClass())) {
    lines.emplace_back(key.name, KeyText(key, s, service->ServiceClass()));
  }
  JsonWriter json;
  json.BeginObject();
  std::string text;
  for (const auto& [key, value] : lines) {
    json.Key(key);
    json.String(value);
    text += key + std::string(key.size() < 26 ? 26 - key.size() : 1, ' ') + value + "\n";
  }
  if (auto* imap = dynamic_cast<Imap4Service*>(service)) AddFolderRecords(*imap, json, text);
  json.EndObject();
  WriteOut(ctx, ctx.json ? json.text() + "\n" : text);
  return kExitOk;
}

int RunSet(CliContext& ctx, const ParsedArgs& args) {
  int status = kExitOk;
  MailService* service = FindOrFail(ctx, args.positional[1], &status);
  if (service == nullptr) return status;
  ServiceSettings s = service->settings();
  for (size_t i = 2; i < args.positional.size(); ++i) {
    const std::string& pair = args.positional[i];
    const size_t eq = pair.find('=');
    const std::string key_name = pair.substr(0, eq);
    const ServiceKey* key = FindServiceKey(service->ServiceClass(), key_name);
    std::string error;
    if (key != nullptr && key->role == KeyRole::kPassword) {
      error = key_name + " is a password: give it with \"account set NAME --password-stdin\" (or "
                         "--smtp-password-stdin), or at the question of \"sync\"";
    } else if (eq == std::string::npos) {
      error = "\"" + pair + "\" is not KEY=VALUE";
    } else if (key == nullptr) {
      error = "no setting " + key_name + " for a " + service->ServiceClass() + " account (\"account show\" lists them)";
    } else {
      SetKeyFromText(*key, std::string_view(pair).substr(eq + 1), &s, &error);
    }
    if (!error.empty()) return Fail(ctx, error, rc::kInvalidArg);
  }
  if (!ReadPasswords(ctx, args, &s.incoming, &s.smtp, &status)) return status;
  service->SetSettings(s);
  if (Result r = service->Save(); r.failed()) return Fail(ctx, "cannot save the account \"" + Name(*service) + "\"", r);
  WriteOut(ctx, "account \"" + Name(*service) + "\" saved\n");
  return kExitOk;
}

int RunRemoveAccount(CliContext& ctx, const ParsedArgs& args) {
  int status = kExitOk;
  MailService* service = FindOrFail(ctx, args.positional[1], &status);
  if (service == nullptr) return status;
  const std::string name = Name(*service);
  const std::string storage = Utf8(service->storage().name());
  const bool delete_storage = args.has("--delete-storage");
  if (Result r = RemoveService(*ctx.engine, service, delete_storage); r.failed()) {
    return Fail(ctx, "cannot remove the account \"" + name + "\"", r);
  }
  WriteOut(ctx, "account \"" + name + "\" removed" +
                    (delete_storage ? ", with its storage\n" : "; its storage \"" + storage + "\" stays\n"));
  return kExitOk;
}

}  // namespace

bool ValidateAccount(const ParsedArgs& args, std::string* error) {
  const std::string& sub = args.positional[0];
  const auto it = std::find_if(Subcommands().begin(), Subcommands().end(),
                               [&](const SubcommandOptions& s) { return sub == s.name; });
  if (it == Subcommands().end()) {
    *error = "account takes add, list, show, set or remove, not \"" + sub + "\"";
    return false;
  }
  for (const auto& [option, value] : args.options) {
    if (option != "--json" && option != "--data-dir" &&
        std::find(it->options.begin(), it->options.end(), option) == it->options.end()) {
      *error = "option " + option + " is not for account " + sub;
      return false;
    }
  }
  const size_t n = args.positional.size() - 1;
  if (it->args == kAny ? n == 0 : n != it->args) {
    *error = "account " + sub + (it->args == 0 ? " takes no arguments" : " needs the account's name");
    return false;
  }
  if (sub == "set" && n == 1 && !args.has("--password-stdin") && !args.has("--smtp-password-stdin")) {
    *error = "account set needs KEY=VALUE or a password option";
    return false;
  }
  return sub != "add" || ValidateAdd(args, error);
}

ArgOptions AccountOptions() {
  ArgOptions accepted;
  for (const SubcommandOptions& sub : Subcommands()) {
    for (const std::string& option : sub.options) {
      const bool flag = option.ends_with("-stdin") || option == "--delete-storage";
      (flag ? accepted.flags : accepted.with_value).push_back(option);
    }
  }
  return accepted;
}

int RunAccount(CliContext& ctx, const ParsedArgs& args) {
  const std::string& sub = args.positional[0];
  if (sub == "add") return RunAdd(ctx, args);
  if (sub == "list") return RunAccountList(ctx);
  if (sub == "show") return RunAccountShow(ctx, args.positional[1]);
  if (sub == "set") return RunSet(ctx, args);
  return RunRemoveAccount(ctx, args);
}

}  // namespace trv::cli

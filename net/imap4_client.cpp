#include "net/imap4_client.h"

#include <algorithm>
#include <cstdio>

#include "base/date_value.h"
#include "mime/charset/converter.h"
#include "net/imap4_parser.h"
#include "net/secret.h"

namespace trv {

struct CImap4Client::Pending {
  std::string verb;  // first word of the command, upper-case ("UID" for UID commands)
  Imap4CommandResult record;
  bool fetch = false;  // sent by BeginFetch: the set below
  bool uid = false;
  uint32_t first = 0, last = 0;
};

CImap4Client::CImap4Client() = default;

// The socket's destructor closes at once; the command records go with the
// object, so there is nothing to forget first.
CImap4Client::~CImap4Client() = default;

Result CImap4Client::Connect(std::string_view host, uint16_t port) {
  if (connected()) return rc::kOk;
  tag_counter_ = 0;
  capabilities_ = Imap4Capabilities{};
  authenticated_ = false;
  mailbox_ = Imap4MailboxData{};
  greeting_ = Imap4CommandResult{};
  last_reply_.clear();
  ForgetPending();
  if (Result r = CMailSocket::Connect(host, port); r.failed()) return r;
  Result r = ReadUntil("");
  result_ = std::move(greeting_);
  greeting_ = Imap4CommandResult{};
  if (r.failed()) Close().Ignore();
  return r;
}

Result CImap4Client::Close() {
  ForgetPending();
  return CMailSocket::Close();
}

void CImap4Client::ForgetPending() {
  pending_.clear();
  answered_.clear();
}

std::string CImap4Client::QuoteArgument(std::string_view text) {
  if (text.empty()) return "\"\"";
  static constexpr std::string_view kSpecial = "(){%*\"\\]";
  const bool quote = std::any_of(text.begin(), text.end() - 1, [](char c) {
    return static_cast<unsigned char>(c) <= ' ' || kSpecial.find(c) != std::string_view::npos;
  });
  return quote ? "\"" + std::string(text) + "\"" : std::string(text);
}

std::string CImap4Client::EncodeFolder(WStringView folder) {
  std::string out;
  // Every UTF-16 text encodes: the units go through base64 as they are.
  CXmConverter("utf-16", "imap4-utf-7").Convert(folder, &out);
  return out;
}

std::string CImap4Client::SequenceSet(std::string_view command, uint32_t first, uint32_t last, bool uid) {
  if (first == 0) first = 1;
  std::string out = uid ? "UID " : "";
  out += command;
  out += ' ' + std::to_string(first);
  if (last == kAll) {
    out += ":*";
  } else if (last != first) {
    out += ':' + std::to_string(last);
  }
  return out + ' ';
}

std::string CImap4Client::FlagList(uint32_t flags) {
  static constexpr std::pair<uint32_t, std::string_view> kFlags[] = {
      {kImap4FlagAnswered, "\\Answered"}, {kImap4FlagFlagged, "\\Flagged"}, {kImap4FlagDeleted, "\\Deleted"},
      {kImap4FlagSeen, "\\Seen"},         {kImap4FlagDraft, "\\Draft"},     {kImap4FlagAny, "\\*"},
  };
  std::string out;
  for (const auto& [bit, name] : kFlags) {
    if (flags & bit) out += std::string(name) + ' ';
  }
  if (out.empty()) return out;
  out.back() = ')';
  return '(' + out;
}

std::string CImap4Client::DateTime(double date) {
  static constexpr const char* kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                            "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  const CivilTime t = CivilFromDate(date);
  char text[40];
  std::snprintf(text, sizeof text, "%02d-%s-%04d %02d:%02d:%02d +0000", t.day, kMonths[(t.month + 11) % 12], t.year,
                t.hour, t.minute, t.second);
  return text;
}

Result CImap4Client::SendTagged(std::string_view command, std::string_view shown, std::string* tag) {
  *tag = std::to_string(tag_counter_++);
  std::string line = *tag + ' ' + std::string(command);
  Result r = shown.empty() ? SendLine(line) : SendSecretLine(line, *tag + ' ' + std::string(shown));
  WipeSecret(&line);
  if (r.failed()) return r;
  auto p = std::make_unique<Pending>();
  const std::string_view verb = command.substr(0, command.find(' '));
  for (char c : verb) p->verb.push_back(c >= 'a' && c <= 'z' ? static_cast<char>(c - 32) : c);
  p->record.tag = *tag;
  pending_.push_back(std::move(p));
  return rc::kOk;
}

Result CImap4Client::Begin(std::string_view command, std::string* tag) { return SendTagged(command, "", tag); }

Result CImap4Client::BeginFetch(uint32_t first, uint32_t last, std::string_view items, bool uid, std::string* tag) {
  std::string line = SequenceSet("FETCH", first, last, uid);
  line += items.find(' ') == std::string_view::npos ? std::string(items) : "(" + std::string(items) + ")";
  if (Result r = Begin(line, tag); r.failed()) return r;
  Pending& p = *pending_.back();
  p.fetch = true;
  p.uid = uid;
  p.first = std::max<uint32_t>(first, 1);
  p.last = std::max(last, p.first);
  return rc::kOk;
}

Result CImap4Client::Finish(std::string_view tag) {
  const auto kept = std::find_if(answered_.begin(), answered_.end(),
                                 [tag](const auto& p) { return p->record.tag == tag; });
  if (kept != answered_.end()) {
    result_ = std::move((*kept)->record);
    answered_.erase(kept);
    return Outcome(result_);
  }
  const bool outstanding =
      std::any_of(pending_.begin(), pending_.end(), [tag](const auto& p) { return p->record.tag == tag; });
  if (!outstanding) return rc::kImap4NoAnswer;
  return ReadUntil(tag);
}

Result CImap4Client::Command(std::string_view command) {
  std::string tag;
  if (Result r = SendTagged(command, "", &tag); r.failed()) return r;
  return Finish(tag);
}

Result CImap4Client::Outcome(const Imap4CommandResult& record) {
  switch (record.status) {
    case Imap4Status::kOk:
      if (!record.malformed) {
        last_reply_.clear();
        return rc::kOk;
      }
      last_reply_ = record.text;
      return rc::kImap4Malformed;
    case Imap4Status::kNo:
      last_reply_ = record.text;
      return rc::kImap4No;
    default:
      last_reply_ = record.text;
      return rc::kImap4Bad;
  }
}

CImap4Client::Pending* CImap4Client::Oldest() { return pending_.empty() ? nullptr : pending_.front().get(); }

CImap4Client::Pending* CImap4Client::Owner(std::string_view keyword, uint32_t number, std::optional<uint32_t> uid) {
  for (const auto& p : pending_) {
    if (keyword == "FETCH" ? p->fetch && (p->uid ? uid.has_value() : true) &&
                                 (p->uid ? *uid : number) >= p->first && (p->uid ? *uid : number) <= p->last
                           : p->verb == keyword || (keyword == "SEARCH" && p->verb == "UID")) {
      return p.get();
    }
  }
  return Oldest();
}

// The UID of a FETCH response read so far ("UID n" before the literal), if any.
static std::optional<uint32_t> UidSoFar(std::string_view text) {
  const size_t at = text.find("UID ", text.find('('));
  if (at == std::string_view::npos || (text[at - 1] != '(' && text[at - 1] != ' ')) return std::nullopt;
  uint64_t n = 0;
  size_t i = at + 4;
  for (; i < text.size() && text[i] >= '0' && text[i] <= '9' && n <= 0xFFFFFFFFu; ++i) n = n * 10 + (text[i] - '0');
  if (i == at + 4 || n > 0xFFFFFFFFu) return std::nullopt;
  return static_cast<uint32_t>(n);
}

Result CImap4Client::TakeLiteral(Imap4Response* response, uint64_t size, uint64_t* held) {
  Imap4Literal literal;
  literal.offset = response->text.size();
  literal.size = size;
  if (literal_hook_) {
    Imap4LiteralPlace place;
    FindLiteralPlace(*response, &place);
    Imap4LiteralContext context;
    const Pending* owner = Owner("FETCH", place.number, UidSoFar(response->text));
    context.tag = owner ? std::string_view(owner->record.tag) : std::string_view();
    context.number = place.number;
    context.item = place.item;
    context.section = place.section;
    context.origin = place.origin;
    context.size = size;
    if (literal_hook_->TakeLiteral(context)) {
      Result r = ReceiveTo(size, [this](std::string_view piece) { return literal_hook_->OnLiteralBytes(piece); });
      if (r.failed()) {
        Close().Ignore();  // the rest of the literal is unread: out of step
        return r;
      }
      literal.streamed = true;
      response->literals.push_back(std::move(literal));
      return rc::kOk;
    }
  }
  if (size > max_literal_ || *held > max_literal_ - size) {
    ReportLine(kLineReceived, kLogCommands, "{" + std::to_string(size) + "} refused: over the literal limit");
    Close().Ignore();
    return rc::kImap4LiteralTooLarge;
  }
  literal.bytes.resize(size);
  if (Result r = size ? ReceiveExact(literal.bytes.data(), size) : rc::kOk; r.failed()) return r;  // {0}: nothing to read
  *held += size;
  if (Reports(kImap4LogLiterals)) ReportLine(kLineReceived, kImap4LogLiterals, literal.bytes);
  response->literals.push_back(std::move(literal));
  return rc::kOk;
}

Result CImap4Client::ReadResponse(Imap4Response* response) {
  response->Clear();
  uint64_t held = 0;
  std::string line;
  for (;;) {
    if (Result r = ReadLine(&line); r.failed()) return r;
    held += line.size();
    if (held > max_literal_) {
      Close().Ignore();
      return rc::kImap4LiteralTooLarge;
    }
    response->text += line;
    const std::optional<uint64_t> size = TrailingLiteral(line);
    if (!size) return rc::kOk;
    if (Result r = TakeLiteral(response, *size, &held); r.failed()) return r;
  }
}

Result CImap4Client::ReadUntil(std::string_view tag, bool continuation) {
  Imap4Response response;
  for (;;) {
    Result r = ReadResponse(&response);
    if (r.failed()) {
      if (!connected()) ForgetPending();
      return r;
    }
    bool done = false;
    Result outcome;
    if (Result d = Dispatch(response, tag, continuation, &done, &outcome); d.failed()) return d;
    if (done) return outcome;
  }
}

Result CImap4Client::Dispatch(const Imap4Response& response, std::string_view wanted, bool continuation, bool* done,
                              Result* outcome) {
  Imap4Head head;
  Pending* oldest = Oldest();
  Imap4CommandResult& target = oldest ? oldest->record : greeting_;
  const auto into = [this](Pending* p) -> Imap4CommandResult& { return p ? p->record : greeting_; };
  if (ParseHead(response.text, &head).failed()) {
    if (!oldest) {
      last_reply_ = response.text;
      return rc::kImap4Malformed;  // nothing to stay in step with
    }
    target.malformed = true;
    return rc::kOk;
  }
  switch (head.kind) {
    case Imap4Kind::kContinuation:
      if (continuation) *done = true, *outcome = rc::kOk;
      return rc::kOk;
    case Imap4Kind::kTagged: {
      const auto it = std::find_if(pending_.begin(), pending_.end(),
                                   [&head](const auto& p) { return p->record.tag == head.tag; });
      if (it == pending_.end()) {
        last_reply_ = response.text;
        Close().Ignore();
        return rc::kImap4UnknownTag;
      }
      std::unique_ptr<Pending> p = std::move(*it);
      pending_.erase(it);
      Imap4CommandResult& record = p->record;
      record.text = response.text;
      record.status = head.status == Imap4Status::kOk || head.status == Imap4Status::kNo ? head.status
                                                                                          : Imap4Status::kBad;
      if (!ApplyResponseCode(ParseStatusText(std::string_view(response.text).substr(head.rest)), &record, &mailbox_,
                             &capabilities_)) {
        record.malformed = true;
      }
      if (record.tag == wanted) {
        result_ = std::move(record);
        *done = true;
        *outcome = Outcome(result_);
      } else {
        answered_.push_back(std::move(p));
      }
      return rc::kOk;
    }
    case Imap4Kind::kNumbered:
      if (head.keyword == "EXISTS") {
        mailbox_.exists = head.number;
      } else if (head.keyword == "RECENT") {
        mailbox_.recent = head.number;
      } else if (head.keyword == "EXPUNGE") {
        target.expunged.push_back(head.number);
        if (mailbox_.exists && *mailbox_.exists > 0) *mailbox_.exists -= 1;
      } else if (head.keyword == "FETCH") {
        Imap4FetchData data;
        data.number = head.number;
        const bool known = head.number > 0 && (!mailbox_.exists || head.number <= *mailbox_.exists);
        if (!known || !ParseFetchData(response, head.rest, &data)) {
          target.malformed = true;
        } else if (Imap4CommandResult& owner = into(Owner("FETCH", data.number, data.uid)); fetch_listener_) {
          fetch_listener_->OnFetch(owner.tag, data);
        } else {
          owner.fetch.push_back(std::move(data));
        }
      }
      return rc::kOk;
    case Imap4Kind::kUntagged:
      break;
  }
  const std::string_view rest = std::string_view(response.text).substr(head.rest);
  if (head.status != Imap4Status::kNone) {
    last_kind_ = head.status;
    if (!ApplyResponseCode(ParseStatusText(rest), &target, &mailbox_, &capabilities_)) target.malformed = true;
    if (head.status == Imap4Status::kPreauth) authenticated_ = true;
    if (!oldest) {  // the greeting, or a status with nothing outstanding
      *done = true;
      const bool ok = head.status == Imap4Status::kOk || head.status == Imap4Status::kPreauth;
      *outcome = ok ? rc::kOk : head.status == Imap4Status::kNo ? rc::kImap4No : rc::kImap4Bad;
      if (!ok) last_reply_ = response.text;
    } else if (head.status == Imap4Status::kBye && oldest->verb != "LOGOUT") {
      last_reply_ = response.text;
      *done = true;
      *outcome = rc::kImap4Bad;
    }
    return rc::kOk;
  }
  bool ok = true;
  if (head.keyword == "CAPABILITY") {
    ParseCapabilities(rest, &capabilities_);
  } else if (head.keyword == "LIST" || head.keyword == "LSUB") {
    Imap4ListEntry entry;
    ok = ParseListEntry(response, head.rest + 1, &entry);
    if (ok) into(Owner(head.keyword, 0, std::nullopt)).list.push_back(std::move(entry));
  } else if (head.keyword == "STATUS") {
    Imap4StatusData data;
    ok = ParseStatusData(response, head.rest, &data);
    if (ok) into(Owner("STATUS", 0, std::nullopt)).status_items.push_back(std::move(data));
  } else if (head.keyword == "SEARCH") {
    ok = ParseSearch(rest, &into(Owner("SEARCH", 0, std::nullopt)).search);
  } else if (head.keyword == "FLAGS") {
    uint32_t bits = 0;
    ok = ParseFlagsData(response, head.rest, &bits, &mailbox_.flag_keywords);
    if (ok) mailbox_.flags = bits;
  }
  if (!ok) target.malformed = true;
  return rc::kOk;
}

Result CImap4Client::Capability(bool force) {
  if (!force && capabilities_.known) return rc::kOk;
  Result r = Command("CAPABILITY");
  if (r.ok()) capabilities_.known = true;
  return r;
}

Result CImap4Client::StartTls() {
  if (Result r = Capability(false); r.failed()) return r;
  if (!(capabilities_.bits & kImap4CapStartTls)) return rc::kImap4NoStartTls;
  if (Result r = Command("STARTTLS"); r.failed()) return r;
  if (Result r = SetPlainMode(false); r.failed()) return r;
  capabilities_ = Imap4Capabilities{};  // what was offered in the clear is forgotten
  return Capability(true);
}

Result CImap4Client::Login(std::string_view user, std::string_view password) {
  if (Result r = Capability(false); r.failed()) return r;
  if (capabilities_.bits & kImap4CapLoginDisabled) return rc::kImap4Bad;
  // Text with 8-bit bytes (a UTF-8 password), control characters, a quote
  // or a backslash can be neither bare nor quoted unescaped: it goes as a
  // literal. Each literal's length ends a piece of the command; the next
  // piece follows the server's "+".
  std::vector<std::string> pieces{"LOGIN"};
  for (std::string_view argument : {user, password}) {
    const bool literal = std::any_of(argument.begin(), argument.end(), [](char c) {
      const auto u = static_cast<unsigned char>(c);
      return u < 0x20 || u >= 0x7F || c == '"' || c == '\\';
    });
    pieces.back() += ' ';
    if (literal) {
      pieces.back() += '{' + std::to_string(argument.size()) + '}';
      pieces.emplace_back(argument);
    } else {
      pieces.back() += QuoteArgument(argument);
    }
  }
  std::string tag;
  Result r = SendTagged(pieces[0], "LOGIN ******** ********", &tag);
  for (size_t i = 1; r.ok() && i < pieces.size(); ++i) {
    r = ReadUntil(tag, true);
    if (r == rc::kImap4No || (r.ok() && result_.tag == tag)) {
      r = rc::kImap4Bad;  // answered without "+"
    } else if (r.ok()) {
      r = SendSecretLine(pieces[i], "********");
    }
  }
  for (std::string& piece : pieces) WipeSecret(&piece);
  if (r.ok()) r = Finish(tag);
  if (r.failed()) return r;
  authenticated_ = true;
  capabilities_ = Imap4Capabilities{};
  return Capability(true);
}

Result CImap4Client::Logout() {
  Result r = Command("LOGOUT");
  Close().Ignore();  // the server ends the session; a later Connect opens a new one
  // A server may close right after its BYE, before the tagged OK.
  if (r == rc::kSockClosed && last_kind_ == Imap4Status::kBye) return rc::kOk;
  return r;
}

Result CImap4Client::Noop() { return Command("NOOP"); }

Result CImap4Client::List(WStringView reference, WStringView pattern) {
  return Command("LIST " + QuoteArgument(EncodeFolder(reference)) + ' ' + QuoteArgument(EncodeFolder(pattern)));
}

Result CImap4Client::Lsub(WStringView reference, WStringView pattern) {
  return Command("LSUB " + QuoteArgument(EncodeFolder(reference)) + ' ' + QuoteArgument(EncodeFolder(pattern)));
}

Result CImap4Client::FolderCommand(std::string_view verb, WStringView folder) {
  return Command(std::string(verb) + ' ' + QuoteArgument(EncodeFolder(folder)));
}

Result CImap4Client::SelectCommand(std::string_view verb, WStringView folder) {
  mailbox_ = Imap4MailboxData{};
  mailbox_.raw = EncodeFolder(folder);
  mailbox_.name = WString(folder);
  Result r = FolderCommand(verb, folder);
  if (r.failed()) mailbox_ = Imap4MailboxData{};  // no mailbox is selected after a failed selection
  return r;
}

Result CImap4Client::Select(WStringView folder) { return SelectCommand("SELECT", folder); }
Result CImap4Client::Examine(WStringView folder) { return SelectCommand("EXAMINE", folder); }

Result CImap4Client::Status(WStringView folder, uint32_t items) {
  static constexpr std::pair<uint32_t, std::string_view> kItems[] = {
      {kImap4StatusMessages, "MESSAGES "}, {kImap4StatusUnseen, "UNSEEN "},           {kImap4StatusRecent, "RECENT "},
      {kImap4StatusUidNext, "UIDNEXT "},   {kImap4StatusUidValidity, "UIDVALIDITY "},
  };
  std::string list;
  for (const auto& [bit, name] : kItems) {
    if (items & bit) list += name;
  }
  if (list.empty()) list = " ";
  list.back() = ')';
  return Command("STATUS " + QuoteArgument(EncodeFolder(folder)) + " (" + list);
}

Result CImap4Client::Fetch(uint32_t first, uint32_t last, std::string_view items, bool uid) {
  std::string tag;
  if (Result r = BeginFetch(first, last, items, uid, &tag); r.failed()) return r;
  return Finish(tag);
}

Result CImap4Client::Store(uint32_t first, uint32_t last, int mode, uint32_t flags, bool silent, bool uid) {
  std::string line = SequenceSet("STORE", first, last, uid);
  line += mode == 1 ? "+FLAGS" : mode == 2 ? "-FLAGS" : "FLAGS";
  if (silent) line += ".SILENT";
  return Command(line + ' ' + FlagList(flags));
}

Result CImap4Client::Copy(uint32_t first, uint32_t last, WStringView folder, bool uid) {
  return Command(SequenceSet("COPY", first, last, uid) + QuoteArgument(EncodeFolder(folder)));
}

Result CImap4Client::Expunge() { return Command("EXPUNGE"); }

Result CImap4Client::UidExpunge(uint32_t first, uint32_t last) {
  std::string line = SequenceSet("EXPUNGE", first, last, true);
  line.pop_back();  // the set is the last argument: no blank after it
  return Command(line);
}

Result CImap4Client::Create(WStringView folder) { return FolderCommand("CREATE", folder); }
Result CImap4Client::Delete(WStringView folder) { return FolderCommand("DELETE", folder); }
Result CImap4Client::Subscribe(WStringView folder) { return FolderCommand("SUBSCRIBE", folder); }
Result CImap4Client::Unsubscribe(WStringView folder) { return FolderCommand("UNSUBSCRIBE", folder); }
Result CImap4Client::Check() { return Command("CHECK"); }

Result CImap4Client::Rename(WStringView old_name, WStringView new_name) {
  return Command("RENAME " + QuoteArgument(EncodeFolder(old_name)) + ' ' + QuoteArgument(EncodeFolder(new_name)));
}

Result CImap4Client::CloseMailbox() {
  Result r = Command("CLOSE");
  mailbox_ = Imap4MailboxData{};
  return r;
}

Result CImap4Client::Append(WStringView folder, uint32_t flags, double date, CXmStream* message, uint64_t size) {
  if (!message) return rc::kInvalidArg;
  if (size == 0) {
    if (Result r = message->Rewind(); r.failed()) return r;
    size = message->Size();
  }
  std::string line = "APPEND " + QuoteArgument(EncodeFolder(folder));
  if (flags) line += ' ' + FlagList(flags);
  if (date != kNoDate) line += " \"" + DateTime(date) + '"';
  line += " {" + std::to_string(size) + '}';
  std::string tag;
  if (Result r = SendTagged(line, "", &tag); r.failed()) return r;
  if (Result r = ReadUntil(tag, true); r == rc::kImap4No || (r.ok() && result_.tag == tag)) {
    return rc::kImap4Bad;  // answered without "+"
  } else if (r.failed()) {
    return r;
  }
  std::string piece(kAppendPiece, '\0');
  for (uint64_t left = size; left > 0;) {
    size_t got = 0;
    const size_t want = static_cast<size_t>(std::min<uint64_t>(left, kAppendPiece));
    if (Result r = message->Read(piece.data(), want, &got); r.failed() || got == 0) {
      Close().Ignore();  // fewer bytes than announced: the server waits for the rest
      return r.failed() ? r : rc::kInvalidArg;
    }
    if (Result r = SendAll(piece.data(), got); r.failed()) return r;
    left -= got;
  }
  if (Result r = SendLine(""); r.failed()) return r;
  return Finish(tag);
}

}  // namespace trv

#include "tests/support/mail_servers.h"

#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <thread>

#include "tests/support/process.h"

namespace trv::test {

namespace fs = std::filesystem;

namespace {

constexpr auto kStartLimit = std::chrono::seconds(20);
constexpr auto kStopGrace = std::chrono::seconds(10);
constexpr int kStartAttempts = 3;
constexpr uid_t kMailUid = 8;  // Debian's mail user; Dovecot will not deliver as root
constexpr gid_t kMailGid = 8;

const char* const kDovecot = "/usr/sbin/dovecot";
const char* const kPostfix = "/usr/sbin/postfix";
const char* const kPostfixMaster = "/usr/lib/postfix/sbin/master";
const char* const kDanted = "/usr/sbin/danted";
const char* const kMicrosocks = "/usr/bin/microsocks";
const char* const kSshd = "/usr/sbin/sshd";
const char* const kSsh = "/usr/bin/ssh";
const char* const kSshKeygen = "/usr/bin/ssh-keygen";

ServerStatus Missing(const std::string& what) { return {false, true, what + " is not installed (scripts/install-deps.sh servers installs it)"}; }
ServerStatus Failed(const std::string& what) { return {false, false, what}; }

std::string Str(const fs::path& p) { return p.string(); }
std::string Num(uint16_t port) { return std::to_string(port); }

// Picks fresh ports into *ports and runs start, until it succeeds or
// kStartAttempts times: a port may be taken between choosing and binding.
ServerStatus Attempts(std::initializer_list<uint16_t*> ports, const std::function<ServerStatus()>& start) {
  ServerStatus s;
  for (int attempt = 0; attempt < kStartAttempts; ++attempt) {
    for (uint16_t* port : ports) *port = PickFreePort();
    if ((s = start()).ok) break;
  }
  return s;
}

// The harness runs as root; a failure shows up as a server error later.
void Chown(const fs::path& p, uid_t uid, gid_t gid) { (void)!::chown(p.c_str(), uid, gid); }

// A section of a Dovecot configuration.
std::string Block(const std::string& head, const std::string& body) { return head + " {\n" + body + "}\n"; }

}  // namespace

bool InCi() {
  const char* ci = std::getenv("CI");
  return ci && std::string(ci) == "true";
}

MailServers& MailServers::Instance() {
  static MailServers servers;
  return servers;
}

MailServers::MailServers() = default;
MailServers::~MailServers() { StopProcesses(pids_, kStopGrace); }

std::string MailServers::LogTail(const std::string& name) const {
  const std::string text = ReadFile(dir_ / (name + ".log"));
  return " (log " + (dir_ / (name + ".log")).string() + ", its end:\n" + text.substr(text.size() - std::min<size_t>(text.size(), 1500)) + ")";
}

ServerStatus MailServers::Ready(const std::vector<const char*>& programs) {
  if (!prepared_) {
    prepared_ = std::make_unique<ServerStatus>();
    std::string error;
    if (::geteuid() != 0) {
      *prepared_ = {false, true, "the mail server harness needs root (Dovecot's mail user, system users, sshd)"};
    } else if (!(certs_ = Certificates(&error))) {
      *prepared_ = Missing(error);
    }
    ::chmod(dir_.path().c_str(), 0711);
  }
  for (const char* p : programs) {
    if (!Executable(p)) return Missing(p);
  }
  return *prepared_;
}

ServerStatus MailServers::Started(std::unique_ptr<ServerStatus>& status, ServerStatus (MailServers::*start)()) {
  if (!status) status = std::make_unique<ServerStatus>((this->*start)());
  return *status;
}

ServerStatus MailServers::Launch(const std::string& name, const std::vector<std::string>& argv,
                                 const std::vector<uint16_t>& ports) {
  std::string error;
  const pid_t pid = StartProcess(argv, dir_ / (name + ".log"), &error);
  if (pid < 0) return Failed(name + ": " + error);
  for (uint16_t port : ports) {
    if (!WaitForPort("127.0.0.1", port, pid, kStartLimit)) {
      StopProcesses({pid}, kStopGrace);
      return Failed(name + " did not accept connections on 127.0.0.1:" + Num(port) + LogTail(name));
    }
  }
  pids_.push_back(pid);
  return {};
}

// Maildirs

fs::path MailServers::Maildir(const std::string& user) {
  const fs::path home = dir_ / "mail" / user;
  const fs::path maildir = home / "Maildir";
  if (!fs::exists(maildir / "tmp")) {
    for (const fs::path& p : {dir_ / "mail", home, maildir, maildir / "cur", maildir / "new", maildir / "tmp"}) {
      fs::create_directories(p);
      ::chmod(p.c_str(), 0700);
      Chown(p, kMailUid, kMailGid);
    }
    ::chmod((dir_ / "mail").c_str(), 0711);
  }
  return maildir;
}

fs::path MailServers::Deliver(const std::string& user, const std::string& message) {
  static std::atomic<unsigned> counter{0};
  const fs::path maildir = Maildir(user);
  const std::string name = std::to_string(::time(nullptr)) + ".M" + std::to_string(++counter) + "P" +
                           std::to_string(::getpid()) + ".trvtest,S=" + std::to_string(message.size());
  const fs::path tmp = maildir / "tmp" / name;
  const fs::path final_path = maildir / "new" / name;
  {
    std::ofstream out(tmp, std::ios::binary);
    out.write(message.data(), static_cast<std::streamsize>(message.size()));
    if (!out.good()) return {};
  }
  Chown(tmp, kMailUid, kMailGid);
  std::error_code ec;
  fs::rename(tmp, final_path, ec);
  return ec ? fs::path() : final_path;
}

std::vector<fs::path> MailServers::Messages(const std::string& user) {
  std::vector<fs::path> files;
  const fs::path maildir = Maildir(user);
  for (const char* sub : {"new", "cur"}) {
    std::error_code ec;
    for (const auto& e : fs::directory_iterator(maildir / sub, ec)) files.push_back(e.path());
  }
  return files;
}

std::string MailServers::WaitForMessage(const std::string& user, const std::string& part) {
  for (int tries = 0; tries < 300; ++tries) {
    for (const fs::path& path : Messages(user)) {
      if (std::string text = ReadFile(path); text.find(part) != std::string::npos) return text;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  return "";
}

// Dovecot

ServerStatus MailServers::StartDovecot() {
  const ServerStatus ready = Ready({kDovecot, "/usr/lib/dovecot/imap", "/usr/lib/dovecot/pop3", "/usr/lib/dovecot/lmtp"});
  if (!ready.ok) return ready;
  const fs::path base = dir_ / "dovecot";
  for (const char* sub : {"run", "state"}) fs::create_directories(base / sub);

  // Users with {PLAIN} passwords, which CRAM-MD5 and APOP need.
  const fs::path passwd = base / "passwd";
  std::string users;
  for (const MailUser* u : {&Alice(), &Bob()}) {
    users += u->name + ":{PLAIN}" + u->password + ":" + std::to_string(kMailUid) + ":" + std::to_string(kMailGid) +
             "::" + Str(dir_ / "mail" / u->name) + "\n";
    Maildir(u->name);
  }
  WriteFile(passwd, users);
  if (const group* g = ::getgrnam("dovecot")) Chown(passwd, 0, g->gr_gid);
  ::chmod(passwd.c_str(), 0640);

  auto certificate = [](const CertificateFiles& f) {
    return "ssl_cert = <" + Str(f.cert) + "\nssl_key = <" + Str(f.key) + "\n";
  };
  // The login service of a protocol with its plain and TLS ports.
  auto login = [](const std::string& protocol, uint16_t plain, uint16_t tls) {
    return Block("service " + protocol + "-login",
                 Block("inet_listener " + protocol, "port = " + Num(plain) + "\n") +
                     Block("inet_listener " + protocol + "s", "port = " + Num(tls) + "\nssl = yes\n")) +
           Block("protocol " + protocol, "mail_max_userip_connections = 100\n");
  };
  auto unix_socket = [](const std::string& service, const std::string& name, const std::string& mode) {
    return Block("service " + service, Block("unix_listener " + name, "mode = " + mode + "\n"));
  };
  const TestCertificates& c = *certs_;
  const ServerPorts& p = ports_;
  return Attempts({&ports_.imap, &ports_.imaps, &ports_.pop3, &ports_.pop3s}, [&] {
    WriteFile(base / "dovecot.conf",
              "base_dir = " + Str(base / "run") + "\nstate_dir = " + Str(base / "state") +
                  "\ninstance_name = trvtest-" + std::to_string(::getpid()) + "\nlog_path = " +
                  Str(dir_ / "dovecot.log") +
                  "\nprotocols = imap pop3 lmtp\nlisten = 127.0.0.1, 127.0.0.2, 127.0.0.3, 127.0.0.4\n"
                  "ssl = yes\nssl_min_protocol = TLSv1.2\n" +
                  certificate(c.server) + Block("local 127.0.0.2", certificate(c.expired)) +
                  Block("local 127.0.0.3", certificate(c.self_signed)) +
                  Block("local 127.0.0.4", certificate(c.other_name)) +
                  "auth_mechanisms = plain login cram-md5 apop\nauth_failure_delay = 0\nfirst_valid_uid = " +
                  std::to_string(kMailUid) + "\nmail_location = maildir:~/Maildir\n" +
                  Block("passdb", "driver = passwd-file\nargs = scheme=PLAIN " + Str(passwd) + "\n") +
                  Block("userdb", "driver = passwd-file\nargs = " + Str(passwd) + "\n") +
                  login("imap", p.imap, p.imaps) + login("pop3", p.pop3, p.pop3s) +
                  unix_socket("lmtp", "lmtp", "0666") + unix_socket("auth", "auth-client-postfix", "0666") +
                  // No auth penalty: wrong-password tests stay fast.
                  unix_socket("anvil", "anvil-auth-penalty", "0") +
                  Block("protocol lmtp", "auth_username_format = %Ln\n"));
    return Launch("dovecot", {kDovecot, "-F", "-c", Str(base / "dovecot.conf")}, {p.imap, p.imaps, p.pop3, p.pop3s});
  });
}

// Postfix

ServerStatus MailServers::StartPostfix() {
  if (ServerStatus s = Ready({kPostfix, kPostfixMaster}); !s.ok) return s;
  if (ServerStatus s = Dovecot(); !s.ok) return s;
  const fs::path conf = dir_ / "postfix";
  const fs::path queue = dir_ / "postfix-queue";  // never inside the config directory
  const fs::path data = dir_ / "postfix-data";
  for (const fs::path& d : {conf, queue, data}) fs::create_directories(d);
  if (const passwd* pw = ::getpwnam("postfix")) Chown(data, pw->pw_uid, pw->pw_gid);
  WriteFile(conf / "recipients", Alice().name + "@localhost x\n" + Bob().name + "@localhost x\n");
  const std::string run = Str(dir_ / "dovecot" / "run");
  WriteFile(conf / "main.cf",
            "compatibility_level = 3.6\nqueue_directory = " + Str(queue) + "\ndata_directory = " + Str(data) +
                "\nmail_owner = postfix\nsetgid_group = postdrop\n"
                "myhostname = localhost\nmydomain = localdomain\nmyorigin = localhost\n"
                "mydestination = localhost, localhost.localdomain\n"
                "inet_interfaces = 127.0.0.1\ninet_protocols = ipv4\nmynetworks = 127.0.0.0/8\n"
                "maillog_file = " + Str(dir_ / "postfix.log") + "\nmaillog_file_prefixes = " + Str(dir_.path()) +
                "\nalias_maps =\nalias_database =\n"
                "local_recipient_maps = texthash:" + Str(conf / "recipients") +
                "\nlocal_transport = lmtp:unix:" + run + "/lmtp\n"
                "default_transport = error:the test server does not relay\n"
                "relay_transport = error:the test server does not relay\n"
                "smtpd_banner = $myhostname ESMTP test\n"
                "smtpd_tls_cert_file = " + Str(certs_->server.cert) +
                "\nsmtpd_tls_key_file = " + Str(certs_->server.key) +
                "\nsmtpd_tls_security_level = may\nsmtpd_tls_auth_only = no\n"
                "smtpd_sasl_type = dovecot\nsmtpd_sasl_path = " + run + "/auth-client-postfix\n"
                "smtpd_sasl_auth_enable = yes\n"
                "smtpd_relay_restrictions = permit_sasl_authenticated, reject_unauth_destination\n"
                "smtpd_recipient_restrictions = reject_unauth_destination\nbiff = no\n");
  return Attempts({&ports_.smtp, &ports_.smtps}, [&] {
    WriteFile(conf / "master.cf",
              "127.0.0.1:" + Num(ports_.smtp) + " inet n - n - - smtpd\n127.0.0.1:" + Num(ports_.smtps) +
                  " inet n - n - - smtpd -o smtpd_tls_wrappermode=yes\n"
                  "pickup unix n - n 60 1 pickup\ncleanup unix n - n - 0 cleanup\nqmgr unix n - n 300 1 qmgr\n"
                  "tlsmgr unix - - n 1000? 1 tlsmgr\nrewrite unix - - n - - trivial-rewrite\n"
                  "bounce unix - - n - 0 bounce\ndefer unix - - n - 0 bounce\ntrace unix - - n - 0 bounce\n"
                  "verify unix - - n - 1 verify\nflush unix n - n 1000? 0 flush\nproxymap unix - - n - - proxymap\n"
                  "smtp unix - - n - - smtp\nrelay unix - - n - - smtp\nerror unix - - n - - error\n"
                  "retry unix - - n - - error\ndiscard unix - - n - - discard\nlmtp unix - - n - - lmtp\n"
                  "anvil unix - - n - 1 anvil\nscache unix - - n - 1 scache\n"
                  "postlog unix-dgram n - n - 1 postlogd\n");
    // "check" makes the queue directories with their owners and modes.
    if (RunProcess({kPostfix, "-c", Str(conf), "check"}, dir_ / "postfix-check.log") != 0) {
      return Failed("postfix check failed" + LogTail("postfix-check"));
    }
    return Launch("postfix", {kPostfixMaster, "-c", Str(conf), "-d"}, {ports_.smtp, ports_.smtps});
  });
}

// SOCKS proxies

ServerStatus MailServers::StartDante() {
  if (ServerStatus s = Ready({kDanted, "/usr/sbin/useradd", "/usr/sbin/chpasswd"}); !s.ok) return s;
  // Dante checks user names and passwords against the system's password
  // database, so its user has to exist there.
  const MailUser& u = DanteUser();
  if (!::getpwnam(u.name.c_str()) &&
      RunProcess({"/usr/sbin/useradd", "-M", "-N", "-r", "-s", "/usr/sbin/nologin", u.name},
                 dir_ / "useradd.log") != 0 &&
      !::getpwnam(u.name.c_str())) {
    return Failed("useradd " + u.name + " failed" + LogTail("useradd"));
  }
  WriteFile(dir_ / "chpasswd.in", u.name + ":" + u.password + "\n");
  if (RunProcess({"/bin/sh", "-c", "/usr/sbin/chpasswd < " + Str(dir_ / "chpasswd.in")}, dir_ / "useradd.log") != 0) {
    return Failed("chpasswd for " + u.name + " failed" + LogTail("useradd"));
  }
  const fs::path conf = dir_ / "danted.conf";
  return Attempts({&ports_.dante}, [&] {
    WriteFile(conf, "logoutput: " + Str(dir_ / "danted.log") + "\ninternal: 127.0.0.1 port = " +
                        Num(ports_.dante) +
                        "\nexternal: 127.0.0.1\nclientmethod: none\nsocksmethod: username none\n"
                        "user.privileged: root\nuser.unprivileged: nobody\n"
                        "client pass {\n  from: 127.0.0.0/8 to: 0.0.0.0/0\n}\n"
                        "socks pass {\n  from: 127.0.0.0/8 to: 127.0.0.0/8\n  command: connect\n"
                        "  protocol: tcp\n}\n");
    return Launch("danted", {kDanted, "-f", Str(conf), "-p", Str(dir_ / "danted.pid"), "-N", "1"}, {ports_.dante});
  });
}

ServerStatus MailServers::StartMicrosocks() {
  if (ServerStatus s = Ready({kMicrosocks}); !s.ok) return s;
  const MailUser& u = MicrosocksUser();
  return Attempts({&ports_.microsocks, &ports_.microsocks_auth}, [&] {
    ServerStatus s = Launch("microsocks", {kMicrosocks, "-i", "127.0.0.1", "-p", Num(ports_.microsocks)},
                            {ports_.microsocks});
    if (!s.ok) return s;
    return Launch("microsocks-auth",
                  {kMicrosocks, "-i", "127.0.0.1", "-p", Num(ports_.microsocks_auth), "-u", u.name, "-P", u.password},
                  {ports_.microsocks_auth});
  });
}

ServerStatus MailServers::StartSsh() {
  if (ServerStatus s = Ready({kSshd, kSsh, kSshKeygen}); !s.ok) return s;
  const fs::path ssh = dir_ / "ssh";
  fs::create_directories(ssh);
  ::chmod(ssh.c_str(), 0700);
  for (const char* key : {"host_key", "user_key"}) {
    if (RunProcess({kSshKeygen, "-q", "-t", "ed25519", "-N", "", "-f", Str(ssh / key)}, dir_ / "ssh-keygen.log")) {
      return Failed("ssh-keygen failed" + LogTail("ssh-keygen"));
    }
  }
  fs::copy_file(ssh / "user_key.pub", ssh / "authorized_keys", fs::copy_options::overwrite_existing);
  // sshd refuses to start without its privilege separation directory.
  std::error_code ec;
  fs::create_directories("/run/sshd", ec);
  const passwd* pw = ::getpwuid(::geteuid());
  const std::string user = pw ? pw->pw_name : "root";
  return Attempts({&ports_.sshd, &ports_.ssh_socks}, [&] {
    WriteFile(ssh / "sshd_config",
              "ListenAddress 127.0.0.1:" + Num(ports_.sshd) + "\nHostKey " + Str(ssh / "host_key") + "\nPidFile " +
                  Str(ssh / "sshd.pid") + "\nAuthorizedKeysFile " + Str(ssh / "authorized_keys") +
                  "\nPermitRootLogin prohibit-password\n"
                  "PasswordAuthentication no\nKbdInteractiveAuthentication no\nUsePAM no\n"
                  "StrictModes no\nAllowTcpForwarding local\n"
                  // Forwarding stays on loopback.
                  "PermitOpen 127.0.0.1:* localhost:*\n");
    ServerStatus s = Launch("sshd", {kSshd, "-D", "-e", "-f", Str(ssh / "sshd_config")}, {ports_.sshd});
    if (!s.ok) return s;
    return Launch("ssh-socks",
                  {kSsh, "-N", "-F", "/dev/null", "-D", "127.0.0.1:" + Num(ports_.ssh_socks), "-p", Num(ports_.sshd),
                   "-i", Str(ssh / "user_key"), "-o", "StrictHostKeyChecking=no", "-o",
                   "UserKnownHostsFile=/dev/null", "-o", "BatchMode=yes", "-o", "ExitOnForwardFailure=yes",
                   user + "@127.0.0.1"},
                  {ports_.ssh_socks});
  });
}

}  // namespace trv::test

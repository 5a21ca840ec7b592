#include "tests/support/mail_servers.h"

#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "tests/support/process.h"

namespace trv::test {

namespace fs = std::filesystem;

namespace {

constexpr auto kStartLimit = std::chrono::seconds(20);
constexpr auto kStopGrace = std::chrono::seconds(10);
constexpr int kStartAttempts = 3;
constexpr uid_t kMailUid = 8;      // Debian's mail user; Dovecot will not deliver as root
constexpr gid_t kMailGid = 8;

const char* const kDovecot = "/usr/sbin/dovecot";
const char* const kPostfix = "/usr/sbin/postfix";
const char* const kPostfixMaster = "/usr/lib/postfix/sbin/master";
const char* const kDanted = "/usr/sbin/danted";
const char* const kMicrosocks = "/usr/bin/microsocks";
const char* const kSshd = "/usr/sbin/sshd";
const char* const kSsh = "/usr/bin/ssh";
const char* const kSshKeygen = "/usr/bin/ssh-keygen";

ServerStatus Missing(const std::string& what) {
  return {false, true, what + " is not installed (scripts/install-deps.sh servers installs it)"};
}
ServerStatus Failed(const std::string& what) { return {false, false, what}; }

std::string Str(const fs::path& p) { return p.string(); }

ServerStatus NeedPrograms(const std::vector<const char*>& programs) {
  for (const char* p : programs) {
    if (!Executable(p)) return Missing(p);
  }
  return {};
}

// Runs start (which picks fresh ports) until it succeeds, at most
// kStartAttempts times: a port may be taken between choosing and binding.
template <typename Start>
ServerStatus Attempts(Start start) {
  ServerStatus s;
  for (int attempt = 0; attempt < kStartAttempts && !(s = start()).ok; ++attempt) {
  }
  return s;
}

void Chown(const fs::path& p, uid_t uid, gid_t gid) {
  if (::chown(p.c_str(), uid, gid) != 0) {
    // The harness runs as root; a failure shows up as a server error later.
  }
}

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
  const fs::path log = dir_ / (name + ".log");
  std::ifstream in(log);
  std::vector<std::string> lines;
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  std::string tail;
  for (size_t i = lines.size() > 12 ? lines.size() - 12 : 0; i < lines.size(); ++i) tail += "\n  " + lines[i];
  return " (log " + log.string() + ":" + tail + ")";
}

ServerStatus MailServers::Prepare() {
  if (prepared_) return *prepared_;
  prepared_ = std::make_unique<ServerStatus>();
  if (::geteuid() != 0) {
    *prepared_ = {false, true, "the mail server harness needs root (Dovecot's mail user, system users, sshd)"};
    return *prepared_;
  }
  ::chmod(dir_.path().c_str(), 0711);
  std::string error;
  certs_ = Certificates(&error);
  if (!certs_) *prepared_ = Missing(error);
  return *prepared_;
}

ServerStatus MailServers::Started(std::unique_ptr<ServerStatus>& status, ServerStatus (MailServers::*start)()) {
  if (!status) status = std::make_unique<ServerStatus>((this->*start)());
  return *status;
}

ServerStatus MailServers::Launch(const std::string& name, const std::vector<std::string>& argv,
                                 const std::vector<std::pair<std::string, uint16_t>>& ports, pid_t* pid) {
  std::string error;
  *pid = StartProcess(argv, dir_ / (name + ".log"), &error);
  if (*pid < 0) return Failed(name + ": " + error);
  for (const auto& [address, port] : ports) {
    if (!WaitForPort(address, port, *pid, kStartLimit)) {
      StopProcesses({*pid}, kStopGrace);
      *pid = -1;
      return Failed(name + " did not accept connections on " + address + ":" + std::to_string(port) +
                    LogTail(name));
    }
  }
  pids_.push_back(*pid);
  return {};
}

// ---------------------------------------------------------------------------
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

// ---------------------------------------------------------------------------
// Dovecot

ServerStatus MailServers::StartDovecot() {
  if (ServerStatus s = NeedPrograms({kDovecot, "/usr/lib/dovecot/imap", "/usr/lib/dovecot/pop3",
                                      "/usr/lib/dovecot/lmtp"});
      !s.ok) {
    return s;
  }
  if (ServerStatus s = Prepare(); !s.ok) return s;
  const fs::path base = dir_ / "dovecot";
  fs::create_directories(base / "run");
  fs::create_directories(base / "state");

  // Users with {PLAIN} passwords, which CRAM-MD5 and APOP need.
  const fs::path passwd = base / "passwd";
  {
    std::ofstream out(passwd);
    for (const MailUser* u : {&Alice(), &Bob()}) {
      out << u->name << ":{PLAIN}" << u->password << ":" << kMailUid << ":" << kMailGid << "::"
          << Str(dir_ / "mail" / u->name) << "\n";
      Maildir(u->name);
    }
  }
  if (const group* g = ::getgrnam("dovecot")) Chown(passwd, 0, g->gr_gid);
  ::chmod(passwd.c_str(), 0640);

  const TestCertificates& c = *certs_;
  auto local_cert = [](const char* address, const CertificateFiles& f) {
    return std::string("local ") + address + " {\n  ssl_cert = <" + Str(f.cert) + "\n  ssl_key = <" +
           Str(f.key) + "\n}\n";
  };
  return Attempts([&] {
    ports_.imap = PickFreePort();
    ports_.imaps = PickFreePort();
    ports_.pop3 = PickFreePort();
    ports_.pop3s = PickFreePort();
    std::ostringstream conf;
    conf << "base_dir = " << Str(base / "run") << "\n"
         << "state_dir = " << Str(base / "state") << "\n"
         << "instance_name = trvtest-" << ::getpid() << "\n"
         << "log_path = " << Str(dir_ / "dovecot.log") << "\n"
         << "protocols = imap pop3 lmtp\n"
         << "listen = 127.0.0.1, 127.0.0.2, 127.0.0.3, 127.0.0.4\n"
         << "ssl = yes\n"
         << "ssl_cert = <" << Str(c.server.cert) << "\n"
         << "ssl_key = <" << Str(c.server.key) << "\n"
         << "ssl_min_protocol = TLSv1.2\n"
         << local_cert("127.0.0.2", c.expired) << local_cert("127.0.0.3", c.self_signed)
         << local_cert("127.0.0.4", c.other_name)
         << "auth_mechanisms = plain login cram-md5 apop\n"
         << "auth_failure_delay = 0\n"
         << "first_valid_uid = " << kMailUid << "\n"
         << "mail_location = maildir:~/Maildir\n"
         << "passdb {\n  driver = passwd-file\n  args = scheme=PLAIN " << Str(passwd) << "\n}\n"
         << "userdb {\n  driver = passwd-file\n  args = " << Str(passwd) << "\n}\n"
         << "service imap-login {\n"
         << "  inet_listener imap {\n    port = " << ports_.imap << "\n  }\n"
         << "  inet_listener imaps {\n    port = " << ports_.imaps << "\n    ssl = yes\n  }\n}\n"
         << "service pop3-login {\n"
         << "  inet_listener pop3 {\n    port = " << ports_.pop3 << "\n  }\n"
         << "  inet_listener pop3s {\n    port = " << ports_.pop3s << "\n    ssl = yes\n  }\n}\n"
         << "service lmtp {\n  unix_listener lmtp {\n    mode = 0666\n  }\n}\n"
         << "service auth {\n  unix_listener auth-client-postfix {\n    mode = 0666\n  }\n}\n"
         // No auth penalty: wrong-password tests stay fast.
         << "service anvil {\n  unix_listener anvil-auth-penalty {\n    mode = 0\n  }\n}\n"
         << "protocol imap {\n  mail_max_userip_connections = 100\n}\n"
         << "protocol pop3 {\n  mail_max_userip_connections = 100\n}\n"
         << "protocol lmtp {\n  auth_username_format = %Ln\n}\n";
    const fs::path conf_file = base / "dovecot.conf";
    {
      std::ofstream out(conf_file);
      out << conf.str();
    }
    pid_t pid = -1;
    ServerStatus s = Launch("dovecot", {kDovecot, "-F", "-c", Str(conf_file)},
                            {{"127.0.0.1", ports_.imap}, {"127.0.0.1", ports_.imaps}, {"127.0.0.1", ports_.pop3},
                             {"127.0.0.1", ports_.pop3s}},
                            &pid);
    return s;
  });
}

// ---------------------------------------------------------------------------
// Postfix

ServerStatus MailServers::StartPostfix() {
  if (ServerStatus s = NeedPrograms({kPostfix, kPostfixMaster}); !s.ok) return s;
  if (ServerStatus s = Dovecot(); !s.ok) return s;
  const fs::path conf_dir = dir_ / "postfix";
  const fs::path queue = dir_ / "postfix-queue";  // never inside the config directory
  const fs::path data = dir_ / "postfix-data";
  fs::create_directories(conf_dir);
  fs::create_directories(queue);
  fs::create_directories(data);
  if (const passwd* pw = ::getpwnam("postfix")) Chown(data, pw->pw_uid, pw->pw_gid);
  {
    std::ofstream out(conf_dir / "recipients");
    for (const MailUser* u : {&Alice(), &Bob()}) out << u->name << "@localhost x\n";
  }
  const fs::path run = dir_ / "dovecot" / "run";
  const TestCertificates& c = *certs_;
  return Attempts([&] {
    ports_.smtp = PickFreePort();
    ports_.smtps = PickFreePort();
    std::ofstream main(conf_dir / "main.cf");
    main << "compatibility_level = 3.6\n"
         << "queue_directory = " << Str(queue) << "\n"
         << "data_directory = " << Str(data) << "\n"
         << "mail_owner = postfix\nsetgid_group = postdrop\n"
         << "myhostname = localhost\nmydomain = localdomain\nmyorigin = localhost\n"
         << "mydestination = localhost, localhost.localdomain\n"
         << "inet_interfaces = 127.0.0.1\ninet_protocols = ipv4\nmynetworks = 127.0.0.0/8\n"
         << "maillog_file = " << Str(dir_ / "postfix.log") << "\n"
         << "maillog_file_prefixes = " << Str(dir_.path()) << "\n"
         << "alias_maps =\nalias_database =\n"
         << "local_recipient_maps = texthash:" << Str(conf_dir / "recipients") << "\n"
         << "local_transport = lmtp:unix:" << Str(run / "lmtp") << "\n"
         << "default_transport = error:the test server does not relay\n"
         << "relay_transport = error:the test server does not relay\n"
         << "smtpd_banner = $myhostname ESMTP test\n"
         << "smtpd_tls_cert_file = " << Str(c.server.cert) << "\n"
         << "smtpd_tls_key_file = " << Str(c.server.key) << "\n"
         << "smtpd_tls_security_level = may\nsmtpd_tls_auth_only = no\n"
         << "smtpd_sasl_type = dovecot\n"
         << "smtpd_sasl_path = " << Str(run / "auth-client-postfix") << "\n"
         << "smtpd_sasl_auth_enable = yes\n"
         << "smtpd_relay_restrictions = permit_sasl_authenticated, reject_unauth_destination\n"
         << "smtpd_recipient_restrictions = reject_unauth_destination\n"
         << "biff = no\n";
    main.close();
    std::ofstream master(conf_dir / "master.cf");
    master << "127.0.0.1:" << ports_.smtp << " inet n - n - - smtpd\n"
           << "127.0.0.1:" << ports_.smtps << " inet n - n - - smtpd -o smtpd_tls_wrappermode=yes\n";
    for (const char* service :
         {"pickup unix n - n 60 1 pickup", "cleanup unix n - n - 0 cleanup", "qmgr unix n - n 300 1 qmgr",
          "tlsmgr unix - - n 1000? 1 tlsmgr", "rewrite unix - - n - - trivial-rewrite",
          "bounce unix - - n - 0 bounce", "defer unix - - n - 0 bounce", "trace unix - - n - 0 bounce",
          "verify unix - - n - 1 verify", "flush unix n - n 1000? 0 flush", "proxymap unix - - n - - proxymap",
          "smtp unix - - n - - smtp", "relay unix - - n - - smtp", "error unix - - n - - error",
          "retry unix - - n - - error", "discard unix - - n - - discard", "lmtp unix - - n - - lmtp",
          "anvil unix - - n - 1 anvil", "scache unix - - n - 1 scache", "postlog unix-dgram n - n - 1 postlogd"}) {
      master << service << "\n";
    }
    master.close();
    // "check" makes the queue directories with their owners and modes.
    if (RunProcess({kPostfix, "-c", Str(conf_dir), "check"}, dir_ / "postfix-check.log") != 0) {
      return Failed("postfix check failed" + LogTail("postfix-check"));
    }
    pid_t pid = -1;
    ServerStatus s = Launch("postfix", {kPostfixMaster, "-c", Str(conf_dir), "-d"},
                            {{"127.0.0.1", ports_.smtp}, {"127.0.0.1", ports_.smtps}}, &pid);
    return s;
  });
}

// ---------------------------------------------------------------------------
// SOCKS proxies

ServerStatus MailServers::StartDante() {
  if (ServerStatus s = NeedPrograms({kDanted, "/usr/sbin/useradd", "/usr/sbin/chpasswd"}); !s.ok) return s;
  if (ServerStatus s = Prepare(); !s.ok) return s;
  // Dante checks user names and passwords against the system's password
  // database, so its user has to exist there.
  const MailUser& u = DanteUser();
  if (!::getpwnam(u.name.c_str()) &&
      RunProcess({"/usr/sbin/useradd", "-M", "-N", "-r", "-s", "/usr/sbin/nologin", u.name},
                 dir_ / "useradd.log") != 0 &&
      !::getpwnam(u.name.c_str())) {
    return Failed("useradd " + u.name + " failed" + LogTail("useradd"));
  }
  const fs::path input = dir_ / "chpasswd.in";
  WriteFile(input, u.name + ":" + u.password + "\n");
  if (RunProcess({"/bin/sh", "-c", "/usr/sbin/chpasswd < " + Str(input)}, dir_ / "useradd.log") != 0) {
    return Failed("chpasswd for " + u.name + " failed" + LogTail("useradd"));
  }
  return Attempts([&] {
    ports_.dante = PickFreePort();
    const fs::path conf = dir_ / "danted.conf";
    WriteFile(conf, "logoutput: " + Str(dir_ / "danted.log") + "\n" +
                        "internal: 127.0.0.1 port = " + std::to_string(ports_.dante) + "\n" +
                        "external: 127.0.0.1\n"
                        "clientmethod: none\n"
                        "socksmethod: username none\n"
                        "user.privileged: root\n"
                        "user.unprivileged: nobody\n"
                        "client pass {\n  from: 127.0.0.0/8 to: 0.0.0.0/0\n}\n"
                        "socks pass {\n  from: 127.0.0.0/8 to: 127.0.0.0/8\n  command: connect\n"
                        "  protocol: tcp\n}\n");
    pid_t pid = -1;
    ServerStatus s = Launch("danted", {kDanted, "-f", Str(conf), "-p", Str(dir_ / "danted.pid"), "-N", "1"},
                            {{"127.0.0.1", ports_.dante}}, &pid);
    return s;
  });
}

ServerStatus MailServers::StartMicrosocks() {
  if (ServerStatus s = NeedPrograms({kMicrosocks}); !s.ok) return s;
  if (ServerStatus s = Prepare(); !s.ok) return s;
  const MailUser& u = MicrosocksUser();
  return Attempts([&] {
    ports_.microsocks = PickFreePort();
    ports_.microsocks_auth = PickFreePort();
    pid_t pid = -1;
    ServerStatus s = Launch("microsocks", {kMicrosocks, "-i", "127.0.0.1", "-p", std::to_string(ports_.microsocks)},
                            {{"127.0.0.1", ports_.microsocks}}, &pid);
    if (s.ok) {
      s = Launch("microsocks-auth",
                 {kMicrosocks, "-i", "127.0.0.1", "-p", std::to_string(ports_.microsocks_auth), "-u", u.name, "-P",
                  u.password},
                 {{"127.0.0.1", ports_.microsocks_auth}}, &pid);
    }
    return s;
  });
}

ServerStatus MailServers::StartSsh() {
  if (ServerStatus s = NeedPrograms({kSshd, kSsh, kSshKeygen}); !s.ok) return s;
  if (ServerStatus s = Prepare(); !s.ok) return s;
  const fs::path ssh = dir_ / "ssh";
  fs::create_directories(ssh);
  ::chmod(ssh.c_str(), 0700);
  for (const char* key : {"host_key", "user_key"}) {
    if (RunProcess({kSshKeygen, "-q", "-t", "ed25519", "-N", "", "-f", Str(ssh / key)}, dir_ / "ssh-keygen.log") !=
        0) {
      return Failed("ssh-keygen failed" + LogTail("ssh-keygen"));
    }
  }
  fs::copy_file(ssh / "user_key.pub", ssh / "authorized_keys", fs::copy_options::overwrite_existing);
  // sshd refuses to start without its privilege separation directory.
  std::error_code ec;
  fs::create_directories("/run/sshd", ec);
  return Attempts([&] {
    ports_.sshd = PickFreePort();
    ports_.ssh_socks = PickFreePort();
    const fs::path conf = ssh / "sshd_config";
    WriteFile(conf, "ListenAddress 127.0.0.1:" + std::to_string(ports_.sshd) + "\n" +
                        "HostKey " + Str(ssh / "host_key") + "\n" +
                        "PidFile " + Str(ssh / "sshd.pid") + "\n" +
                        "AuthorizedKeysFile " + Str(ssh / "authorized_keys") + "\n" +
                        "PermitRootLogin prohibit-password\n"
                        "PasswordAuthentication no\nKbdInteractiveAuthentication no\nUsePAM no\n"
                        "StrictModes no\nAllowTcpForwarding local\n"
                        // Forwarding stays on loopback.
                        "PermitOpen 127.0.0.1:* localhost:*\n");
    pid_t pid = -1;
    ServerStatus s = Launch("sshd", {kSshd, "-D", "-e", "-f", Str(conf)}, {{"127.0.0.1", ports_.sshd}}, &pid);
    if (s.ok) {
      const std::string user = ::getpwuid(::geteuid()) ? ::getpwuid(::geteuid())->pw_name : "root";
      s = Launch("ssh-socks",
                 {kSsh, "-N", "-F", "/dev/null", "-D", "127.0.0.1:" + std::to_string(ports_.ssh_socks), "-p",
                  std::to_string(ports_.sshd), "-i", Str(ssh / "user_key"), "-o", "StrictHostKeyChecking=no",
                  "-o", "UserKnownHostsFile=/dev/null", "-o", "BatchMode=yes", "-o", "ExitOnForwardFailure=yes",
                  user + "@127.0.0.1"},
                 {{"127.0.0.1", ports_.ssh_socks}}, &pid);
    }
    return s;
  });
}

}  // namespace trv::test

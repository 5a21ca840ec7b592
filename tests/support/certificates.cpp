#include "tests/support/certificates.h"

#include <memory>
#include <mutex>

#include "tests/support/process.h"
#include "tests/support/temp_dir.h"

namespace trv::test {

namespace {

const char* const kOpenssl = "/usr/bin/openssl";

struct Maker {
  TempDir temp;
  TestCertificates certs;
  std::string error;
  int serial = 1;

  bool Run(const std::vector<std::string>& args) {
    std::vector<std::string> argv{kOpenssl};
    argv.insert(argv.end(), args.begin(), args.end());
    if (RunProcess(argv, temp / "openssl.log") == 0) return true;
    error = "openssl " + args[0] + " failed; see " + (temp / "openssl.log").string();
    return false;
  }

  CertificateFiles Files(const std::string& name) { return {temp / (name + ".pem"), temp / (name + ".key")}; }

  // "openssl req" with a new P-256 key for f, the subject CN=cn and more arguments.
  bool Request(const CertificateFiles& f, const std::string& cn, std::vector<std::string> more) {
    std::vector<std::string> args{"req", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-keyout",
                                  f.key.string(), "-subj", "/CN=" + cn};
    args.insert(args.end(), more.begin(), more.end());
    return Run(args);
  }

  bool SelfSigned(const CertificateFiles& f, const std::string& cn, const std::vector<std::string>& exts) {
    std::vector<std::string> more{"-x509", "-out", f.cert.string(), "-days", "3650"};
    for (const std::string& e : exts) more.insert(more.end(), {"-addext", e});
    return Request(f, cn, more);
  }

  bool Signed(const CertificateFiles& f, const std::string& cn, const std::string& sans, int days) {
    const std::string csr = f.cert.string() + ".csr";
    const std::string ext = f.cert.string() + ".ext";
    WriteFile(ext, "basicConstraints=CA:FALSE\nextendedKeyUsage=serverAuth\n" +
                       (sans.empty() ? "" : "subjectAltName=" + sans + "\n"));
    // A negative number of days gives a certificate that ended before now.
    return Request(f, cn, {"-out", csr}) &&
           Run({"x509", "-req", "-in", csr, "-CA", certs.ca.cert.string(), "-CAkey", certs.ca.key.string(),
                "-set_serial", std::to_string(++serial), "-days", std::to_string(days), "-extfile", ext, "-out",
                f.cert.string()});
  }

  bool Make() {
    if (!Executable(kOpenssl)) {
      error = std::string(kOpenssl) + " is not installed";
      return false;
    }
    certs.dir = temp.path();
    certs.ca = Files("ca");
    certs.server = Files("server");
    certs.expired = Files("expired");
    certs.self_signed = Files("self-signed");
    certs.other_name = Files("other-name");
    certs.cn_only = Files("cn-only");
    return SelfSigned(certs.ca, "Tarvo Test CA",
                      {"basicConstraints=critical,CA:TRUE", "keyUsage=critical,keyCertSign,cRLSign"}) &&
           Signed(certs.server, "localhost", "DNS:localhost,IP:127.0.0.1", 3650) &&
           Signed(certs.expired, "localhost", "DNS:localhost,IP:127.0.0.2", -1) &&
           Signed(certs.other_name, "mail.other.test", "DNS:mail.other.test", 3650) &&
           Signed(certs.cn_only, "localhost", "", 3650) &&
           SelfSigned(certs.self_signed, "localhost", {"subjectAltName=DNS:localhost,IP:127.0.0.3"});
  }
};

}  // namespace

const TestCertificates* Certificates(std::string* error) {
  static std::once_flag once;
  static std::unique_ptr<Maker> maker;
  static bool made = false;
  std::call_once(once, [] {
    maker = std::make_unique<Maker>();
    made = maker->Make();
  });
  if (!made) {
    *error = maker->error;
    return nullptr;
  }
  return &maker->certs;
}

}  // namespace trv::test

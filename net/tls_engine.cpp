#include "net/tls_engine.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <cstdio>

#include "base/thread_annotations.h"
#include "base/hex_digits.h"
#include "net/certificate_check.h"
#include "net/socket_errors.h"
#include "net/transport.h"

namespace trv {

namespace {

constexpr size_t kRecordChunk = 16 * 1024 + 512;  // one full record with its overhead
constexpr size_t kWriteChunk = 64 * 1024;          // plaintext handed to SSL_write at a time

Mutex g_context_mu;
SSL_CTX* g_context GUARDED_BY(g_context_mu) = nullptr;
int g_engine_index = -1;

using VerifyFunction = int (*)(X509_STORE_CTX*, void*);

// The one client context with the trust store, created on first use.
SSL_CTX* SharedContext(VerifyFunction verify) {
  MutexLock lock(g_context_mu);
  if (g_context) return g_context;
  SSL_CTX* ctx = SSL_CTX_new(TLS_client_method());
  if (!ctx) return nullptr;
  SSL_CTX_set_default_verify_paths(ctx);
  SSL_CTX_set_verify(ctx, SSL_VERIFY_PEER, nullptr);
  SSL_CTX_set_cert_verify_callback(ctx, verify, nullptr);
  SSL_CTX_set_options(ctx, SSL_OP_NO_RENEGOTIATION | SSL_OP_NO_COMPRESSION);
  g_engine_index = SSL_get_ex_new_index(0, nullptr, nullptr, nullptr, nullptr);
  g_context = ctx;
  // The context lives until the process ends.
  std::atexit([] {
    MutexLock lock(g_context_mu);
    SSL_CTX_free(g_context);
    g_context = nullptr;
  });
  return g_context;
}

std::string ErrorQueueText() {
  std::string text;
  unsigned long e;
  char buf[256];
  while ((e = ERR_get_error()) != 0) {
    ERR_error_string_n(e, buf, sizeof buf);
    if (!text.empty()) text += "; ";
    text += buf;
  }
  return text;
}

uint32_t EngineCodeFor(unsigned long err) {
  if (err == 0) return 0;
  if (ERR_GET_LIB(err) != ERR_LIB_SSL) return kTlsEngineProtocol;
  switch (ERR_GET_REASON(err)) {
    case SSL_R_WRONG_VERSION_NUMBER:
    case SSL_R_PACKET_LENGTH_TOO_LONG:
    case SSL_R_RECORD_LENGTH_MISMATCH:
    case SSL_R_HTTP_REQUEST:
    case SSL_R_HTTPS_PROXY_REQUEST:
    case SSL_R_UNKNOWN_PROTOCOL:
      return kTlsEngineNotTls;
    case SSL_R_UNSUPPORTED_PROTOCOL:
    case SSL_R_NO_PROTOCOLS_AVAILABLE:
    case SSL_R_TLSV1_ALERT_PROTOCOL_VERSION:
    case SSL_R_VERSION_TOO_LOW:
    case SSL_R_VERSION_TOO_HIGH:
      return kTlsEngineNoVersion;
    case SSL_R_NO_CIPHERS_AVAILABLE:
    case SSL_R_NO_SHARED_CIPHER:
    case SSL_R_NO_CIPHER_MATCH:
    case SSL_R_SSLV3_ALERT_HANDSHAKE_FAILURE:
      return kTlsEngineNoCipher;
    case SSL_R_CERTIFICATE_VERIFY_FAILED:
      return kTlsEngineCertificateRefused;
    case SSL_R_UNEXPECTED_EOF_WHILE_READING:
      return kTlsEngineTruncated;
    default:
      return ERR_GET_REASON(err) >= SSL_AD_REASON_OFFSET ? kTlsEngineAlert : kTlsEngineProtocol;
  }
}

// Protocol versions from the oldest.
struct VersionBit {
  uint32_t bit;
  int version;
};
constexpr VersionBit kVersions[] = {
    {kTls10, TLS1_VERSION},
    {kTls11, TLS1_1_VERSION},
    {kTls12, TLS1_2_VERSION},
    {kTls13, TLS1_3_VERSION},
};

}  // namespace

// ---------------------------------------------------------------------------
// TlsCertificate

TlsCertificate::TlsCertificate(X509* x509) : x509_(x509) { X509_up_ref(x509_); }
TlsCertificate::~TlsCertificate() { X509_free(x509_); }

std::unique_ptr<TlsCertificate> TlsCertificate::FromPemFile(const std::string& path) {
  FILE* f = std::fopen(path.c_str(), "rb");
  if (!f) return nullptr;
  X509* x = PEM_read_X509(f, nullptr, nullptr, nullptr);
  std::fclose(f);
  if (!x) return nullptr;
  auto cert = std::make_unique<TlsCertificate>(x);
  X509_free(x);
  return cert;
}

bool TlsCertificate::MatchesName(std::string_view host) const {
  if (host.empty()) return false;
  return X509_check_host(x509_, host.data(), host.size(), X509_CHECK_FLAG_ALWAYS_CHECK_SUBJECT, nullptr) == 1;
}

bool TlsCertificate::MatchesAddress(std::string_view literal) const {
  const std::string z(literal);
  return X509_check_ip_asc(x509_, z.c_str(), 0) == 1;
}

std::string TlsCertificate::CommonName() const {
  char buf[256] = {};
  const int n = X509_NAME_get_text_by_NID(X509_get_subject_name(x509_), NID_commonName, buf, sizeof buf);
  return n > 0 ? std::string(buf, static_cast<size_t>(n)) : std::string();
}

std::vector<std::string> TlsCertificate::DnsNames() const {
  std::vector<std::string> names;
  auto* sans = static_cast<GENERAL_NAMES*>(X509_get_ext_d2i(x509_, NID_subject_alt_name, nullptr, nullptr));
  if (!sans) return names;
  for (int i = 0; i < sk_GENERAL_NAME_num(sans); ++i) {
    const GENERAL_NAME* gn = sk_GENERAL_NAME_value(sans, i);
    if (gn->type != GEN_DNS) continue;
    const ASN1_IA5STRING* s = gn->d.dNSName;
    names.emplace_back(reinterpret_cast<const char*>(ASN1_STRING_get0_data(s)),
                       static_cast<size_t>(ASN1_STRING_length(s)));
  }
  GENERAL_NAMES_free(sans);
  return names;
}

namespace {
// What `print` writes into a memory BIO, as text.
template <typename Print>
std::string PrintedText(Print print) {
  BIO* b = BIO_new(BIO_s_mem());
  if (!b) return {};
  print(b);
  char* data = nullptr;
  const long n = BIO_get_mem_data(b, &data);
  std::string text(data, n > 0 ? static_cast<size_t>(n) : 0);
  BIO_free(b);
  return text;
}

std::string NameText(const X509_NAME* name) {
  return PrintedText([&](BIO* b) { X509_NAME_print_ex(b, name, 0, XN_FLAG_ONELINE & ~ASN1_STRFLGS_ESC_MSB); });
}
}  // namespace

std::string TlsCertificate::Subject() const { return NameText(X509_get_subject_name(x509_)); }
std::string TlsCertificate::Issuer() const { return NameText(X509_get_issuer_name(x509_)); }

std::string TlsCertificate::NotAfter() const {
  return PrintedText([&](BIO* b) { ASN1_TIME_print(b, X509_get0_notAfter(x509_)); });
}

std::string TlsCertificate::NotBefore() const {
  return PrintedText([&](BIO* b) { ASN1_TIME_print(b, X509_get0_notBefore(x509_)); });
}

namespace {
std::string DigestHex(X509* x509, const EVP_MD* md_type) {
  unsigned char md[EVP_MAX_MD_SIZE];
  unsigned int len = 0;
  if (!X509_digest(x509, md_type, md, &len)) return {};
  return LowerHex(std::string_view(reinterpret_cast<const char*>(md), len));
}
}  // namespace

std::string TlsCertificate::Sha256() const { return DigestHex(x509_, EVP_sha256()); }
std::string TlsCertificate::Sha1() const { return DigestHex(x509_, EVP_sha1()); }

std::string TlsCertificate::PublicKeySha256() const {
  unsigned char* der = nullptr;
  const int n = i2d_X509_PUBKEY(X509_get_X509_PUBKEY(x509_), &der);
  if (n <= 0) return {};
  unsigned char md[EVP_MAX_MD_SIZE];
  unsigned int len = 0;
  const bool ok = EVP_Digest(der, static_cast<size_t>(n), md, &len, EVP_sha256(), nullptr) == 1;
  OPENSSL_free(der);
  return ok ? LowerHex(std::string_view(reinterpret_cast<const char*>(md), len)) : std::string();
}

std::string TlsCertificate::Der() const {
  unsigned char* der = nullptr;
  const int n = i2d_X509(x509_, &der);
  if (n <= 0) return {};
  std::string bytes(reinterpret_cast<char*>(der), static_cast<size_t>(n));
  OPENSSL_free(der);
  return bytes;
}

// ---------------------------------------------------------------------------
// TlsEngine

TlsEngine::TlsEngine() = default;
TlsEngine::~TlsEngine() { Reset(); }

void TlsEngine::Reset() {
  if (ssl_) SSL_free(ssl_);  // frees both BIOs
  ssl_ = nullptr;
  in_ = out_ = nullptr;
  channel_ = nullptr;
  connected_ = false;
  refused_ = false;
  chain_flags_ = 0;
}

Result TlsEngine::AddTrustedCertificates(const std::string& pem_file) {
  SSL_CTX* ctx = SharedContext(&VerifyCallback);
  if (!ctx) return SecureTransportError(kTlsEngineSetup);
  MutexLock lock(g_context_mu);
  if (X509_STORE_load_file(SSL_CTX_get_cert_store(ctx), pem_file.c_str()) != 1) {
    ERR_clear_error();
    return rc::kFail;
  }
  return rc::kOk;
}

Result TlsEngine::Setup(const Options& options) {
  auto setup_failed = [this](const char* what) {
    error_detail_ = what;
    const std::string queue = ErrorQueueText();
    if (!queue.empty()) error_detail_ += ": " + queue;
    last_error_ = kTlsEngineSetup;
    return SecureTransportError(last_error_);
  };
  SSL_CTX* ctx = SharedContext(&VerifyCallback);
  if (!ctx || !(ssl_ = SSL_new(ctx))) return setup_failed("the TLS context could not be made");
  in_ = BIO_new(BIO_s_mem());
  out_ = BIO_new(BIO_s_mem());
  if (!in_ || !out_) {
    BIO_free(in_);
    BIO_free(out_);
    in_ = out_ = nullptr;
    return setup_failed("out of memory");
  }
  SSL_set_bio(ssl_, in_, out_);
  SSL_set_connect_state(ssl_);
  SSL_set_ex_data(ssl_, g_engine_index, this);

  // OpenSSL offers one unbroken range of versions. With a gap in the bit
  // set, the range that holds the newest enabled version is offered.
  int lowest = 0, highest = 0;
  for (auto v = std::rbegin(kVersions); v != std::rend(kVersions); ++v) {
    if (options.versions & v->bit) {
      if (!highest) highest = v->version;
      lowest = v->version;
    } else if (highest) {
      break;
    }
  }
  if (!highest) return setup_failed("no TLS version is enabled");
  SSL_set_min_proto_version(ssl_, lowest);
  SSL_set_max_proto_version(ssl_, highest);
  // OpenSSL 3 negotiates TLS 1.0 and 1.1 only at security level 0. The
  // certificate chain keeps its own minimum key strength (VerifyCallback).
  if (lowest < TLS1_2_VERSION) SSL_set_security_level(ssl_, 0);

  // Every suite the library offers with authentication and encryption;
  // strong encryption keeps those whose keys have 128 bits or more. The TLS
  // 1.3 suites all do.
  if (SSL_set_cipher_list(ssl_, "ALL:!aNULL:!eNULL") != 1) return setup_failed("no cipher suite");
  if (options.strong) {
    std::string strong;
    STACK_OF(SSL_CIPHER)* list = SSL_get_ciphers(ssl_);
    for (int i = 0; i < sk_SSL_CIPHER_num(list); ++i) {
      const SSL_CIPHER* c = sk_SSL_CIPHER_value(list, i);
      if (SSL_CIPHER_get_bits(c, nullptr) < 128 || SSL_CIPHER_get_version(c) == std::string("TLSv1.3")) continue;
      if (!strong.empty()) strong += ':';
      strong += SSL_CIPHER_get_name(c);
    }
    if (strong.empty() || SSL_set_cipher_list(ssl_, strong.c_str()) != 1) {
      return setup_failed("no strong cipher suite");
    }
  }

  IpAddress literal;
  if (!options.host.empty() && !ParseIpv4Literal(options.host, &literal)) {
    SSL_set_tlsext_host_name(ssl_, options.host.c_str());
  }
  return rc::kOk;
}

namespace {
// The engine whose handshake a chain check belongs to.
TlsEngine* EngineOf(X509_STORE_CTX* store_ctx) {
  auto* ssl = static_cast<SSL*>(X509_STORE_CTX_get_ex_data(store_ctx, SSL_get_ex_data_X509_STORE_CTX_idx()));
  return ssl ? static_cast<TlsEngine*>(SSL_get_ex_data(ssl, g_engine_index)) : nullptr;
}
}  // namespace

int TlsEngine::CollectCallback(int ok, X509_STORE_CTX* store_ctx) {
  if (!ok) {
    if (TlsEngine* self = EngineOf(store_ctx)) {
      self->chain_flags_ |= ChainFlagForVerifyError(X509_STORE_CTX_get_error(store_ctx));
    }
  }
  return 1;  // go on, so that every problem of the chain is counted
}

int TlsEngine::VerifyCallback(X509_STORE_CTX* store_ctx, void*) {
  TlsEngine* self = EngineOf(store_ctx);
  X509* leaf = X509_STORE_CTX_get0_cert(store_ctx);
  if (!self || !self->channel_ || !leaf) return 0;
  self->chain_flags_ = 0;
  // Keys and digests of the chain must reach the strength of security level
  // 2, whatever level the protocol versions required.
  X509_VERIFY_PARAM_set_auth_level(X509_STORE_CTX_get0_param(store_ctx), 2);
  X509_STORE_CTX_set_verify_cb(store_ctx, CollectCallback);
  if (X509_verify_cert(store_ctx) <= 0 && self->chain_flags_ == 0) self->chain_flags_ = kCertInvalid;
  const TlsCertificate cert(leaf);
  if (!self->channel_->CheckCertificate(self->chain_flags_, cert)) {
    self->refused_ = true;
    X509_STORE_CTX_set_error(store_ctx, X509_V_ERR_APPLICATION_VERIFICATION);
    return 0;
  }
  X509_STORE_CTX_set_error(store_ctx, X509_V_OK);
  return 1;
}

Result TlsEngine::Flush(Channel& channel) {
  char chunk[kRecordChunk];
  while (BIO_ctrl_pending(out_) > 0) {
    const int n = BIO_read(out_, chunk, sizeof chunk);
    if (n <= 0) break;
    if (Result r = channel.SendRaw(chunk, static_cast<size_t>(n)); r.failed()) return r;
  }
  return rc::kOk;
}

Result TlsEngine::Pull(Channel& channel) {
  char chunk[kRecordChunk];
  size_t got = 0;
  if (Result r = channel.ReceiveRaw(chunk, sizeof chunk, &got); r.failed()) return r;
  if (BIO_write(in_, chunk, static_cast<int>(got)) != static_cast<int>(got)) return Fail(SSL_ERROR_SSL);
  return rc::kOk;
}

Result TlsEngine::Fail(int ssl_error) {
  const unsigned long first = ERR_peek_error();
  uint32_t code = refused_ ? kTlsEngineCertificateRefused : EngineCodeFor(first);
  if (code == 0 && ssl_error == SSL_ERROR_SYSCALL) code = kTlsEngineTruncated;
  error_detail_ = ErrorQueueText();
  last_error_ = code;
  connected_ = false;
  return SecureTransportError(code);
}

Result TlsEngine::Handshake(Channel& channel, const Options& options) {
  Reset();
  last_error_ = 0;
  error_detail_.clear();
  if (Result r = Setup(options); r.failed()) return r;
  channel_ = &channel;
  for (;;) {
    ERR_clear_error();
    const int n = SSL_do_handshake(ssl_);
    const int err = n == 1 ? SSL_ERROR_NONE : SSL_get_error(ssl_, n);
    // Whatever the engine produced goes out first, an alert included.
    const Result sent = Flush(channel);
    if (n == 1 && sent.ok()) {
      channel_ = nullptr;
      connected_ = true;
      return rc::kOk;
    }
    if (err != SSL_ERROR_NONE && err != SSL_ERROR_WANT_READ) {
      channel_ = nullptr;
      return Fail(err);
    }
    if (sent.failed()) {
      channel_ = nullptr;
      return sent;
    }
    if (Result r = Pull(channel); r.failed()) {
      channel_ = nullptr;
      if (r != rc::kSockClosed) return r;
      // A server that will not talk TLS with us often just hangs up.
      error_detail_ = "the server closed the connection during the handshake";
      last_error_ = kTlsEngineClosedInHandshake;
      return SecureTransportError(last_error_);
    }
  }
}

Result TlsEngine::Write(Channel& channel, const char* data, size_t size) {
  if (!connected_) return rc::kSockNotConnected;
  while (size > 0) {
    const size_t piece = std::min(size, kWriteChunk);
    ERR_clear_error();
    const int n = SSL_write(ssl_, data, static_cast<int>(piece));
    if (n <= 0) return Fail(SSL_get_error(ssl_, n));
    if (Result r = Flush(channel); r.failed()) return r;
    data += n;
    size -= static_cast<size_t>(n);
  }
  return rc::kOk;
}

Result TlsEngine::Read(Channel& channel, std::string* out) {
  if (!connected_) return rc::kSockNotConnected;
  for (;;) {
    const size_t old = out->size();
    out->resize(old + kRecordChunk);
    ERR_clear_error();
    const int n = SSL_read(ssl_, out->data() + old, static_cast<int>(kRecordChunk));
    out->resize(old + (n > 0 ? static_cast<size_t>(n) : 0));
    const int err = n > 0 ? SSL_ERROR_NONE : SSL_get_error(ssl_, n);
    // Reading may have produced records to answer (a key update).
    if (Result r = Flush(channel); r.failed()) return r;
    if (n > 0) return rc::kOk;
    if (err == SSL_ERROR_ZERO_RETURN) {
      connected_ = false;
      return rc::kSockClosed;
    }
    if (err != SSL_ERROR_WANT_READ) return Fail(err);
    if (Result r = Pull(channel); r.failed()) return r;
  }
}

void TlsEngine::SendClose(Channel& channel) {
  if (!connected_) return;
  ERR_clear_error();
  SSL_shutdown(ssl_);
  ERR_clear_error();
  Flush(channel).Ignore();
  // Still readable: the peer's data and its own closing alert may follow.
}

std::string TlsEngine::Protocol() const { return ssl_ ? SSL_get_version(ssl_) : ""; }

std::unique_ptr<TlsCertificate> TlsEngine::PeerCertificate() const {
  X509* x = ssl_ ? SSL_get0_peer_certificate(ssl_) : nullptr;
  return x ? std::make_unique<TlsCertificate>(x) : nullptr;
}

std::string TlsEngine::Cipher() const {
  const SSL_CIPHER* c = ssl_ ? SSL_get_current_cipher(ssl_) : nullptr;
  return c ? SSL_CIPHER_get_name(c) : "";
}

}  // namespace trv

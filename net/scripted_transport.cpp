#include "net/scripted_transport.h"

#include <netinet/in.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <set>

#include "base/thread_annotations.h"
#include "net/socket_errors.h"

namespace trv {

Script& Script::Server(std::string_view bytes) {
  steps_.push_back({Step::kServer, std::string(bytes), rc::kOk});
  return *this;
}
Script& Script::ServerLine(std::string_view line) { return Server(std::string(line) + "\r\n"); }
Script& Script::Client(std::string_view bytes) {
  steps_.push_back({Step::kClient, std::string(bytes), rc::kOk});
  return *this;
}
Script& Script::ClientLine(std::string_view line) { return Client(std::string(line) + "\r\n"); }
Script& Script::Silence() {
  steps_.push_back({Step::kSilence, {}, rc::kOk});
  return *this;
}
Script& Script::Close() {
  steps_.push_back({Step::kClose, {}, rc::kOk});
  return *this;
}
Script& Script::Fail(Result code) {
  steps_.push_back({Step::kFail, {}, code});
  return *this;
}
Script& Script::StartTls() {
  steps_.push_back({Step::kStartTls, {}, rc::kOk});
  return *this;
}

struct ScriptedNetwork::State {
  Script script;
  size_t step = 0;
  size_t offset = 0;  // into the current step's bytes
  std::string mismatch;
  std::string written;
  std::string connected_to;
  std::set<std::string, std::less<>> unresolvable;
  Result connect_failure = rc::kOk;
  std::chrono::milliseconds lookup_delay{0};

  const Script::Step* Current() const {
    return step < script.steps().size() ? &script.steps()[step] : nullptr;
  }
  void Advance() {
    ++step;
    offset = 0;
  }
  void Mismatch(std::string text) {
    if (mismatch.empty()) mismatch = "step " + std::to_string(step + 1) + ": " + std::move(text);
  }
};

std::string QuotedBytes(std::string_view bytes) {
  static const char kHex[] = "0123456789abcdef";
  std::string out = "\"";
  for (unsigned char c : bytes) {
    if (c == '\r') {
      out += "\\r";
    } else if (c == '\n') {
      out += "\\n";
    } else if (c < 32 || c > 126) {
      out += "\\x";
      out += kHex[c >> 4];
      out += kHex[c & 15];
    } else {
      out += static_cast<char>(c);
    }
  }
  return out + "\"";
}

namespace {

std::string Describe(const Script::Step* s) {
  if (!s) return "the end of the script";
  switch (s->kind) {
    case Script::Step::kServer: return "the server to send " + QuotedBytes(s->bytes);
    case Script::Step::kClient: return "the client to send " + QuotedBytes(s->bytes);
    case Script::Step::kSilence: return "silence";
    case Script::Step::kClose: return "the server to close";
    case Script::Step::kFail: return "a failing read";
    case Script::Step::kStartTls: return "the client to start TLS";
  }
  return {};
}

class ScriptedTransport final : public Transport {
 public:
  explicit ScriptedTransport(std::shared_ptr<ScriptedNetwork::State> state) : s_(std::move(state)) {}

  Result Connect(const IpAddress& address, uint16_t port) override {
    if (s_->connect_failure.failed()) return s_->connect_failure;
    s_->connected_to = address.ToString() + ":" + std::to_string(port);
    return rc::kOk;
  }
  Result FinishConnect() override { return rc::kOk; }

  Result Wait(WaitFor what, int, bool* ready) override {
    *ready = true;
    if (aborted_) return rc::kAbort;
    if (what == WaitFor::kWrite || closed_) return rc::kOk;
    const Script::Step* s = s_->Current();
    if (s && s->kind == Script::Step::kSilence) {
      s_->Advance();
      *ready = false;
    } else if (!s || s->kind == Script::Step::kClient || s->kind == Script::Step::kStartTls) {
      s_->Mismatch("the client waits for data, the script expects " + Describe(s));
      *ready = false;
    }
    return rc::kOk;
  }

  Result Read(char* buffer, size_t size, size_t* received) override {
    *received = 0;
    if (aborted_) return rc::kAbort;
    if (closed_) return rc::kOk;
    const Script::Step* s = s_->Current();
    if (!s) return rc::kSockWouldBlock;
    switch (s->kind) {
      case Script::Step::kServer: {
        const size_t n = std::min(size, s->bytes.size() - s_->offset);
        std::copy_n(s->bytes.data() + s_->offset, n, buffer);
        s_->offset += n;
        if (s_->offset == s->bytes.size()) s_->Advance();
        *received = n;
        return rc::kOk;
      }
      case Script::Step::kClose:
        s_->Advance();
        closed_ = true;
        return rc::kOk;
      case Script::Step::kFail: {
        const Result r = s->code;
        s_->Advance();
        return r;
      }
      default:
        return rc::kSockWouldBlock;
    }
  }

  Result Write(const char* data, size_t size, size_t* sent) override {
    *sent = 0;
    if (aborted_) return rc::kAbort;
    std::string_view rest(data, size);
    s_->written.append(rest);
    while (!rest.empty()) {
      const Script::Step* s = s_->Current();
      if (!s || s->kind != Script::Step::kClient) {
        s_->Mismatch("the client sent " + QuotedBytes(rest) + ", the script expects " + Describe(s));
        return rc::kSockClosed;
      }
      const std::string_view want = std::string_view(s->bytes).substr(s_->offset);
      const size_t n = std::min(want.size(), rest.size());
      if (rest.substr(0, n) != want.substr(0, n)) {
        s_->Mismatch("the client sent " + QuotedBytes(rest) + ", the script expects " + QuotedBytes(want));
        return rc::kSockClosed;
      }
      s_->offset += n;
      rest.remove_prefix(n);
      if (s_->offset == s->bytes.size()) s_->Advance();
    }
    *sent = size;
    return rc::kOk;
  }

  void Shutdown(ShutdownHow) override {}
  void Abort() override { aborted_ = true; }  // any thread

  Result LocalAddress(IpAddress* out) const override {
    ParseIpv4Literal("192.0.2.2", out);
    return rc::kOk;
  }

  bool TakesTls() const override { return true; }
  Result StartTls(std::string_view) override {
    s_->written += "[STARTTLS]";
    const Script::Step* s = s_->Current();
    if (!s || s->kind != Script::Step::kStartTls) {
      s_->Mismatch("the client started TLS, the script expects " + Describe(s));
      return rc::kTlsFailed;
    }
    s_->Advance();
    return rc::kOk;
  }

 private:
  std::shared_ptr<ScriptedNetwork::State> s_;
  bool closed_ = false;
  std::atomic<bool> aborted_{false};
};

}  // namespace

ScriptedNetwork::ScriptedNetwork(Script script) : state_(std::make_shared<State>()) {
  state_->script = std::move(script);
}
ScriptedNetwork::~ScriptedNetwork() = default;

void ScriptedNetwork::SetUnresolvable(std::string_view name) { state_->unresolvable.emplace(name); }
void ScriptedNetwork::FailConnect(Result code) { state_->connect_failure = code; }
void ScriptedNetwork::SetLookupDelay(std::chrono::milliseconds delay) { state_->lookup_delay = delay; }

Result ScriptedNetwork::Open(const IpAddress*, std::unique_ptr<Transport>* out) {
  *out = std::make_unique<ScriptedTransport>(state_);
  return rc::kOk;
}

Result ScriptedNetwork::Resolve(std::string_view host, ResolveMode mode, std::stop_token stop, IpAddress* out) {
  if (ParseIpv4Literal(host, out)) return rc::kOk;
  if (mode == ResolveMode::kLiteralOnly) return rc::kSockBadAddress;
  if (state_->lookup_delay.count() > 0) {
    Mutex mu;
    std::condition_variable_any woken;  // by the stop request only
    MutexLock lock(mu);
    woken.wait_until(mu, stop, std::chrono::steady_clock::now() + state_->lookup_delay, [] { return false; });
  }
  if (stop.stop_requested()) return rc::kAbort;
  if (host.empty() || state_->unresolvable.count(host)) return rc::kSockHostNotFound;
  ParseIpv4Literal("192.0.2.1", out);
  return rc::kOk;
}

Result ScriptedNetwork::NameOf(const IpAddress&, std::string* name) {
  *name = "client.test";
  return rc::kOk;
}

bool ScriptedNetwork::Finished() const { return state_->step >= state_->script.steps().size(); }
const std::string& ScriptedNetwork::Mismatch() const { return state_->mismatch; }
const std::string& ScriptedNetwork::Written() const { return state_->written; }
const std::string& ScriptedNetwork::ConnectedTo() const { return state_->connected_to; }

}  // namespace trv

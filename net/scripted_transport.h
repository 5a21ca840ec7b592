// A network that plays a transcript instead of talking to a server, so that a
// protocol client is tested as server line, expected client line, server
// line. The client's writes are compared with the script as they happen; the
// first difference is kept and ends the connection. STARTTLS is a mark in the
// transcript: the transport takes the upgrade and keeps carrying clear text.
//
// The same Script also drives the scripted TCP server of the tests
// (tests/support/script_server.h), which plays it on a real socket.
#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "net/transport.h"

namespace trv {

class Script {
 public:
  struct Step {
    enum Kind { kServer, kClient, kSilence, kClose, kFail, kStartTls };
    Kind kind;
    std::string bytes;  // kServer, kClient
    Result code;        // kFail
  };

  // Bytes the server sends; a read returns at most one step's bytes, so
  // consecutive steps arrive in separate reads.
  Script& Server(std::string_view bytes);
  Script& ServerLine(std::string_view line);  // the line and CR LF
  // Bytes the client must send next.
  Script& Client(std::string_view bytes);
  Script& ClientLine(std::string_view line);
  // The next wait for data runs out (one time-out period).
  Script& Silence();
  // The server closes the connection.
  Script& Close();
  // The next read fails with code (scripted network only).
  Script& Fail(Result code);
  // The client starts TLS here.
  Script& StartTls();

  const std::vector<Step>& steps() const { return steps_; }

 private:
  std::vector<Step> steps_;
};

// Bytes as a quoted text for transcript messages: "USER a\r\n", "\x05\x00".
std::string QuotedBytes(std::string_view bytes);

class ScriptedNetwork final : public Network {
 public:
  explicit ScriptedNetwork(Script script);
  ~ScriptedNetwork() override;

  // Names the resolver will not know (every other name resolves to
  // 192.0.2.1); the next Connect fails with code instead of connecting.
  void SetUnresolvable(std::string_view name);
  void FailConnect(Result code);
  // Every lookup of a name (not of a literal) takes this long, unless a stop
  // is requested first: a slow name server.
  void SetLookupDelay(std::chrono::milliseconds delay);

  using Network::Resolve;
  Result Open(const IpAddress* local, std::unique_ptr<Transport>* out) override;
  Result Resolve(std::string_view host, ResolveMode mode, std::stop_token stop, IpAddress* out) override;
  Result NameOf(const IpAddress& address, std::string* name) override;

  // True when every step has been played.
  bool Finished() const;
  // The first difference between the client and the script, "" when none.
  const std::string& Mismatch() const;
  // Everything the client wrote, with "[STARTTLS]" where TLS began.
  const std::string& Written() const;
  // The address and port of the last Connect ("192.0.2.1:110").
  const std::string& ConnectedTo() const;

  struct State;  // shared with the transports it opens

 private:
  std::shared_ptr<State> state_;
};

}  // namespace trv

// A scripted TCP server on 127.0.0.1 for the exact bytes a real server will
// not produce (SOCKS replies, split line ends, silence, garbage, early
// close). It accepts one connection on a thread of its own and plays a
// Script (net/scripted_transport.h) on it:
//   Server   sends the bytes (with a short pause before the next Server
//            step, so that they arrive in separate reads);
//   Client   reads exactly that many bytes and compares them;
//   Silence  sends nothing more and waits until the client goes away;
//   Close    closes the connection (after a TLS closing alert when in TLS);
//   Fail     resets the connection;
//   StartTls accepts a TLS handshake with the given certificate.
#pragma once

#include <cstdint>
#include <string>
#include <thread>

#include "base/thread_annotations.h"
#include "net/scripted_transport.h"
#include "tests/support/certificates.h"

namespace trv::test {

class ScriptServer {
 public:
  explicit ScriptServer(Script script, CertificateFiles tls = {});
  ~ScriptServer();
  ScriptServer(const ScriptServer&) = delete;
  ScriptServer& operator=(const ScriptServer&) = delete;

  uint16_t port() const { return port_; }

  // Waits until the script has been played or the client went away (each step waits 10 s at
  // most), and returns the first difference between the client and the script; "" when the
  // client sent exactly what the script says.
  std::string Finish();

  // Everything the client sent, and its address as the server saw it.
  std::string Received();
  std::string PeerAddress();

 private:
  void Play();

  Script script_;
  CertificateFiles tls_;
  int listen_fd_ = -1;
  uint16_t port_ = 0;
  Mutex mu_;  // the play thread writes these, the test reads them
  std::string mismatch_ GUARDED_BY(mu_);
  std::string received_ GUARDED_BY(mu_);
  std::string peer_ GUARDED_BY(mu_);
  std::thread thread_;
};

}  // namespace trv::test

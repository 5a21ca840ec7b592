#include "services/port_rules.h"

namespace trv {

int32_t PlainPort(MailProtocol protocol) {
  switch (protocol) {
    case MailProtocol::kSmtp: return 25;
    case MailProtocol::kPop3: return 110;
    case MailProtocol::kImap4: return 143;
  }
  return 0;
}

int32_t ImplicitSslPort(MailProtocol protocol) {
  switch (protocol) {
    case MailProtocol::kSmtp: return 465;
    case MailProtocol::kPop3: return 995;
    case MailProtocol::kImap4: return 993;
  }
  return 0;
}

int32_t PortAfterSslToggle(MailProtocol protocol, bool ssl_on, bool ssl_explicit, int32_t port) {
  if (ssl_on) return !ssl_explicit && port == PlainPort(protocol) ? ImplicitSslPort(protocol) : port;
  return port == ImplicitSslPort(protocol) ? PlainPort(protocol) : port;
}

int32_t PortAfterSslOptions(MailProtocol protocol, bool ssl_explicit, int32_t port) {
  if (port != PlainPort(protocol) && port != ImplicitSslPort(protocol)) return port;
  return ssl_explicit ? PlainPort(protocol) : ImplicitSslPort(protocol);
}

}  // namespace trv

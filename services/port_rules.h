// The account editor's port rules, shared by the command line and the
// window program: ticking SSL moves a plain port to the implicit-SSL one,
// unticking moves it back, and confirming the SSL options picks the port of
// the chosen mode. Any other port number is never changed.
//
//   SMTP 25 / 465, POP3 110 / 995, IMAP4 143 / 993.
#pragma once

#include <cstdint>

namespace trv {

enum class MailProtocol { kSmtp, kPop3, kImap4 };

int32_t PlainPort(MailProtocol protocol);
int32_t ImplicitSslPort(MailProtocol protocol);

// The port after the SSL check box changed to `ssl_on`.
int32_t PortAfterSslToggle(MailProtocol protocol, bool ssl_on, bool ssl_explicit, int32_t port);
// The port after the SSL options were confirmed with `ssl_explicit`.
int32_t PortAfterSslOptions(MailProtocol protocol, bool ssl_explicit, int32_t port);

}  // namespace trv

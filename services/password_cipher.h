// How a protocol password is kept in the settings file ("SMTPPsswd",
// "POP3Psswd", "IMAP4Psswd"): RC4 keyed by 20 bytes made from the account
// and the server. The key is MD5(host bytes, port as 4 bytes little-endian)
// followed by bytes 16 to 19 of SHA-1(service name as UTF-16LE, the 16 GUID
// bytes). Renaming the service or changing the host or port therefore makes
// a stored password unreadable; the run then asks for it again.
//
// RC4 cannot tell a wrong key: DecipherPassword takes a result that is not
// UTF-8 text without control characters as unreadable (empty). A wrong key
// passes that test by chance for a few short passwords only.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "base/guid.h"
#include "base/wide_string.h"

namespace trv {

using PasswordKey = std::array<uint8_t, 20>;

PasswordKey MakePasswordKey(WStringView service_name, const Guid& guid, std::string_view host, int32_t port);

// RC4 over `data` in place (enciphers and deciphers alike).
void Rc4(std::span<const uint8_t> key, std::span<uint8_t> data);

std::vector<uint8_t> EncipherPassword(std::string_view password, const PasswordKey& key);
// Empty when the bytes do not decipher to a readable password.
std::string DecipherPassword(std::span<const uint8_t> stored, const PasswordKey& key);

}  // namespace trv

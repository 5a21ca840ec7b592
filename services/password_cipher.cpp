#include "services/password_cipher.h"

#include <openssl/evp.h>

#include <utility>

#include "net/secret.h"

namespace trv {

namespace {

// A digest of `bytes`; OpenSSL's one-shot call cannot fail for these
// built-in algorithms short of running out of memory, which leaves zeros.
template <size_t N>
std::array<uint8_t, N> Digest(const char* name, const std::vector<uint8_t>& bytes) {
  std::array<uint8_t, N> out{};
  size_t length = 0;
  if (EVP_Q_digest(nullptr, name, nullptr, bytes.data(), bytes.size(), out.data(), &length) != 1) out.fill(0);
  return out;
}

// UTF-8 without control characters: what a typed password can be.
bool IsReadableText(std::string_view s) {
  for (size_t i = 0; i < s.size();) {
    const auto c = static_cast<uint8_t>(s[i]);
    if (c < 0x20 || c == 0x7F) return false;
    const size_t extra = c < 0x80 ? 0 : c >= 0xC2 && c < 0xE0 ? 1 : c >= 0xE0 && c < 0xF0 ? 2 : c >= 0xF0 && c < 0xF5 ? 3 : 9;
    if (extra > 3 || s.size() - i <= extra) return false;
    for (size_t k = 1; k <= extra; ++k) {
      if ((static_cast<uint8_t>(s[i + k]) & 0xC0) != 0x80) return false;
    }
    i += extra + 1;
  }
  return true;
}

}  // namespace

PasswordKey MakePasswordKey(WStringView service_name, const Guid& guid, std::string_view host, int32_t port) {
  std::vector<uint8_t> named;
  for (char16_t c : service_name) {
    named.push_back(static_cast<uint8_t>(c & 0xFF));
    named.push_back(static_cast<uint8_t>(c >> 8));
  }
  named.insert(named.end(), guid.bytes.begin(), guid.bytes.end());
  std::vector<uint8_t> server(host.begin(), host.end());
  const auto p = static_cast<uint32_t>(port);
  for (int shift = 0; shift < 32; shift += 8) server.push_back(static_cast<uint8_t>(p >> shift));

  const auto sha = Digest<20>("SHA1", named);
  const auto md5 = Digest<16>("MD5", server);
  PasswordKey key;
  std::copy(md5.begin(), md5.end(), key.begin());
  std::copy(sha.begin() + 16, sha.end(), key.begin() + 16);
  return key;
}

void Rc4(std::span<const uint8_t> key, std::span<uint8_t> data) {
  if (key.empty()) return;
  std::array<uint8_t, 256> s;
  for (int i = 0; i < 256; ++i) s[i] = static_cast<uint8_t>(i);
  for (int i = 0, j = 0; i < 256; ++i) {
    j = (j + s[i] + key[i % key.size()]) & 0xFF;
    std::swap(s[i], s[j]);
  }
  for (size_t n = 0, i = 0, j = 0; n < data.size(); ++n) {
    i = (i + 1) & 0xFF;
    j = (j + s[i]) & 0xFF;
    std::swap(s[i], s[j]);
    data[n] ^= s[(s[i] + s[j]) & 0xFF];
  }
  s.fill(0);
}

std::vector<uint8_t> EncipherPassword(std::string_view password, const PasswordKey& key) {
  std::vector<uint8_t> out(password.begin(), password.end());
  Rc4(key, out);
  return out;
}

std::string DecipherPassword(std::span<const uint8_t> stored, const PasswordKey& key) {
  std::string out(stored.begin(), stored.end());
  Rc4(key, std::span(reinterpret_cast<uint8_t*>(out.data()), out.size()));
  if (!IsReadableText(out)) WipeSecret(&out);
  return out;
}

}  // namespace trv

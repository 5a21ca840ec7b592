// Overwrites a secret (a password, an AUTH answer) held in a string before
// the string is freed or reused, in a way the compiler may not drop as a
// dead store, then empties it.
#pragma once

#include <openssl/crypto.h>

#include <string>

namespace trv {

inline void WipeSecret(std::string* s) {
  OPENSSL_cleanse(s->data(), s->size());
  s->clear();
}

}  // namespace trv

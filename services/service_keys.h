// THE table of a service's settings keys, in the order the settings file
// keeps them: each key's name, type, default and range, and the field of
// ServiceSettings it is. Loading and saving walk it (service_keys.cpp), and
// the command line shows and changes settings through it, so the two cannot
// disagree on a name, a type or a range.
#pragma once

#include <cstdint>
#include <functional>
#include <limits>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "services/mail_service.h"

namespace trv {

enum class KeyType : uint8_t {
  kBool,      // "true"/"false"; loads as the default when it does not read
  kNumber,    // an integer in low..high; anything else loads (and saves) as the default
  kText,      // 8-bit text
  kWideText,  // Unicode text; an 8-bit value of a hand-edited file reads as UTF-8
  kGuid,      // 16 bytes, written only: the section name gives the GUID, the engine the storage
  kClass,     // the service class, written only
  kCipher,    // the enciphered password of a protocol block
};

enum class KeyRole : uint8_t {
  kSetting,
  kPassword,  // never shown, never taken from text
  kIdentity,  // Class, GUID, Storage: shown, never changed
};

using KeyField =
    std::variant<std::monostate, bool*, int32_t*, uint32_t*, SmtpAuthMode*, std::string*, WString*, Guid*,
                 ProtocolSettings*>;

struct ServiceKey {
  std::string name;
  KeyType type = KeyType::kText;
  KeyRole role = KeyRole::kSetting;
  int32_t def = 0;  // bool and number keys
  int32_t low = 0;
  int32_t high = std::numeric_limits<int32_t>::max();
  // kCipher: the plain password key of older files, read first when it is
  // non-empty and deleted on save.
  std::string old_name;
  // User names: kept only while the block's Store...Password is set.
  bool needs_store = false;
  // The field the key is; kCipher: the whole block (the cipher key depends
  // on host and port); kClass: none.
  std::function<KeyField(ServiceSettings&)> field;
};

// The keys of a service of class "POP3" or "IMAP4" (anything else: the
// common and SMTP keys only). The vectors live as long as the program.
const std::vector<ServiceKey>& ServiceKeys(std::string_view service_class);
// The key of that name or old name (any case); null when the class has none.
const ServiceKey* FindServiceKey(std::string_view service_class, std::string_view name);

// The value as text: bool "1"/"0", numbers in decimal, text as UTF-8, GUIDs
// in registry form, the class name; a password key gives "stored" or "not
// stored", never the password.
std::string KeyText(const ServiceKey& key, const ServiceSettings& settings, std::string_view service_class);
// Reads `text` by the key's type and range into `settings`. False, with
// `*error` naming the key and what it takes, when the text does not read or
// the key is a password or identity key. Bool: 1/0, true/false, yes/no, on/off.
bool SetKeyFromText(const ServiceKey& key, std::string_view text, ServiceSettings* settings, std::string* error);

}  // namespace trv

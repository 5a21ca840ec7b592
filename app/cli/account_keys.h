// The settings-file keys of an account as the command line shows and changes
// them (account show, account set): each key's name, its type, and the field
// of ServiceSettings it is, in the order the settings file keeps them.
// Password keys are not in the list: a password is never shown and never
// taken from an argument (IsPasswordKey names them for the refusal).
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "services/mail_service.h"

namespace trv::cli {

enum class KeyType { kBool, kNumber, kUnsigned, kText, kWideText, kAuthMode, kGuid };

struct AccountKey {
  std::string name;
  KeyType type;
  std::function<void*(ServiceSettings&)> field;  // points at the field of that type
  bool read_only = false;                         // GUID, Storage
};

// The keys of a service of class "POP3" or "IMAP4" (anything else: the
// common and SMTP keys only).
const std::vector<AccountKey>& AccountKeys(std::string_view service_class);
// The key of that name (any case); null when the class has none.
const AccountKey* FindAccountKey(std::string_view service_class, std::string_view name);

// "SMTPPsswd", "POP3Password", "IMAP4SocksPassword"...: keys that hold a
// password, not the "Store...Password" switches.
bool IsPasswordKey(std::string_view name);

// The value as text: bool "1"/"0", numbers in decimal, text as UTF-8, GUIDs
// in registry form.
std::string KeyValueText(const AccountKey& key, const ServiceSettings& settings);
// Reads `value` by the key's type into `settings`. False, with `*error`
// naming the key and what it takes, when the value does not read or the key
// is read-only. Bool: 1/0, true/false, yes/no, on/off. Port keys take 1 to
// 65535, SocksVersion 0 to 3, SMTPAuthentication 0 to 3, other numbers any
// value from 0 up.
bool SetKeyValue(const AccountKey& key, std::string_view value, ServiceSettings* settings, std::string* error);

}  // namespace trv::cli

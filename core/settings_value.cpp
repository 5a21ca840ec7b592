#include "core/settings_value.h"

#include <charconv>
#include <cstdio>

#include "base/hex_digits.h"

namespace trv {

namespace {

bool IsContinuation(std::string_view s, size_t i) {
  return i < s.size() && (static_cast<uint8_t>(s[i]) & 0xC0) == 0x80;
}

uint32_t Bits(std::string_view s, size_t i) { return static_cast<uint8_t>(s[i]) & 0x3F; }

}  // namespace

std::string EncodeSettingsWide(WStringView text) {
  std::string out(kSettingsWideMark);
  out.reserve(out.size() + text.size() * 3);
  for (const char16_t u : text) {
    if (u < 0x80 && u != u'\r' && u != u'\n') {
      out.push_back(static_cast<char>(u));
    } else if (u < 0x800) {
      out.push_back(static_cast<char>(0xC0 | (u >> 6)));
      out.push_back(static_cast<char>(0x80 | (u & 0x3F)));
    } else {
      out.push_back(static_cast<char>(0xE0 | (u >> 12)));
      out.push_back(static_cast<char>(0x80 | ((u >> 6) & 0x3F)));
      out.push_back(static_cast<char>(0x80 | (u & 0x3F)));
    }
  }
  return out;
}

std::optional<WString> DecodeSettingsWide(std::string_view text) {
  if (!text.starts_with(kSettingsWideMark)) return std::nullopt;
  const std::string_view s = text.substr(kSettingsWideMark.size());
  WString out;
  out.reserve(s.size());
  size_t i = 0;
  while (i < s.size()) {
    const uint8_t b = static_cast<uint8_t>(s[i]);
    if (b < 0x80) {
      out.push_back(b);
      i += 1;
    } else if ((b & 0xE0) == 0xC0 && IsContinuation(s, i + 1)) {
      out.push_back(static_cast<char16_t>(((b & 0x1F) << 6) | Bits(s, i + 1)));
      i += 2;
    } else if ((b & 0xF0) == 0xE0 && IsContinuation(s, i + 1) && IsContinuation(s, i + 2)) {
      out.push_back(static_cast<char16_t>(((b & 0x0F) << 12) | (Bits(s, i + 1) << 6) | Bits(s, i + 2)));
      i += 3;
    } else if ((b & 0xF8) == 0xF0 && IsContinuation(s, i + 1) && IsContinuation(s, i + 2) &&
               IsContinuation(s, i + 3)) {
      const uint32_t cp = ((b & 0x07) << 18) | (Bits(s, i + 1) << 12) | (Bits(s, i + 2) << 6) | Bits(s, i + 3);
      if (cp >= 0x10000 && cp <= 0x10FFFF) {
        out.push_back(static_cast<char16_t>(0xD800 + ((cp - 0x10000) >> 10)));
        out.push_back(static_cast<char16_t>(0xDC00 + ((cp - 0x10000) & 0x3FF)));
      } else {
        out.push_back(0xFFFD);
      }
      i += 4;
    } else {
      out.push_back(0xFFFD);
      i += 1;
    }
  }
  return out;
}

std::string EncodeSettingsBinary(std::span<const uint8_t> bytes) {
  if (bytes.empty()) return {};
  std::string out(kSettingsBinaryMark);
  out.reserve(out.size() + bytes.size() * 2);
  for (const uint8_t b : bytes) {
    out.push_back(kUpperHexDigits[b >> 4]);
    out.push_back(kUpperHexDigits[b & 0x0F]);
  }
  return out;
}

std::optional<std::vector<uint8_t>> DecodeSettingsBinary(std::string_view text) {
  if (text.empty()) return std::vector<uint8_t>();
  if (!text.starts_with(kSettingsBinaryMark)) return std::nullopt;
  const std::string_view hex = text.substr(kSettingsBinaryMark.size());
  if (hex.size() % 2 != 0) return std::nullopt;
  std::vector<uint8_t> out;
  out.reserve(hex.size() / 2);
  for (size_t i = 0; i < hex.size(); i += 2) {
    const int hi = HexDigitValue(static_cast<unsigned char>(hex[i]));
    const int lo = HexDigitValue(static_cast<unsigned char>(hex[i + 1]));
    if (hi < 0 || lo < 0) return std::nullopt;
    out.push_back(static_cast<uint8_t>(hi << 4 | lo));
  }
  return out;
}

std::optional<int32_t> ParseSettingsInteger(std::string_view text) {
  // "%ld" never writes a plus sign, leading zeros or "-0".
  const std::string_view digits = text.starts_with('-') ? text.substr(1) : text;
  if (digits.empty() || (digits[0] == '0' && (digits.size() > 1 || text.size() > 1))) return std::nullopt;
  int32_t v = 0;
  const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), v, 10);
  if (ec != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return v;
}

std::string FormatSettingsInteger(int32_t v) {
  char buf[16];
  const auto r = std::to_chars(buf, buf + sizeof buf, v);
  return std::string(buf, r.ptr);
}

std::string FormatSettingsDouble(double v) {
  char buf[400];  // "%f" of the largest double has 309 digits before the point
  const auto r = std::to_chars(buf, buf + sizeof buf, v, std::chars_format::fixed, 6);
  if (r.ec != std::errc()) return "0.000000";
  return std::string(buf, r.ptr);
}

std::optional<double> ParseSettingsDouble(std::string_view text) {
  double v = 0;
  const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), v);
  if (ec != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return v;
}

SettingsData ParseSettingsText(std::string_view text) {
  if (EqualsNoCase(text, "TRUE")) return true;
  if (EqualsNoCase(text, "FALSE")) return false;
  if (const auto i = ParseSettingsInteger(text)) return *i;
  return std::string(text);
}

std::optional<std::string> SettingsValueText(const SettingsData& d, const SettingsOptions& options) {
  switch (TypeOf(d)) {
    case SettingsType::kBoolean: {
      const bool b = std::get<bool>(d);
      if (options.numeric_booleans) return std::string(b ? "1" : "0");
      return std::string(b ? "true" : "false");
    }
    case SettingsType::kInteger: return FormatSettingsInteger(std::get<int32_t>(d));
    case SettingsType::kString: return std::get<std::string>(d);
    case SettingsType::kBinary: return EncodeSettingsBinary(std::get<std::vector<uint8_t>>(d));
    case SettingsType::kDouble: return FormatSettingsDouble(std::get<double>(d));
    case SettingsType::kWideString: return EncodeSettingsWide(std::get<WString>(d));
    case SettingsType::kStringArray:
    case SettingsType::kWideStringArray: return std::nullopt;
  }
  return std::nullopt;
}

SettingsData ReloadedForm(const SettingsData& d, const SettingsOptions& options) {
  if (TypeOf(d) == SettingsType::kStringArray) return d;
  if (TypeOf(d) == SettingsType::kWideStringArray) {
    std::vector<std::string> texts;
    for (const WString& w : std::get<std::vector<WString>>(d)) texts.push_back(EncodeSettingsWide(w));
    return texts;
  }
  SettingsData parsed = ParseSettingsText(*SettingsValueText(d, options));
  // A boolean is written as 1 or 0 there, which reads back as an integer.
  if (const auto* b = std::get_if<bool>(&parsed); b != nullptr && options.numeric_booleans) {
    return int32_t{*b ? 1 : 0};
  }
  return parsed;
}

}  // namespace trv

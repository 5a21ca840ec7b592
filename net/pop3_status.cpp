#include "net/pop3_status.h"

#include <limits>

#include "net/sasl.h"

namespace trv {
namespace {

std::string_view SkipBlanks(std::string_view s) {
  while (!s.empty() && s.front() == ' ') s.remove_prefix(1);
  return s;
}

// A decimal number at the front of *s, which moves past it; it must end at a
// blank or at the end of the text.
template <typename T>
bool TakeNumber(std::string_view* s, T* out) {
  T value = 0;
  size_t i = 0;
  for (; i < s->size() && (*s)[i] >= '0' && (*s)[i] <= '9'; ++i) {
    const T digit = static_cast<T>((*s)[i] - '0');
    if (value > (std::numeric_limits<T>::max() - digit) / 10) return false;
    value = static_cast<T>(value * 10 + digit);
  }
  if (i == 0 || (i < s->size() && (*s)[i] != ' ')) return false;
  s->remove_prefix(i);
  *out = value;
  return true;
}

}  // namespace

Pop3Status JudgeStatus(std::string_view line) {
  if (line.empty()) return Pop3Status::kMalformed;
  if (line.front() == '+') return Pop3Status::kOk;
  if (line.front() == '-') return Pop3Status::kErr;
  return Pop3Status::kMalformed;
}

std::string_view StatusText(std::string_view line) {
  const size_t blank = line.find(' ');
  return blank == std::string_view::npos ? std::string_view() : SkipBlanks(line.substr(blank + 1));
}

std::string ApopTimestamp(std::string_view greeting) {
  const size_t i = greeting.find('<');
  const size_t j = greeting.find('>');
  if (i == std::string_view::npos || j == std::string_view::npos || j <= i) return {};
  return std::string(greeting.substr(i, j));
}

void ApplyCapaLine(std::string_view line, uint32_t* capabilities, uint32_t* sasl_mechanisms) {
  std::string lower(line);
  for (char& c : lower) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  if (lower.rfind("sasl ", 0) == 0) {
    *capabilities |= kPop3CapSasl;
    *sasl_mechanisms = SaslClient::ParseMechanismList(std::string_view(lower).substr(5));
    return;
  }
  static constexpr struct {
    std::string_view word;
    uint32_t bits;
  } kWords[] = {
      {"user", kPop3CapUser | kPop3CapApop}, {"apop", kPop3CapApop},       {"top", kPop3CapTop},
      {"uidl", kPop3CapUidl},                {"pipelining", kPop3CapPipelining},
      {"stls", kPop3CapStls},                {"last", kPop3CapLast},
  };
  for (const auto& w : kWords) {
    if (lower == w.word) *capabilities |= w.bits;
  }
}

bool ParseNumberAndSize(std::string_view text, uint32_t* number, uint64_t* size) {
  uint32_t n = 0;
  uint64_t s = 0;
  text = SkipBlanks(text);
  if (!TakeNumber(&text, &n)) return false;
  text = SkipBlanks(text);
  if (!TakeNumber(&text, &s)) return false;
  *number = n;
  *size = s;
  return true;
}

bool ParseNumberAndUid(std::string_view text, uint32_t* number, std::string_view* uid) {
  uint32_t n = 0;
  text = SkipBlanks(text);
  if (!TakeNumber(&text, &n)) return false;
  text = SkipBlanks(text);
  const std::string_view word = text.substr(0, text.find(' '));
  if (word.empty()) return false;
  *number = n;
  *uid = word;
  return true;
}

}  // namespace trv

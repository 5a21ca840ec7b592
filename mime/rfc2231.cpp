#include "mime/rfc2231.h"

#include <algorithm>
#include <map>
#include <string>

#include "mime/charset/converter.h"
#include "base/hex_digits.h"

namespace trv {

namespace {

struct NamePart {
  WString base;
  int section = -1;  // -1: no section number
  bool extended = false;
};

// Splits "name", "name*", "name*3" or "name*3*".
NamePart SplitName(const WString& name) {
  NamePart p;
  const size_t star = name.find(u'*');
  if (star == WString::npos || star == 0) {
    p.base = name;
    return p;
  }
  WStringView rest = WStringView(name).substr(star + 1);
  if (rest.empty()) {
    p.base = name.substr(0, star);
    p.extended = true;
    return p;
  }
  if (rest.back() == u'*') {
    p.extended = true;
    rest.remove_suffix(1);
  }
  int n = 0;
  if (rest.empty() || rest.size() > 3) {
    p.base = name;
    p.extended = false;
    return p;
  }
  for (char16_t c : rest) {
    if (c < u'0' || c > u'9') {
      p.base = name;
      p.extended = false;
      return p;
    }
    n = n * 10 + (c - u'0');
  }
  p.base = name.substr(0, star);
  p.section = n;
  return p;
}

void PercentDecode(WStringView s, std::string* out) {
  for (size_t i = 0; i < s.size(); ++i) {
    if (s[i] == u'%' && i + 2 < s.size() && HexDigitValue(s[i + 1]) >= 0 && HexDigitValue(s[i + 2]) >= 0) {
      out->push_back(static_cast<char>(HexDigitValue(s[i + 1]) << 4 | HexDigitValue(s[i + 2])));
      i += 2;
    } else if (s[i] < 0x80) {
      out->push_back(static_cast<char>(s[i]));
    } else {
      out->append(WideToUtf8(s.substr(i, 1)));
    }
  }
}

struct Section {
  int number;
  bool extended;
  const WString* value;
};

// Joins the sections of one parameter into its value.
bool JoinSections(std::vector<Section> sections, CXmParameter* out) {
  std::sort(sections.begin(), sections.end(),
            [](const Section& a, const Section& b) { return a.number < b.number; });
  std::string charset;
  std::string bytes;
  WString value;
  bool ok = true;
  auto flush = [&]() {
    if (bytes.empty()) return;
    CXmConverter conv(charset.empty() ? "us-ascii" : charset, "utf-16");
    WString text;
    ok = conv.Convert(bytes, &text) && ok;
    value += text;
    bytes.clear();
  };
  int expected = 0;
  for (const Section& s : sections) {
    if (s.number != expected) {
      if (s.number < expected) continue;  // a repeated number: the first wins
      break;                              // a gap ends the value
    }
    ++expected;
    WStringView v = *s.value;
    if (s.extended) {
      if (s.number == 0) {
        // charset'language'value; without both quotes the whole is the value.
        const size_t q1 = v.find(u'\'');
        const size_t q2 = q1 == WStringView::npos ? q1 : v.find(u'\'', q1 + 1);
        if (q2 != WStringView::npos) {
          charset = WideToUtf8(v.substr(0, q1));
          out->language = WString(v.substr(q1 + 1, q2 - q1 - 1));
          v = v.substr(q2 + 1);
        }
      }
      PercentDecode(v, &bytes);
    } else {
      flush();
      value += v;
    }
  }
  flush();
  out->value = std::move(value);
  return ok;
}

}  // namespace

bool MergeRfc2231Parameters(std::vector<CXmParameter>* params) {
  // Group extended and sectioned parameters by their base name.
  std::map<WString, std::vector<Section>> groups;
  std::vector<NamePart> parts;
  parts.reserve(params->size());
  for (const CXmParameter& p : *params) {
    NamePart np = SplitName(p.name);
    if (np.extended || np.section >= 0) {
      if (np.section <= kMaxParameterSection) {
        groups[ToLowerAscii(np.base)].push_back(
            {np.section < 0 ? 0 : np.section, np.extended, &p.value});
      }
    }
    parts.push_back(std::move(np));
  }
  if (groups.empty()) return true;

  bool ok = true;
  std::vector<CXmParameter> merged;
  merged.reserve(params->size());
  std::map<WString, bool> emitted;
  for (size_t i = 0; i < params->size(); ++i) {
    const WString key = ToLowerAscii(parts[i].base);
    auto g = groups.find(key);
    if (g == groups.end()) {
      merged.push_back(std::move((*params)[i]));
      continue;
    }
    if (emitted[key]) continue;
    emitted[key] = true;
    CXmParameter p;
    p.name = parts[i].base;
    ok = JoinSections(g->second, &p) && ok;
    merged.push_back(std::move(p));
  }
  *params = std::move(merged);
  return ok;
}

}  // namespace trv

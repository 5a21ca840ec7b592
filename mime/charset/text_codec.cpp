#include "mime/charset/text_codec.h"

#include <iconv.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <map>

#include "base/thread_annotations.h"
#include "base/utf8.h"
#include "mime/charset/charset_table.h"
#include "mime/charset/imap_utf7.h"

namespace trv::cnv {

namespace {

constexpr char16_t kReplacement = 0xFFFD;
const iconv_t kBadIconv = reinterpret_cast<iconv_t>(-1);

bool IsHigh(char16_t c) { return c >= 0xD800 && c <= 0xDBFF; }
bool IsLow(char16_t c) { return c >= 0xDC00 && c <= 0xDFFF; }

void AppendUtf16Le(const char* p, size_t n, WString* out) {
  for (size_t i = 0; i + 1 < n; i += 2) {
    out->push_back(static_cast<char16_t>(static_cast<uint8_t>(p[i]) | static_cast<uint8_t>(p[i + 1]) << 8));
  }
}

void PutUtf16Le(WStringView text, std::string* out) {
  for (char16_t c : text) {
    out->push_back(static_cast<char>(c & 0xFF));
    out->push_back(static_cast<char>(c >> 8));
  }
}

// Bookkeeping shared by the incremental codecs: the input held back from the
// previous call (an incomplete sequence) and the failure state.
template <typename Base, typename Text>
class Incremental : public Base {
 protected:
  using View = std::basic_string_view<typename Text::value_type>;
  explicit Incremental(bool strict) : strict_(strict) {}

  // `text` with what was held back from the last call in front of it.
  View Join(View text) {
    if (held_.empty()) return text;
    joined_ = held_;
    joined_ += text;
    held_.clear();
    return joined_;
  }
  void Hold(View rest) { held_.assign(rest); }
  // Join() for UTF-16 input; a high surrogate that ends a piece which is not
  // the last is held back, so a pair is never cut between two calls.
  View JoinKeepingPairs(View text, bool last) {
    text = Join(text);
    if (!last && !text.empty() && text.back() >= 0xD800 && text.back() <= 0xDBFF) {
      held_.assign(1, text.back());
      text.remove_suffix(1);
    }
    return text;
  }
  // Records a failure; true when the conversion must stop (strict mode).
  bool Fail() {
    failed_ = true;
    stopped_ = strict_;
    return stopped_;
  }

  bool strict_;
  bool failed_ = false;
  bool stopped_ = false;

 private:
  Text held_;
  Text joined_;
};
using DecoderBase = Incremental<TextDecoder, std::string>;
using EncoderBase = Incremental<TextEncoder, WString>;

// UTF-8 without iconv, through the one decoder of base/utf8.h. In kReplace
// form each maximal ill-formed subpart (and a sequence cut off by the end of
// the last piece) becomes one U+FFFD and the conversion fails. In kFallback
// form each byte of such a subpart is taken as ISO 8859-1 and the result is
// `fallback_ok`: that is the reading of "us-ascii" (succeeds) and of unknown
// sets (fails).
class Utf8Decoder final : public DecoderBase {
 public:
  enum Form { kReplace, kFallback };
  Utf8Decoder(Form form, bool strict, bool fallback_ok = true)
      : DecoderBase(strict), form_(form), fallback_ok_(fallback_ok) {}

  bool Decode(std::string_view bytes, bool last, WString* out) override {
    if (stopped_) return false;
    bytes = Join(bytes);
    const auto* p = reinterpret_cast<const uint8_t*>(bytes.data());
    const size_t n = bytes.size();
    out->reserve(out->size() + n);
    size_t i = 0;
    while (i < n) {
      if (p[i] < 0x80) {
        out->push_back(p[i++]);
        continue;
      }
      const Utf8Sequence seq = ReadUtf8Sequence(bytes.substr(i));
      if (seq.status == Utf8Status::kTruncated && !last) {
        Hold(bytes.substr(i));
        break;
      }
      if (seq.status == Utf8Status::kValid) {
        AppendUtf16(seq.code_point, out);
        i += seq.length;
      } else if (form_ == kFallback) {
        out->push_back(p[i++]);
      } else {
        if (Fail()) return false;
        out->push_back(kReplacement);
        i += seq.length;
      }
    }
    return form_ == kFallback ? fallback_ok_ : !failed_;
  }

 private:
  Form form_;
  bool fallback_ok_;
};

class Latin1Decoder final : public TextDecoder {
 public:
  bool Decode(std::string_view bytes, bool, WString* out) override {
    out->reserve(out->size() + bytes.size());
    for (unsigned char b : bytes) out->push_back(b);
    return true;
  }
};

class Utf16Decoder final : public DecoderBase {
 public:
  Utf16Decoder() : DecoderBase(false) {}
  bool Decode(std::string_view bytes, bool last, WString* out) override {
    bytes = Join(bytes);
    size_t i = 0;
    if (first_ && bytes.size() >= 2) {
      const auto b0 = static_cast<uint8_t>(bytes[0]);
      const auto b1 = static_cast<uint8_t>(bytes[1]);
      if (b0 == 0xFF && b1 == 0xFE) i = 2;
      if (b0 == 0xFE && b1 == 0xFF) {
        i = 2;
        big_endian_ = true;
      }
      first_ = false;
    } else if (first_ && !last) {
      Hold(bytes);
      return true;
    }
    for (; i + 1 < bytes.size(); i += 2) {
      const auto b0 = static_cast<uint8_t>(bytes[i]);
      const auto b1 = static_cast<uint8_t>(bytes[i + 1]);
      out->push_back(static_cast<char16_t>(big_endian_ ? (b0 << 8 | b1) : (b1 << 8 | b0)));
    }
    if (i < bytes.size()) {
      if (!last) {
        Hold(bytes.substr(i));
      } else {
        out->push_back(kReplacement);
        return false;
      }
    }
    return true;
  }

 private:
  bool first_ = true;
  bool big_endian_ = false;
};

class Utf16Encoder final : public TextEncoder {
 public:
  bool Encode(WStringView text, bool, std::string* out) override {
    PutUtf16Le(text, out);
    return true;
  }
};

// ASCII or ISO 8859-1 out, anything else is "?"; or UTF-8 out, where an
// unpaired surrogate is U+FFFD. `fails` makes every call report failure (the
// UTF-8 written for an unknown set).
class SimpleEncoder final : public EncoderBase {
 public:
  enum Form { kAscii, kLatin1, kUtf8 };
  SimpleEncoder(Form form, bool strict, bool fails = false) : EncoderBase(strict), form_(form), fails_(fails) {}
  bool Encode(WStringView text, bool last, std::string* out) override {
    if (stopped_) return false;
    text = JoinKeepingPairs(text, last);
    if (form_ == kUtf8) {
      std::string bytes;
      bool ok = EncodeUtf8(text, &bytes);
      if (!ok && Fail()) return false;
      out->append(bytes);
      return ok && !fails_;
    }
    const char16_t max = form_ == kAscii ? 0x7F : 0xFF;
    bool ok = true;
    for (size_t i = 0; i < text.size(); ++i) {
      const char16_t c = text[i];
      if (c <= max) {
        out->push_back(static_cast<char>(c));
        continue;
      }
      ok = false;
      if (Fail()) return false;
      out->push_back('?');
      if (IsHigh(c) && i + 1 < text.size() && IsLow(text[i + 1])) ++i;
    }
    return ok;
  }

 private:
  Form form_;
  bool fails_;
};

class IconvDecoder final : public DecoderBase {
 public:
  IconvDecoder(iconv_t cd, bool strict) : DecoderBase(strict), cd_(cd) {}
  ~IconvDecoder() override { iconv_close(cd_); }

  bool Decode(std::string_view bytes, bool last, WString* out) override {
    if (stopped_) return false;
    bytes = Join(bytes);
    char* in = const_cast<char*>(bytes.data());
    size_t in_left = bytes.size();
    char buf[4096];
    while (in_left > 0) {
      char* o = buf;
      size_t o_left = sizeof buf;
      const size_t rv = iconv(cd_, &in, &in_left, &o, &o_left);
      const int err = errno;
      AppendUtf16Le(buf, static_cast<size_t>(o - buf), out);
      if (rv != static_cast<size_t>(-1)) break;
      if (err == E2BIG) continue;
      if (err == EINVAL && !last) {
        Hold(std::string_view(in, in_left));
        break;
      }
      // An invalid sequence, or an incomplete one at the very end.
      if (Fail()) return false;
      out->push_back(kReplacement);
      if (err == EINVAL) break;
      ++in;
      --in_left;
    }
    if (last) {
      char* o = buf;
      size_t o_left = sizeof buf;
      iconv(cd_, nullptr, nullptr, &o, &o_left);
      AppendUtf16Le(buf, static_cast<size_t>(o - buf), out);
    }
    return !failed_;
  }

 private:
  iconv_t cd_;
};

class IconvEncoder final : public EncoderBase {
 public:
  IconvEncoder(iconv_t cd, bool strict) : EncoderBase(strict), cd_(cd) {
    // The replacement "?" as the destination set writes it.
    char q[2] = {'?', 0};
    char* in = q;
    size_t in_left = 2;
    char buf[16];
    char* o = buf;
    size_t o_left = sizeof buf;
    if (iconv(cd_, &in, &in_left, &o, &o_left) != static_cast<size_t>(-1)) {
      replacement_.assign(buf, static_cast<size_t>(o - buf));
    }
    iconv(cd_, nullptr, nullptr, nullptr, nullptr);
    if (replacement_.empty()) replacement_ = "?";
  }
  ~IconvEncoder() override { iconv_close(cd_); }

  bool Encode(WStringView text, bool last, std::string* out) override {
    if (stopped_) return false;
    text = JoinKeepingPairs(text, last);
    std::string bytes;
    PutUtf16Le(text, &bytes);
    char* in = bytes.data();
    size_t in_left = bytes.size();
    char buf[4096];
    while (in_left > 0) {
      char* o = buf;
      size_t o_left = sizeof buf;
      const size_t rv = iconv(cd_, &in, &in_left, &o, &o_left);
      const int err = errno;
      out->append(buf, static_cast<size_t>(o - buf));
      if (rv != static_cast<size_t>(-1)) break;
      if (err == E2BIG) continue;
      if (Fail()) return false;
      out->append(replacement_);
      // Skip one character: a surrogate pair or one unit.
      size_t skip = 2;
      if (in_left >= 4) {
        const char16_t u0 = static_cast<char16_t>(static_cast<uint8_t>(in[0]) | static_cast<uint8_t>(in[1]) << 8);
        const char16_t u1 = static_cast<char16_t>(static_cast<uint8_t>(in[2]) | static_cast<uint8_t>(in[3]) << 8);
        if (IsHigh(u0) && IsLow(u1)) skip = 4;
      }
      skip = std::min(skip, in_left);
      in += skip;
      in_left -= skip;
    }
    if (last) {
      char* o = buf;
      size_t o_left = sizeof buf;
      iconv(cd_, nullptr, nullptr, &o, &o_left);
      out->append(buf, static_cast<size_t>(o - buf));
    }
    return !failed_;
  }

 private:
  iconv_t cd_;
  std::string replacement_;
};

// Modified UTF-7 is only used for short mailbox names: collect, then convert
// at the end.
class ImapUtf7Decoder final : public TextDecoder {
 public:
  explicit ImapUtf7Decoder(bool strict) : strict_(strict) {}
  bool Decode(std::string_view bytes, bool last, WString* out) override {
    held_.append(bytes);
    if (!last) return true;
    const bool ok = ImapUtf7Decode(held_, strict_, out);
    held_.clear();
    return ok;
  }

 private:
  bool strict_;
  std::string held_;
};

class ImapUtf7Encoder final : public TextEncoder {
 public:
  bool Encode(WStringView text, bool last, std::string* out) override {
    held_.append(text);
    if (!last) return true;
    out->append(ImapUtf7Encode(held_));
    held_.clear();
    return true;
  }

 private:
  WString held_;
};

Mutex g_cache_mutex;
std::map<std::string, CharsetId>* g_cache GUARDED_BY(g_cache_mutex) = nullptr;

CharsetId ResolveUncached(const std::string& lower) {
  CharsetId id;
  id.mime_name = lower;
  const TableEntry* e = FindTableEntry(lower);
  if (e) {
    id.mime_name = e->mime_name;
    id.system_name = e->system_name;
    id.kind = e->kind;
    return id;
  }
  // Any other name iconv knows. An empty name would mean the locale's set to
  // iconv, and "/" would pass options; neither is a charset name.
  if (lower.empty() || lower.size() > 64) return id;
  for (char c : lower) {
    const bool ok = (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '_' || c == '.' ||
                    c == ':' || c == '+';
    if (!ok) return id;
  }
  iconv_t cd = iconv_open("UTF-16LE", lower.c_str());
  if (cd != kBadIconv) {
    iconv_close(cd);
    id.kind = CodecKind::kIconv;
    id.system_name = lower;
  }
  return id;
}

}  // namespace

CharsetId Resolve(std::string_view name) {
  const std::string lower = ToLowerAscii(TrimView(name));
  MutexLock lock(g_cache_mutex);
  if (!g_cache) g_cache = new std::map<std::string, CharsetId>();
  auto it = g_cache->find(lower);
  if (it != g_cache->end()) return it->second;
  // The cache is bounded: hostile messages can name many charsets.
  if (g_cache->size() >= 256) g_cache->clear();
  CharsetId id = ResolveUncached(lower);
  g_cache->emplace(lower, id);
  return id;
}

void ClearResolveCache() {
  MutexLock lock(g_cache_mutex);
  delete g_cache;
  g_cache = nullptr;
}

std::unique_ptr<TextDecoder> MakeDecoder(const CharsetId& id, bool strict) {
  switch (id.kind) {
    case CodecKind::kAscii: return std::make_unique<Utf8Decoder>(Utf8Decoder::kFallback, strict, true);
    case CodecKind::kUnknown: return std::make_unique<Utf8Decoder>(Utf8Decoder::kFallback, strict, false);
    case CodecKind::kUtf8: return std::make_unique<Utf8Decoder>(Utf8Decoder::kReplace, strict);
    case CodecKind::kLatin1: return std::make_unique<Latin1Decoder>();
    case CodecKind::kUtf16: return std::make_unique<Utf16Decoder>();
    case CodecKind::kImapUtf7: return std::make_unique<ImapUtf7Decoder>(strict);
    case CodecKind::kIconv: break;
  }
  iconv_t cd = iconv_open("UTF-16LE", id.system_name.c_str());
  if (cd == kBadIconv) return std::make_unique<Utf8Decoder>(Utf8Decoder::kFallback, strict, false);
  return std::make_unique<IconvDecoder>(cd, strict);
}

std::unique_ptr<TextEncoder> MakeEncoder(const CharsetId& id, bool strict) {
  switch (id.kind) {
    case CodecKind::kAscii: return std::make_unique<SimpleEncoder>(SimpleEncoder::kAscii, strict);
    case CodecKind::kLatin1: return std::make_unique<SimpleEncoder>(SimpleEncoder::kLatin1, strict);
    case CodecKind::kUtf8: return std::make_unique<SimpleEncoder>(SimpleEncoder::kUtf8, strict);
    case CodecKind::kUnknown: return std::make_unique<SimpleEncoder>(SimpleEncoder::kUtf8, strict, true);
    case CodecKind::kUtf16: return std::make_unique<Utf16Encoder>();
    case CodecKind::kImapUtf7: return std::make_unique<ImapUtf7Encoder>();
    case CodecKind::kIconv: break;
  }
  iconv_t cd = iconv_open(id.system_name.c_str(), "UTF-16LE");
  if (cd == kBadIconv) return std::make_unique<SimpleEncoder>(SimpleEncoder::kUtf8, strict, true);
  return std::make_unique<IconvEncoder>(cd, strict);
}

WString FallbackDecode(std::string_view bytes) {
  WString out;
  Utf8Decoder(Utf8Decoder::kFallback, false).Decode(bytes, true, &out);
  return out;
}

bool DecodeAll(const CharsetId& id, std::string_view bytes, bool strict, WString* out) {
  return MakeDecoder(id, strict)->Decode(bytes, true, out);
}

bool EncodeAll(const CharsetId& id, WStringView text, bool strict, std::string* out) {
  return MakeEncoder(id, strict)->Encode(text, true, out);
}

}  // namespace trv::cnv

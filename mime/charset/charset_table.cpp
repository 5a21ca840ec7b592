#include "mime/charset/charset_table.h"

#include <iterator>

namespace trv::cnv {

namespace {
using K = CodecKind;

constexpr TableEntry kTable[] = {
    {"us-ascii", "ASCII", "US-ASCII", K::kAscii, true},
    {"utf-8", "UTF-8", "Unicode (UTF-8)", K::kUtf8, true},
    {"utf-16", "UTF-16LE", "Unicode (UTF-16)", K::kUtf16, false},
    {"iso-8859-1", "ISO-8859-1", "Western European (ISO)", K::kLatin1, true},
    {"iso-8859-15", "ISO-8859-15", "Latin 9 (ISO)", K::kIconv, true},
    {"windows-1252", "CP1252", "Western European (Windows)", K::kIconv, true},
    {"iso-8859-2", "ISO-8859-2", "Central European (ISO)", K::kIconv, true},
    {"windows-1250", "CP1250", "Central European (Windows)", K::kIconv, true},
    {"iso-8859-3", "ISO-8859-3", "Latin 3 (ISO)", K::kIconv, true},
    {"iso-8859-4", "ISO-8859-4", "Baltic (ISO)", K::kIconv, true},
    {"iso-8859-13", "ISO-8859-13", "Estonian (ISO)", K::kIconv, true},
    {"windows-1257", "CP1257", "Baltic (Windows)", K::kIconv, true},
    {"iso-8859-5", "ISO-8859-5", "Cyrillic (ISO)", K::kIconv, true},
    {"koi8-r", "KOI8-R", "Cyrillic (KOI8-R)", K::kIconv, true},
    {"koi8-u", "KOI8-U", "Cyrillic (KOI8-U)", K::kIconv, true},
    {"windows-1251", "CP1251", "Cyrillic (Windows)", K::kIconv, true},
    {"iso-8859-7", "ISO-8859-7", "Greek (ISO)", K::kIconv, true},
    {"windows-1253", "CP1253", "Greek (Windows)", K::kIconv, true},
    {"iso-8859-9", "ISO-8859-9", "Turkish (ISO)", K::kIconv, true},
    {"windows-1254", "CP1254", "Turkish (Windows)", K::kIconv, true},
    {"iso-8859-8", "ISO-8859-8", "Hebrew (ISO-Visual)", K::kIconv, true},
    {"windows-1255", "CP1255", "Hebrew (Windows)", K::kIconv, true},
    {"iso-8859-6", "ISO-8859-6", "Arabic (ISO)", K::kIconv, true},
    {"windows-1256", "CP1256", "Arabic (Windows)", K::kIconv, true},
    {"windows-1258", "CP1258", "Vietnamese (Windows)", K::kIconv, true},
    {"windows-874", "CP874", "Thai (Windows)", K::kIconv, true},
    {"iso-2022-jp", "ISO-2022-JP", "Japanese (JIS)", K::kIconv, true},
    {"shift_jis", "SHIFT_JIS", "Japanese (Shift-JIS)", K::kIconv, true},
    {"euc-jp", "EUC-JP", "Japanese (EUC)", K::kIconv, true},
    {"gb2312", "GB2312", "Chinese Simplified (GB2312)", K::kIconv, true},
    {"gbk", "GBK", "Chinese Simplified (GBK)", K::kIconv, true},
    {"gb18030", "GB18030", "Chinese Simplified (GB18030)", K::kIconv, true},
    {"big5", "BIG5", "Chinese Traditional (Big5)", K::kIconv, true},
    {"euc-kr", "EUC-KR", "Korean (EUC)", K::kIconv, true},
    {"ks_c_5601-1987", "CP949", "Korean", K::kIconv, false},
    {"utf-7", "UTF-7", "Unicode (UTF-7)", K::kIconv, true},
    {"imap4-utf-7", "", "IMAP4 mailbox names (modified UTF-7)", K::kImapUtf7, false},
};

struct Alias {
  const char* alias;
  const char* name;
};

constexpr Alias kAliases[] = {
    {"utf8", "utf-8"},           {"utf16", "utf-16"},          {"ascii", "us-ascii"},
    {"latin1", "iso-8859-1"},    {"cp1252", "windows-1252"},   {"x-sjis", "shift_jis"},
    {"sjis", "shift_jis"},       {"utf-16le", "utf-16"},       {"ansi_x3.4-1968", "us-ascii"},
};
}  // namespace

const TableEntry* FindTableEntry(std::string_view lower_name) {
  for (const Alias& a : kAliases) {
    if (lower_name == a.alias) {
      lower_name = a.name;
      break;
    }
  }
  for (const TableEntry& e : kTable) {
    if (lower_name == e.mime_name) return &e;
  }
  return nullptr;
}

const TableEntry* TableBegin() { return kTable; }
size_t TableSize() { return std::size(kTable); }

}  // namespace trv::cnv

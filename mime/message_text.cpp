#include "mime/message_text.h"

#include "base/wide_string.h"
#include "mime/codec_streams.h"
#include "mime/field_line.h"

namespace trv {

namespace {

// Names that a mail header almost always holds at least one of.
constexpr std::string_view kKnownFields[] = {
    "From",       "To",           "CC",          "Date",     "Subject",  "Message-ID",
    "Received",   "Return-Path",  "MIME-Version", "Content-Type", "Reply-To", "Sender",
    "Delivered-To", "In-Reply-To", "References", "X-Mailer",
};

bool IsBlankLine(std::string_view line) { return line == "\n" || line == "\r\n" || line == "\r"; }

}  // namespace

InputKind ClassifyInput(std::string_view head) {
  head = head.substr(0, kClassifyBytes);
  if (head.rfind("From ", 0) == 0) return InputKind::kMbox;
  size_t fields = 0, known = 0, malformed = 0;
  size_t pos = 0;
  bool first = true;
  while (pos < head.size()) {
    size_t end = head.find('\n', pos);
    end = end == std::string_view::npos ? head.size() : end + 1;
    const std::string_view line = head.substr(pos, end - pos);
    pos = end;
    if (line.find('\0') != std::string_view::npos) return InputKind::kNotMail;
    if (IsBlankLine(line)) break;
    if (FieldLineSplit split; StartsHeaderField(line, &split)) {
      ++fields;
      for (std::string_view name : kKnownFields) {
        if (EqualsNoCase(line.substr(0, split.name_length), name)) {
          ++known;
          break;
        }
      }
    } else if (first || (line[0] != ' ' && line[0] != '\t')) {
      if (first) return InputKind::kNotMail;
      ++malformed;
    }
    first = false;
  }
  return known > 0 && malformed <= fields ? InputKind::kMessage : InputKind::kNotMail;
}

HeaderState HeaderStateOf(std::string_view text) {
  if (text.empty() || text[0] == '\n' || text[0] == '\r') return HeaderState::kEmptyHeader;
  const std::string_view first = text.substr(0, text.find('\n'));
  return StartsHeaderField(first) ? HeaderState::kHeader : HeaderState::kNoHeader;
}

std::string ToStoredForm(std::string_view text) {
  CXmMemoryStream out;
  if (HeaderStateOf(text) == HeaderState::kNoHeader) out.Write(std::string_view("\r\n")).Ignore();
  {
    CXmLineEndFilter filter(out, 64 * 1024);
    filter.Write(text).Ignore();  // a memory stream does not fail
    filter.Finish().Ignore();
  }
  std::string stored = out.Take();
  if (stored.size() < 2 || stored.compare(stored.size() - 2, 2, "\r\n") != 0) stored += "\r\n";
  return stored;
}

std::string_view RawHeaderValue(std::string_view text, std::string_view name) {
  size_t pos = 0;
  while (pos < text.size()) {
    size_t end = text.find('\n', pos);
    end = end == std::string_view::npos ? text.size() : end + 1;
    const std::string_view line = text.substr(pos, end - pos);
    pos = end;
    if (IsBlankLine(line)) break;
    FieldLineSplit split;
    if (StartsHeaderField(line, &split) && EqualsNoCase(line.substr(0, split.name_length), name)) {
      return TrimView(line.substr(split.colon + 1));
    }
  }
  return {};
}

}  // namespace trv

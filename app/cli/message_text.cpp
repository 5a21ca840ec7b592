#include "app/cli/message_text.h"

#include "base/wide_string.h"
#include "mime/codec_streams.h"

namespace trv::cli {

namespace {

// Names that a mail header almost always holds at least one of.
constexpr std::string_view kKnownFields[] = {
    "From",       "To",           "CC",          "Date",     "Subject",  "Message-ID",
    "Received",   "Return-Path",  "MIME-Version", "Content-Type", "Reply-To", "Sender",
    "Delivered-To", "In-Reply-To", "References", "X-Mailer",
};

std::string_view FieldName(std::string_view line) { return line.substr(0, line.find(':')); }

bool IsBlankLine(std::string_view line) { return line == "\n" || line == "\r\n" || line == "\r"; }

}  // namespace

bool IsHeaderFieldLine(std::string_view line) {
  const size_t colon = line.find(':');
  if (colon == 0 || colon == std::string_view::npos) return false;
  for (size_t i = 0; i < colon; ++i) {
    const unsigned char c = static_cast<unsigned char>(line[i]);
    if (c <= 32 || c >= 127) return false;
  }
  return true;
}

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
    if (IsHeaderFieldLine(line)) {
      ++fields;
      for (std::string_view name : kKnownFields) {
        if (EqualsNoCase(FieldName(line), name)) {
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
  return IsHeaderFieldLine(first) ? HeaderState::kHeader : HeaderState::kNoHeader;
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
    if (IsHeaderFieldLine(line) && EqualsNoCase(FieldName(line), name)) {
      return TrimView(line.substr(line.find(':') + 1));
    }
  }
  return {};
}

}  // namespace trv::cli

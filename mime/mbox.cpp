#include "mime/mbox.h"

#include <cctype>
#include <cstdio>

#include "base/date_value.h"
#include "mime/header.h"

namespace trv {

namespace {

bool IsBlank(std::string_view line) { return line == "\n" || line == "\r\n"; }

std::string_view WithoutLineEnd(std::string_view line) {
  while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.remove_suffix(1);
  return line;
}

// ">From ", ">>From ", ...: quoted by the writer.
bool IsQuotedFrom(std::string_view line) {
  size_t n = 0;
  while (n < line.size() && line[n] == '>') ++n;
  return n > 0 && line.substr(n, 5) == "From ";
}

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

}  // namespace

bool IsWellFormedEnvelope(std::string_view line) {
  line = WithoutLineEnd(line);
  if (line.rfind("From ", 0) != 0) return false;
  line.remove_prefix(5);
  while (!line.empty() && line.front() == ' ') line.remove_prefix(1);
  const size_t sender_end = line.find(' ');
  if (line.empty() || sender_end == std::string_view::npos) return false;
  const std::string_view date = line.substr(sender_end + 1);
  bool time = false, year = false;
  for (size_t i = 0; i < date.size(); ++i) {
    if (i + 3 < date.size() && IsDigit(date[i]) && date[i + 1] == ':' && IsDigit(date[i + 2]) &&
        IsDigit(date[i + 3])) {
      time = true;
    }
    if (i + 4 <= date.size() && (i == 0 || !IsDigit(date[i - 1])) && IsDigit(date[i]) && IsDigit(date[i + 1]) &&
        IsDigit(date[i + 2]) && IsDigit(date[i + 3]) && (i + 4 == date.size() || !IsDigit(date[i + 4]))) {
      year = true;
    }
  }
  return time && year;
}

Result MboxReader::Next(MboxMessage* message, bool* got) {
  *message = MboxMessage();
  *got = false;
  std::string_view line;
  bool have = false;
  if (!started_) {
    started_ = true;
    if (Result r = source_.NextLine(&line, &have); r.failed()) return r;
    if (!have) ended_ = true;
    next_envelope_ = WithoutLineEnd(line);
    next_line_ = source_.line_number();
  }
  if (ended_) return rc::kOk;
  message->envelope = std::move(next_envelope_);
  message->line = next_line_;
  message->broken_envelope = !IsWellFormedEnvelope(message->envelope);
  *got = true;

  std::string held_blank;  // an empty line that may separate this message from the next
  for (;;) {
    if (Result r = source_.NextLine(&line, &have); r.failed()) return r;
    if (!have) {
      ended_ = true;  // the empty line before the end of the file is the last separator
      break;
    }
    if (!held_blank.empty() && line.rfind("From ", 0) == 0) {
      next_envelope_ = WithoutLineEnd(line);
      next_line_ = source_.line_number();
      break;
    }
    message->text += held_blank;
    held_blank.clear();
    if (IsBlank(line)) {
      held_blank = line;
    } else if (IsQuotedFrom(line)) {
      message->text.append(line.substr(1));
    } else {
      message->text.append(line);
    }
  }
  if (!message->text.empty() && message->text.back() != '\n') message->text += '\n';
  return rc::kOk;
}

std::string MboxEnvelope(std::string_view sender, double date) {
  static constexpr const char* kDays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
  static constexpr const char* kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                            "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  if (sender.empty() || sender.find_first_of(" \t\r\n") != std::string_view::npos) sender = "MAILER-DAEMON";
  const CivilTime t = CivilFromDate(date == kNoDate ? CurrentDate() : date);
  char when[64];
  std::snprintf(when, sizeof when, "%s %s %2d %02d:%02d:%02d %d", kDays[t.day_of_week % 7], kMonths[(t.month - 1) % 12],
                t.day, t.hour, t.minute, t.second, t.year);
  std::string line = "From ";
  line.append(sender);
  line += ' ';
  line += when;
  line += '\n';
  return line;
}

void AppendMboxEntry(std::string_view stored, std::string* out) {
  size_t pos = 0;
  while (pos < stored.size()) {
    size_t end = stored.find('\n', pos);
    const bool has_end = end != std::string_view::npos;
    end = has_end ? end : stored.size();
    std::string_view line = stored.substr(pos, end - pos);
    pos = has_end ? end + 1 : end;
    if (has_end && !line.empty() && line.back() == '\r') line.remove_suffix(1);
    if (line.rfind("From ", 0) == 0 || IsQuotedFrom(line)) *out += '>';
    out->append(line);
    *out += '\n';
  }
  *out += '\n';
}

void AppendMboxMessage(std::string_view stored, double date, std::string* out) {
  CXmHeader header;
  header.Parse(stored, "us-ascii").Ignore();  // a damaged header still gives what it can
  const std::vector<MailAddress> from = header.Addresses(field::kFrom);
  *out += MboxEnvelope(from.empty() ? std::string() : WideToUtf8(from.front().address), date);
  AppendMboxEntry(stored, out);
}

}  // namespace trv

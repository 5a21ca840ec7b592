#include "net/smtp_reply.h"

#include <algorithm>

#include "base/wide_string.h"
#include "net/sasl.h"

namespace trv {

namespace {

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

}  // namespace

Result SmtpReplyError(std::string_view line) {
  const char first = line.empty() ? '\0' : line[0];
  uint32_t cls = 0;
  if (first == '2') cls = 1;
  else if (first == '4') cls = 2;
  else if (first == '5') cls = 3;
  else if (IsDigit(first)) cls = static_cast<uint32_t>(first - '0') & 3;
  uint32_t middle = 1;
  uint32_t low = 0;
  if (line.size() >= 3 && IsDigit(line[1]) && IsDigit(line[2])) {
    const uint32_t d = static_cast<uint32_t>((line[1] - '0') * 10 + (line[2] - '0'));
    middle = (d + 10) & 127;
    low = d & 127;
  }
  return Result(0x80C30000u | cls << 14 | middle << 7 | low);
}

bool IsSmtpReplyError(Result r) {
  // The middle field of a reply is 1 (digits that are no number) or d + 10;
  // the fixed codes (0x80C30217 among them) fit neither.
  const uint32_t middle = (r.code() >> 7) & 127, low = r.code() & 127;
  return r.family() == 0x80C3 && ((middle == 1 && low == 0) || (low < 100 && middle == low + 10));
}

uint32_t SmtpReplyClass(Result r) { return IsSmtpReplyError(r) ? (r.code() >> 14) & 3 : 0; }

std::string DescribeSmtpResult(Result r) {
  if (!IsSmtpReplyError(r)) return "";
  const uint32_t middle = (r.code() >> 7) & 127;
  std::string code = "?";
  const uint32_t cls = SmtpReplyClass(r);
  if (cls == 1) code = "2";
  if (cls == 2) code = "4";
  if (cls == 3) code = "5";  // also 3xx, which gives the same class
  if (middle == 1) {
    code += "??";
  } else {
    const uint32_t d = r.code() & 127;
    code += static_cast<char>('0' + d / 10);
    code += static_cast<char>('0' + d % 10);
  }
  if (cls == 2) return "The SMTP server refused the command for now (reply " + code + ").";
  if (cls == 3) return "The SMTP server refused the command (reply " + code + ").";
  return "The SMTP server gave an unexpected reply (" + code + ").";
}

void ParseEhloLine(std::string_view line, uint32_t* extensions, uint32_t* mechanisms, uint32_t* max_size) {
  if (line.size() <= 4) return;
  const std::string keyword = ToLowerAscii(line.substr(4));
  if (keyword == "expn") *extensions |= kSmtpExpn;
  else if (keyword == "vrfy") *extensions |= kSmtpVrfy;
  else if (keyword == "dsn") *extensions |= kSmtpDsn;
  else if (keyword == "enhancedstatuscodes") *extensions |= kSmtpEnhancedStatusCodes;
  else if (keyword == "starttls") *extensions |= kSmtpStartTls;
  else if (keyword.rfind("auth=", 0) == 0 || keyword.rfind("auth ", 0) == 0) {
    *extensions |= kSmtpAuth;
    *mechanisms |= SaslClient::ParseMechanismList(std::string_view(keyword).substr(5));
  } else if (keyword.rfind("size", 0) == 0) {
    *extensions |= kSmtpSize;
    if (keyword.size() >= 5) {
      // Leading digits of the trimmed rest; a number past 32 bits stays at the largest.
      uint64_t n = 0;
      for (char c : TrimView(std::string_view(keyword).substr(4))) {
        if (!IsDigit(c)) break;
        n = std::min<uint64_t>(n * 10 + static_cast<uint64_t>(c - '0'), UINT32_MAX);
      }
      *max_size = static_cast<uint32_t>(n);
    }
  }
}

// ---------------------------------------------------------------------------
// SmtpReply

void SmtpReply::Clear() {
  lines_.clear();
  last_.clear();
  count_ = 0;
  ended_ = false;
}

bool SmtpReply::Add(std::string_view line) {
  ++count_;
  if (lines_.size() < kMaxKeptLines) lines_.emplace_back(line);
  ended_ = line.size() < 3 || (line.size() > 3 && line[3] != '-');
  if (ended_) last_ = line;
  return ended_ || count_ >= kMaxLines;
}

std::string_view SmtpReply::first() const { return lines_.empty() ? std::string_view() : lines_.front(); }

bool SmtpReply::WellFormed() const { return ended_ && last_.size() > 3 && last_[3] == ' '; }

bool SmtpReply::Is(std::string_view code) const { return WellFormed() && first().substr(0, 3) == code; }

Result SmtpReply::Expect(std::initializer_list<std::string_view> codes) const {
  if (!WellFormed()) return rc::kSmtpBadReply;
  for (std::string_view code : codes) {
    if (Is(code)) return rc::kOk;
  }
  return SmtpReplyError(first());
}

// ---------------------------------------------------------------------------
// SmtpDotStuffer

size_t SmtpDotStuffer::held() const { return state_ == 3 ? 1 : state_ == 4 ? 2 : 0; }

void SmtpDotStuffer::Add(std::string_view piece, std::string* out) {
  out->reserve(out->size() + piece.size() + 8);
  added_ += piece.size();
  for (char c : piece) {
    switch (state_) {
      case 3:  // CR LF "." held
        if (c == '\r') {
          state_ = 4;
          continue;
        }
        out->push_back('.');
        state_ = 0;
        break;
      case 4:  // CR LF "." CR held
        if (c == '\n') {
          out->append("..\r\n");
          state_ = 2;  // its CR LF may begin the next lone dot
          continue;
        }
        out->append(".\r");
        state_ = 1;
        break;
      case 2:
        if (c == '.') {
          state_ = 3;
          continue;
        }
        break;
      default:
        break;
    }
    out->push_back(c);
    if (c == '\r') state_ = 1;
    else if (c == '\n' && state_ == 1) state_ = 2;
    else state_ = 0;
  }
}

void SmtpDotStuffer::Flush(std::string* out) {
  if (state_ == 3) out->append(".");
  if (state_ == 4) out->append(".\r");
  state_ = 0;
}

}  // namespace trv

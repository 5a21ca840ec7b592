#include "mime/message_flags.h"

namespace trv {

Priority PriorityFromFlags(uint16_t flags) {
  if (flags & kFlagPriorityLow) return Priority::kLow;
  if (flags & kFlagPriorityHigh) return Priority::kHigh;
  return Priority::kNormal;
}

bool SetPriority(CXmHeader* header, uint16_t* flags, int priority) {
  if (priority < 0 || priority > 2 || static_cast<int>(PriorityFromFlags(*flags)) == priority) return false;
  *flags &= static_cast<uint16_t>(~(kFlagPriorityLow | kFlagPriorityHigh));
  if (priority == static_cast<int>(Priority::kLow)) {
    *flags |= kFlagPriorityLow;
    header->SetValue(kFieldXPriority, u"5 (lowest)");
  } else if (priority == static_cast<int>(Priority::kHigh)) {
    *flags |= kFlagPriorityHigh;
    header->SetValue(kFieldXPriority, u"1 (highest)");
  }
  return true;
}

Priority ReadPriority(const CXmHeader& header) {
  const CXmHeaderField* f = header.Find(kFieldXPriority);
  if (!f) return Priority::kNormal;
  const WString text = header.UnfoldedText(*f);
  const WStringView value = TrimView(text);
  const int digit = !value.empty() && value[0] >= u'0' && value[0] <= u'9' ? value[0] - u'0' : 3;
  if (digit < 3) return Priority::kHigh;
  return digit > 3 ? Priority::kLow : Priority::kNormal;
}

bool ReadUnsent(const CXmHeader& header) {
  const CXmHeaderField* f = header.Find(kFieldXUnsent);
  return f && TrimView(f->value()) == u"1";
}

}  // namespace trv

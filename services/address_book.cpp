#include "services/address_book.h"

#include <algorithm>
#include <utility>

#include "core/engine.h"
#include "mime/address_list.h"
#include "store/mail_folder.h"
#include "store/message_record.h"

namespace trv {

namespace {

bool IsWordChar(char16_t c) {
  return (c >= u'0' && c <= u'9') || (c >= u'a' && c <= u'z') || (c >= u'A' && c <= u'Z') || c >= 0x80;
}

// `lower_prefix` starts `text`, or one of its words (a run of letters and
// digits), without regard to case.
bool WordStartsWith(WStringView text, WStringView lower_prefix) {
  if (text.size() < lower_prefix.size()) return false;
  for (size_t i = 0; i + lower_prefix.size() <= text.size(); ++i) {
    if (i > 0 && (IsWordChar(text[i - 1]) || !IsWordChar(text[i]))) continue;
    size_t j = 0;
    while (j < lower_prefix.size() && ToLowerAscii(text[i + j]) == lower_prefix[j]) ++j;
    if (j == lower_prefix.size()) return true;
  }
  return false;
}

}  // namespace

void AddressTally::AddList(WStringView list, uint32_t weight) {
  if (list.empty()) return;
  for (MailAddress& a : ParseAddressList(list)) {
    // A bare word without "@" is a local name or a broken field, not worth offering.
    if (a.address.find(u'@') == WString::npos) continue;
    WString key = ToLowerAscii(a.address);
    auto it = by_key_.find(key);
    if (it == by_key_.end()) {
      if (by_key_.size() >= kMaxAddresses) continue;
      it = by_key_.emplace(std::move(key), Counted{a.address, 0, {}}).first;
    }
    Counted& c = it->second;
    c.score += weight;
    if (!a.name.empty() && (c.names.size() < kMaxNamesPerAddress || c.names.count(a.name) != 0)) {
      ++c.names[a.name];
    }
  }
}

void AddressTally::Add(const MessageRecord& record, bool sent) {
  if (!sent) AddList(record.from, 1);
  const uint32_t weight = sent ? kSentWeight : 1;
  AddList(record.to, weight);
  AddList(record.cc, weight);
}

std::vector<BookEntry> AddressTally::Entries() const {
  std::vector<BookEntry> out;
  out.reserve(by_key_.size());
  for (const auto& [key, c] : by_key_) {
    BookEntry e{{}, c.address, c.score};
    uint32_t best = 0;
    for (const auto& [name, count] : c.names) {
      if (count > best) best = count, e.name = name;
    }
    out.push_back(std::move(e));
  }
  std::stable_sort(out.begin(), out.end(), [](const BookEntry& a, const BookEntry& b) { return a.score > b.score; });
  return out;
}

std::vector<AddressBook::FolderMark> AddressBook::Marks() const {
  std::vector<FolderMark> marks;
  for (Storage* storage : engine_.storages()) {
    storage->ForEachFolder([&](MailFolder& folder) {
      if (const FolderFile* file = folder.file()) {
        marks.push_back({file, file->NextKey(), file->counts().messages});
      }
    });
  }
  return marks;
}

void AddressBook::Rebuild() {
  std::vector<std::pair<MailFolder*, FolderFile*>> folders;
  for (Storage* storage : engine_.storages()) {
    storage->ForEachFolder([&](MailFolder& folder) {
      if (folder.file() != nullptr) folders.emplace_back(&folder, folder.file());
    });
  }
  AddressTally tally;
  for (auto [folder, file] : folders) {
    // A folder whose index cannot be read adds nothing; the list shows why.
    file->LoadIndex().Ignore();
    const bool sent_folder = folder->kind() == kFolderSent || folder->kind() == kFolderOutbox;
    for (const MessageRecord& record : file->Messages()) {
      tally.Add(record, sent_folder || (record.flags & (msgflag::kSent | msgflag::kUnsent)) != 0);
    }
  }
  entries_ = tally.Entries();
  marks_ = Marks();
  built_ = true;
  ++builds_;
}

const std::vector<BookEntry>& AddressBook::entries() {
  if (!built_ || Marks() != marks_) Rebuild();
  return entries_;
}

std::vector<BookEntry> AddressBook::Complete(WStringView prefix, size_t limit) {
  const WString lower = ToLowerAscii(TrimView(prefix));
  std::vector<BookEntry> out;
  if (lower.empty()) return out;
  for (const BookEntry& e : entries()) {
    if (out.size() >= limit) break;
    if (WordStartsWith(e.address, lower) || WordStartsWith(e.name, lower)) out.push_back(e);
  }
  return out;
}

}  // namespace trv

#include "store/storage_messages.h"

#include <string>
#include <unordered_set>

namespace trv {

namespace {

Result Transfer(MailFolder& from, const std::vector<uint32_t>& keys, MailFolder& to, bool move,
                std::vector<uint32_t>* new_keys) {
  if (new_keys != nullptr) new_keys->clear();
  FolderFile* source = from.file();
  FolderFile* target = to.file();
  if (source == nullptr || target == nullptr) return rc::kFileMissing;
  if (move && source == target) return rc::kInvalidArg;
  Result r = source->LoadIndex();
  if (r.failed()) return r;

  std::vector<MessageRecord> records;
  records.reserve(keys.size());
  std::unordered_set<uint32_t> seen;
  for (uint32_t key : keys) {
    std::optional<MessageRecord> record = source->FindMessage(key);
    if (!record || !seen.insert(key).second) return rc::kInvalidArg;
    records.push_back(std::move(*record));
  }

  size_t next = 0;
  while (next < records.size()) {
    // One batch: texts up to the byte limit, at least one message.
    std::vector<std::string> texts;
    std::vector<uint32_t> batch_keys;
    size_t bytes = 0;
    for (; next < records.size() && (texts.empty() || bytes + records[next].size <= kTransferBatchBytes); ++next) {
      std::string text;
      r = source->ReadMessage(records[next].key, &text);
      if (r.failed()) return r;
      bytes += text.size();
      texts.push_back(std::move(text));
      batch_keys.push_back(records[next].key);
    }
    std::vector<NewMessage> batch;
    batch.reserve(texts.size());
    for (size_t i = 0; i < texts.size(); ++i) batch.push_back({records[next - texts.size() + i], texts[i]});
    std::vector<uint32_t> added;
    r = target->AppendMany(batch, &added);
    if (r.failed()) return r;
    if (new_keys != nullptr) new_keys->insert(new_keys->end(), added.begin(), added.end());
    if (move) {
      r = source->Delete(batch_keys);
      if (r.failed()) return r;
    }
  }
  return rc::kOk;
}

}  // namespace

Result CopyMessages(MailFolder& from, const std::vector<uint32_t>& keys, MailFolder& to,
                    std::vector<uint32_t>* new_keys) {
  return Transfer(from, keys, to, false, new_keys);
}

Result MoveMessages(MailFolder& from, const std::vector<uint32_t>& keys, MailFolder& to,
                    std::vector<uint32_t>* new_keys) {
  return Transfer(from, keys, to, true, new_keys);
}

}  // namespace trv

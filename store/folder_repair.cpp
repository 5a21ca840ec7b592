// Repair of a folder file's index, after the container itself has been
// checked. The index is rebuilt from what it still holds and from the
// message streams, so that no message stream is left without a record (the
// orphan sweep would delete it):
// - records that parse are kept in order; deleted records are dropped;
// - past a damaged stretch, parsing resumes at the next position that holds
//   a whole record of a message whose stream exists and has no record yet;
// - every message stream still without a record gets a minimal one (key,
//   size, the stream's time as received date, msgflag::kNeedsHeaderRefresh),
//   filled further by the folder file's rebuild hook when there is one.
// The whole rewrite is one transaction.
#include <algorithm>
#include <unordered_set>

#include "base/byte_io.h"
#include "store/folder_file.h"
#include "store/index_parser.h"

namespace trv {

Result FolderFile::RepairIndex() {
  ContainerTransaction txn(container_);
  Result r = txn.begin_result();
  std::unique_ptr<ContainerStream> index;
  if (r.ok()) r = container_.OpenStream(u"/Index", StreamOpen::kCreate, &index);
  std::string old;
  if (r.ok()) r = index->ReadRest(&old, UINT32_MAX);
  if (r.failed()) return r;

  std::string rebuilt(MessageIndex::kHeaderSize, '\0');
  std::unordered_set<uint32_t> recorded;  // keys of every record kept or dropped as deleted
  // The header keeps the highest key of the records dropped here, so their
  // keys are never given again.
  uint32_t highest = old.size() >= MessageIndex::kHeaderSize ? GetU32(reinterpret_cast<uint8_t*>(old.data())) : 0;
  const std::string_view all(old);
  size_t pos = std::min<size_t>(MessageIndex::kHeaderSize, old.size());
  bool resyncing = false;
  IndexItem item;
  while (pos < old.size()) {
    bool take = ParseIndexRecord(all.substr(pos), old.size() - pos, &item) == IndexParse::kRecord;
    const uint32_t key = item.kind == IndexItem::kReference ? item.reference.key() : item.message.key;
    if (take && resyncing) {
      take = item.kind == IndexItem::kMessage && !recorded.count(key) &&
             container_.StreamExists(MessageStreamName(key));
    }
    if (!take) {
      // Records have even lengths after a 4-byte header: they start at even offsets.
      resyncing = true;
      pos += 2 - pos % 2;
      continue;
    }
    resyncing = false;
    recorded.insert(key);
    if (item.kind != IndexItem::kDeleted) rebuilt.append(old, pos, item.length);
    else highest = std::max(highest, key);
    pos += item.length;
  }

  std::vector<WString> lost;
  auto search = container_.FindRoot(u"\\0*");
  WString name;
  while (search->Next(&name)) {
    uint32_t key = 0;
    if (KeyFromStreamName(name, &key) && !recorded.count(key)) lost.push_back(name);
  }
  if (search->last_error().failed()) return search->last_error();
  for (const WString& stream_name : lost) {
    StreamInfo info;
    r = container_.GetStreamInfo(stream_name, &info);
    if (r.failed()) return r;
    MessageRecord record;
    KeyFromStreamName(stream_name, &record.key);
    record.size = info.size;
    record.received_date = info.created > 0 ? DateFromUnixSeconds(info.created) : DateNow();
    record.flags = msgflag::kNeedsHeaderRefresh;
    if (options_.rebuilder) {
      std::unique_ptr<ContainerStream> stream;
      std::string head(std::min(info.size, kRebuildHeadBytes), '\0');
      r = container_.OpenStream(stream_name, StreamOpen::kReadOnly, &stream);
      if (r.ok()) r = stream->ReadExact(head.data(), static_cast<uint32_t>(head.size()));
      if (r.failed()) return r;
      const uint32_t key = record.key;
      options_.rebuilder(head, &record);
      record.key = key;
      record.size = info.size;
    }
    rebuilt += EncodeMessageRecord(record);
  }
  PutU32(reinterpret_cast<uint8_t*>(rebuilt.data()), highest);
  if (rebuilt == old) return rc::kOk;  // a sound index stays as it is
  index->Seek(0, kSeekStart);
  r = index->WriteAll(rebuilt);
  if (r.ok()) r = index->Cut();
  if (r.ok()) r = txn.Commit();
  return r;
}

}  // namespace trv

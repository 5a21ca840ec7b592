#include "store/storage_index_file.h"

#include "base/byte_io.h"
#include "base/durable_write.h"
#include "base/file_system.h"

namespace trv {

namespace {

// Smallest folder record: kind, two empty strings, a child count.
constexpr size_t kMinFolderRecord = 16;

class IndexParser {
 public:
  IndexParser(std::string_view bytes, std::optional<IndexDamage>* damage) : in_(bytes), damage_(damage) {}

  Result Header(StorageIndex* out) {
    uint8_t local = 0;
    if (!in_.U32(out->magic)) return Bad(0, "file shorter than its magic");
    if (out->magic != kIndexMagicCurrent && out->magic != kIndexMagicEarlier) return Bad(0, "unknown magic");
    if (!in_.U8(local) || !in_.Bytes(out->id.bytes.data(), 16)) return Bad(in_.pos(), "header cut short");
    out->local = local != 0;
    if (!in_.WStr(out->name)) return Bad(in_.pos(), "storage name cut short");
    if (!in_.WStr(out->root_path)) return Bad(in_.pos(), "root path cut short");
    if (out->magic == kIndexMagicCurrent &&
        !(in_.U8(out->view.a) && in_.U8(out->view.b) && in_.U32(out->view.value) && in_.U8(out->view.c))) {
      return Bad(in_.pos(), "root view values cut short");
    }
    return rc::kOk;
  }

  // Reads a child count and the records it announces into `children`. False
  // at the first damage, which has then been noted.
  bool Children(std::vector<FolderRecord>* children, size_t depth) {
    const size_t at = in_.pos();
    uint32_t count = 0;
    if (!in_.U32(count)) return Note(at, "child count cut short");
    if (count > in_.remaining() / kMinFolderRecord) return Note(at, "child count larger than the file");
    if (count > 0 && depth >= kMaxFolderDepth) return Note(at, "folders nested too deeply");
    children->reserve(count);
    for (uint32_t i = 0; i < count; ++i) {
      const size_t start = in_.pos();
      FolderRecord record;
      if (!in_.U32(record.kind) || !in_.WStr(record.name) || !in_.WStr(record.file_name)) {
        return Note(start, "folder record cut short");
      }
      const bool whole = Children(&record.children, depth + 1);
      children->push_back(std::move(record));
      if (!whole) return false;
    }
    return true;
  }

 private:
  Result Bad(size_t offset, const char* what) {
    Note(offset, what);
    return rc::kInvalidData;
  }
  bool Note(size_t offset, const char* what) {
    *damage_ = IndexDamage{offset, what};
    return false;
  }

  ByteReader in_;
  std::optional<IndexDamage>* damage_;
};

void EncodeChildren(const std::vector<FolderRecord>& children, ByteWriter& out) {
  out.U32(static_cast<uint32_t>(children.size()));
  for (const FolderRecord& child : children) {
    out.U32(child.kind);
    out.WStr(child.name);
    out.WStr(child.file_name);
    EncodeChildren(child.children, out);
  }
}

std::filesystem::path WithExtension(const std::filesystem::path& p, const char* ext) {
  std::filesystem::path out = p;
  out.replace_extension(ext);
  return out;
}

}  // namespace

Result ParseStorageIndex(std::string_view bytes, StorageIndex* out, std::optional<IndexDamage>* damage) {
  damage->reset();
  *out = StorageIndex{};
  IndexParser parser(bytes, damage);
  StorageIndex index;
  const Result r = parser.Header(&index);
  if (r.failed()) return r;
  parser.Children(&index.children, 0);
  *out = std::move(index);
  return rc::kOk;
}

std::string EncodeStorageIndex(const StorageIndex& index) {
  std::string bytes;
  ByteWriter out(&bytes);
  out.U32(kIndexMagicCurrent);
  out.U8(index.local ? 1 : 0);
  out.Bytes(index.id.bytes.data(), 16);
  out.WStr(index.name);
  out.WStr(index.root_path);
  out.U8(index.view.a);
  out.U8(index.view.b);
  out.U32(index.view.value);
  out.U8(index.view.c);
  EncodeChildren(index.children, out);
  return bytes;
}

std::filesystem::path IndexTempPath(const std::filesystem::path& p) { return WithExtension(p, ".$$$"); }
std::filesystem::path IndexBackupPath(const std::filesystem::path& p) { return WithExtension(p, ".bak"); }
std::filesystem::path IndexDamagedPath(const std::filesystem::path& p) { return WithExtension(p, ".damaged"); }

Result RestoreIndexFromBackup(const std::filesystem::path& index_path, FileSystem& ops, LogSink& log) {
  const std::filesystem::path backup = IndexBackupPath(index_path);
  if (ops.Exists(index_path) || !ops.Exists(backup)) return rc::kOk;
  const Result r = ops.CopyFile(backup, index_path);
  if (r.ok()) {
    log.Log("Storage index restored from backup: " + backup.string());
  } else {
    log.Log("Cannot restore storage index " + index_path.string() + " from " + backup.string() + ": " +
            ResultText(r));
  }
  return r;
}

Result WriteStorageIndexFile(const std::filesystem::path& index_path, std::string_view bytes, bool keep_damaged,
                             FileSystem& ops, LogSink& log) {
  const std::filesystem::path temp = IndexTempPath(index_path);
  const std::filesystem::path backup = IndexBackupPath(index_path);
  // Where the old index goes: the backup, or aside when it is damaged (the
  // backup is then the better copy and stays).
  const std::filesystem::path old_to = keep_damaged ? IndexDamagedPath(index_path) : backup;
  bool written = false;
  bool moved_old = false;
  DurableWriteOptions options;
  options.temp_path = temp;
  options.before_replace = [&]() -> Result {
    written = true;
    if (!ops.Exists(index_path)) return rc::kOk;
    Result r = keep_damaged ? rc::kOk : ops.RemoveFile(backup);
    if (r.ok()) r = ops.Rename(index_path, old_to);
    moved_old = r.ok();
    return r;
  };
  const Result r = WriteFileDurably(ops, index_path, bytes, options);
  if (r.failed() && !written) {
    log.Log("Cannot write storage index " + temp.string() + ": " + ResultText(r));
    return rc::kWriteFault;
  }
  if (r.failed()) {
    log.Log("Cannot replace storage index " + index_path.string() + ": " + ResultText(r));
    if (moved_old) ops.Rename(old_to, index_path).Ignore();
  }
  // Should the index still be missing, the backup holds the last good one.
  const Result restored = RestoreIndexFromBackup(index_path, ops, log);
  ops.SyncDirectory(index_path.parent_path());
  return r.failed() ? r : restored;
}

}  // namespace trv

#include "services/imap4_folder_sync.h"

#include <algorithm>
#include <cstdio>
#include <map>
#include <set>
#include <utility>

#include "core/settings_tree.h"
#include "net/imap4_client.h"
#include "net/imap4_records.h"

namespace trv {

namespace {

bool IsInboxPath(WStringView path) { return EqualsNoCase(path, u"INBOX"); }

// Server paths compare exactly, but for INBOX, which has no case.
bool SamePath(WStringView a, WStringView b) { return a == b || (IsInboxPath(a) && IsInboxPath(b)); }

// The key server paths are looked up by.
WString PathKey(WStringView path) { return IsInboxPath(path) ? WString(u"INBOX") : WString(path); }

// The last name of a server path: what follows the last separator.
WString LeafOf(WStringView path, WStringView separator) {
  if (separator.empty()) return WString(path);
  const size_t pos = path.rfind(separator);
  if (pos == WStringView::npos || pos == 0) return WString(path);
  return WString(path.substr(pos + separator.size()));
}

std::string SectionPrefix(const Guid& service) { return "Folder." + service.ToLowerString() + "."; }

std::string IdText(uint32_t id) {
  char text[9];
  std::snprintf(text, sizeof text, "%08x", id);
  return text;
}

// Eight hexadecimal digits, not all 0.
bool ParseId(std::string_view text, uint32_t* id) {
  if (text.size() != 8) return false;
  uint32_t value = 0;
  for (char c : text) {
    int digit;
    if (c >= '0' && c <= '9') digit = c - '0';
    else if (c >= 'a' && c <= 'f') digit = c - 'a' + 10;
    else if (c >= 'A' && c <= 'F') digit = c - 'A' + 10;
    else return false;
    value = value << 4 | static_cast<uint32_t>(digit);
  }
  *id = value;
  return value != 0;
}

bool HasWord(const std::vector<std::string>& words, std::string_view word) {
  return std::any_of(words.begin(), words.end(), [&](const std::string& w) { return EqualsNoCase(w, word); });
}

// The special-use attributes, which the parser keeps as words only.
uint32_t SpecialUseBits(const Imap4ListEntry& entry) {
  uint32_t bits = 0;
  if (HasWord(entry.attribute_words, "\\Sent")) bits |= imap4attr::kSent;
  if (HasWord(entry.attribute_words, "\\Drafts")) bits |= imap4attr::kDrafts;
  if (HasWord(entry.attribute_words, "\\Trash")) bits |= imap4attr::kTrash;
  return bits;
}

// The wire name is kept only when encoding the decoded path would not give
// it back (a name that did not decode, or an unusual encoding).
std::string RawToKeep(const Imap4ListEntry& entry) {
  return CImap4Client::EncodeFolder(entry.name) == entry.raw ? std::string() : entry.raw;
}

template <typename Node, typename Visit>
void Walk(Node& node, const Visit& visit) {
  for (const auto& child : node.children) {
    visit(*child);
    Walk(*child, visit);
  }
}

}  // namespace

std::string SyncOptionsText(uint32_t sync) {
  static constexpr std::pair<uint32_t, const char*> kNames[] = {
      {imap4sync::kDownload, "Download, "},           {imap4sync::kDownloadNew, "DownloadNew, "},
      {imap4sync::kUpload, "Upload, "},               {imap4sync::kDeleteOnLocal, "DeleteOnLocal, "},
      {imap4sync::kDeleteOnServer, "DeleteOnServer, "},
  };
  std::string text;
  for (const auto& [bit, name] : kNames) {
    if (sync & bit) text += name;
  }
  return text;
}

std::string Imap4FolderSync::WireName() const {
  return raw.empty() ? CImap4Client::EncodeFolder(ServerPath()) : raw;
}

Imap4FolderTree::Imap4FolderTree() : root_(std::make_unique<Imap4FolderSync>()) {}

void Imap4FolderTree::ForEach(const std::function<void(Imap4FolderSync&)>& visit) { Walk(*root_, visit); }

Imap4FolderSync* Imap4FolderTree::FindById(uint32_t id) {
  Imap4FolderSync* found = nullptr;
  Walk(*root_, [&](Imap4FolderSync& r) {
    if (!found && r.id == id) found = &r;
  });
  return found;
}

Imap4FolderSync* Imap4FolderTree::FindByServerPath(WStringView path) {
  Imap4FolderSync* found = nullptr;
  Walk(*root_, [&](Imap4FolderSync& r) {
    if (!found && SamePath(r.ServerPath(), path)) found = &r;
  });
  return found;
}

Imap4FolderSync* Imap4FolderTree::FindByLocal(WStringView local) {
  Imap4FolderSync* found = nullptr;
  Walk(*root_, [&](Imap4FolderSync& r) {
    if (!found && !r.local.empty() && EqualsNoCase(r.local, local)) found = &r;
  });
  return found;
}

uint32_t Imap4FolderTree::NextId() {
  uint32_t highest = 0;
  Walk(*root_, [&](const Imap4FolderSync& r) { highest = std::max(highest, r.id); });
  return highest + 1;
}

std::vector<std::unique_ptr<Imap4FolderSync>> Imap4FolderTree::TakeAll() {
  std::vector<std::unique_ptr<Imap4FolderSync>> out;
  std::function<void(Imap4FolderSync&)> take = [&](Imap4FolderSync& node) {
    for (auto& child : node.children) {
      Imap4FolderSync* record = child.get();
      out.push_back(std::move(child));
      take(*record);
    }
    node.children.clear();
  };
  take(*root_);
  return out;
}

// A record goes under the record whose server path is its own up to the last
// separator; without one (or with no separator) under the root. Parent paths
// are strictly shorter, so no record can end up its own ancestor.
void Imap4FolderTree::Rebuild(std::vector<std::unique_ptr<Imap4FolderSync>> records) {
  root_->children.clear();
  std::map<WString, Imap4FolderSync*> by_path;
  for (const auto& record : records) by_path.emplace(PathKey(record->ServerPath()), record.get());
  for (auto& record : records) {
    Imap4FolderSync* parent = root_.get();
    const WString& path = record->ServerPath();
    const size_t pos = record->separator.empty() ? WString::npos : path.rfind(record->separator);
    if (pos != WString::npos && pos > 0) {
      if (auto it = by_path.find(PathKey(WStringView(path).substr(0, pos))); it != by_path.end()) parent = it->second;
    }
    record->parent = parent;
    parent->children.push_back(std::move(record));
  }
}

Result Imap4FolderTree::Load(Settings& settings, const Guid& service) {
  const std::string prefix = SectionPrefix(service);
  std::vector<std::unique_ptr<Imap4FolderSync>> records;
  for (const std::string& section : settings.ListSections("")) {
    uint32_t id = 0;
    if (!StartsWithNoCase(section, prefix) || !ParseId(std::string_view(section).substr(prefix.size()), &id)) continue;
    auto record = std::make_unique<Imap4FolderSync>();
    record->id = id;
    record->name = settings.ReadWideString(section, "Name");
    record->server_name = settings.ReadWideString(section, "ServerName");
    record->separator = settings.ReadWideString(section, "Sp");
    record->local = settings.ReadWideString(section, "Local");
    record->server = settings.ReadWideString(section, "Server");
    record->raw = settings.ReadString(section, "Raw");
    if (record->ServerPath().empty()) continue;  // names no mailbox
    record->sync = static_cast<uint32_t>(settings.ReadInteger(section, "Sync", 0));
    record->uid_next = static_cast<uint32_t>(settings.ReadInteger(section, "UIDNext", 0));
    record->uid_valid = static_cast<uint32_t>(settings.ReadInteger(section, "UIDValid", 0));
    record->attr = static_cast<uint32_t>(settings.ReadInteger(section, "Attr", 0));
    records.push_back(std::move(record));
  }
  Rebuild(std::move(records));
  return rc::kOk;
}

Result Imap4FolderTree::Save(Settings& settings, const Guid& service) const {
  const std::string prefix = SectionPrefix(service);
  Result first = rc::kOk;
  auto keep = [&](Result r) {
    if (first.ok() && r.failed()) first = r;
  };
  std::set<uint32_t> ids;
  Walk(*root_, [&](const Imap4FolderSync& r) {
    const std::string section = prefix + IdText(r.id);
    ids.insert(r.id);
    // Emptied first, so the keys come in their order and optional ones that
    // no longer differ disappear; the section keeps its place in the file.
    for (const std::string& name : settings.ListValues(section)) settings.DeleteValue(section, name).Ignore();  // listed just now
    keep(settings.WriteWideString(section, "Name", r.name));
    if (!r.server_name.empty() && r.server_name != r.name) keep(settings.WriteWideString(section, "ServerName", r.server_name));
    keep(settings.WriteWideString(section, "Sp", r.separator));
    keep(settings.WriteWideString(section, "Local", r.local));
    if (!r.server.empty() && r.server != r.local) keep(settings.WriteWideString(section, "Server", r.server));
    if (!r.raw.empty() && r.raw != WideToUtf8(r.ServerPath())) keep(settings.WriteString(section, "Raw", r.raw));
    keep(settings.WriteInteger(section, "Sync", static_cast<int32_t>(r.sync)));
    keep(settings.WriteInteger(section, "UIDNext", static_cast<int32_t>(r.uid_next)));
    keep(settings.WriteInteger(section, "UIDValid", static_cast<int32_t>(r.uid_valid)));
    keep(settings.WriteInteger(section, "Attr", static_cast<int32_t>(r.attr)));
  });
  for (const std::string& section : settings.ListSections("")) {
    uint32_t id = 0;
    if (StartsWithNoCase(section, prefix) && ParseId(std::string_view(section).substr(prefix.size()), &id) &&
        !ids.contains(id)) {
      keep(settings.DeleteSection(section));
    }
  }
  return first;
}

Result Imap4FolderTree::DeleteAll(Settings& settings, const Guid& service) {
  const std::string prefix = SectionPrefix(service);
  Result first = rc::kOk;
  for (const std::string& section : settings.ListSections("")) {
    if (!StartsWithNoCase(section, prefix)) continue;
    if (Result r = settings.DeleteSection(section); first.ok() && r.failed()) first = r;
  }
  return first;
}

void Imap4FolderTree::Merge(const std::vector<Imap4ListEntry>& entries, WStringView root_path,
                            std::vector<Imap4FolderSync*>* added) {
  std::vector<std::unique_ptr<Imap4FolderSync>> fresh;
  // A record of the tree or of this merge for the entry: by wire name when
  // that is what tells it apart, else by decoded path.
  auto find = [&](const Imap4ListEntry& entry, const std::string& raw) -> Imap4FolderSync* {
    auto matches = [&](const Imap4FolderSync& r) {
      return raw.empty() ? r.raw.empty() && SamePath(r.ServerPath(), entry.name) : r.raw == raw;
    };
    Imap4FolderSync* found = nullptr;
    Walk(*root_, [&](Imap4FolderSync& r) {
      if (!found && matches(r)) found = &r;
    });
    for (const auto& r : fresh) {
      if (!found && matches(*r)) found = r.get();
    }
    return found;
  };
  uint32_t next_id = NextId();
  bool moved = false;  // a separator changed: the tree may change shape
  for (const Imap4ListEntry& entry : entries) {
    if (HasWord(entry.attribute_words, "\\NonExistent") || entry.name.empty()) continue;
    // A name the settings file could not hold on one line is of no use.
    if (entry.raw.find_first_of(std::string_view("\r\n\0", 3)) != std::string::npos) continue;
    const WString separator = Utf8ToWide(entry.separator);
    // The root path itself is the tree's root, not a mailbox of its own
    // (but for INBOX, which is the inbox whatever the root path).
    WStringView root = root_path;
    if (!separator.empty() && root.ends_with(separator)) root.remove_suffix(separator.size());
    if (!root.empty() && SamePath(root, entry.name) && !IsInboxPath(entry.name)) continue;

    const std::string raw = RawToKeep(entry);
    const uint32_t attr = entry.attributes | SpecialUseBits(entry);
    if (Imap4FolderSync* known = find(entry, raw)) {
      known->attr = attr;
      moved |= known->separator != separator;
      known->separator = separator;
      continue;
    }
    auto record = std::make_unique<Imap4FolderSync>();
    record->id = next_id++;
    record->name = LeafOf(entry.name, separator);
    record->separator = separator;
    record->server = entry.name;
    record->raw = raw;
    record->attr = attr;
    record->sync = (attr & kImap4AttrNoSelect) ? 0 : imap4sync::kDefault;
    fresh.push_back(std::move(record));
  }
  if (fresh.empty() && !moved) return;
  if (added) {
    for (const auto& r : fresh) added->push_back(r.get());
  }
  std::vector<std::unique_ptr<Imap4FolderSync>> all = TakeAll();
  for (auto& r : fresh) all.push_back(std::move(r));
  Rebuild(std::move(all));
}

}  // namespace trv

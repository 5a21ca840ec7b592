// Imap4FolderTree::Bind: pairing the records with local folders.
#include <set>
#include <string>

#include "services/imap4_folder_sync.h"
#include "store/mail_folder.h"
#include "store/storage.h"

namespace trv {

namespace {

bool IsInbox(const Imap4FolderSync& r) { return !r.is_root() && EqualsNoCase(r.ServerPath(), u"INBOX"); }

// The mailbox's own name on the server.
const WString& ServerLeaf(const Imap4FolderSync& r) { return r.server_name.empty() ? r.name : r.server_name; }

uint32_t SpecialKindByAttr(uint32_t attr) {
  if (attr & imap4attr::kSent) return kFolderSent;
  if (attr & imap4attr::kDrafts) return kFolderDrafts;
  if (attr & imap4attr::kTrash) return kFolderDeleted;
  return kFolderUser;
}

// The usual names, for servers without special-use attributes; only at the
// top level or directly under INBOX, where clients put them.
uint32_t SpecialKindByName(const Imap4FolderSync& r) {
  if (!r.parent->is_root() && !IsInbox(*r.parent)) return kFolderUser;
  static constexpr std::pair<std::u16string_view, uint32_t> kNames[] = {
      {u"Sent", kFolderSent},       {u"Sent Messages", kFolderSent},    {u"Sent Items", kFolderSent},
      {u"Drafts", kFolderDrafts},   {u"Trash", kFolderDeleted},         {u"Deleted", kFolderDeleted},
      {u"Deleted Items", kFolderDeleted}, {u"Deleted Messages", kFolderDeleted},
  };
  for (const auto& [name, kind] : kNames) {
    if (EqualsNoCase(ServerLeaf(r), name)) return kind;
  }
  return kFolderUser;
}

// Cuts to at most `size` units, never inside a surrogate pair.
void CutTo(WString& text, size_t size) {
  if (text.size() <= size) return;
  text.resize(size);
  if (!text.empty() && text.back() >= 0xD800 && text.back() <= 0xDBFF) text.pop_back();
}

// A mailbox name made into one the store takes: "/" (the store's path
// separator) and control characters become "_", an empty name "_", and a
// name longer than the store allows is cut. Clashes with siblings that
// differ only in case are settled by the caller with " (2)", " (3)", ...
WString LocalName(WStringView leaf, int attempt) {
  WString name;
  for (char16_t c : leaf) name += (c == u'/' || c < 0x20 || c == 0x7F) ? u'_' : c;
  if (name.empty()) name = u"_";
  const WString suffix = attempt > 1 ? W(" (" + std::to_string(attempt) + ")") : WString();
  CutTo(name, Storage::kMaxFolderName - suffix.size());
  return name + suffix;
}

}  // namespace

Result Imap4FolderTree::Bind(Storage& storage) {
  std::vector<Imap4FolderSync*> pending;
  std::set<const MailFolder*> held;
  auto bind = [&](Imap4FolderSync& r, MailFolder* folder) {
    const WString server_path = r.ServerPath();
    const WString leaf = ServerLeaf(r);
    WString local;
    {
      MutexLock lock(storage.tree_mutex());
      for (const MailFolder* f = folder; !f->is_root(); f = f->parent()) local = f->name() + (local.empty() ? u"" : u"/" + local);
      r.name = folder->name();
    }
    r.local_folder = folder;
    r.local = local;
    r.server = server_path == local ? WString() : server_path;
    r.server_name = leaf == r.name ? WString() : leaf;
    held.insert(folder);
  };

  // Records keep the folder they were paired with while it exists.
  ForEach([&](Imap4FolderSync& r) {
    r.local_folder = nullptr;
    MailFolder* folder = r.local.empty() ? nullptr : storage.FindFolder(r.local);
    if (folder != nullptr && !held.contains(folder)) {
      bind(r, folder);
    } else {
      pending.push_back(&r);
    }
  });
  // The special folders: INBOX and the special-use attributes first, the
  // usual names after them.
  for (int pass = 0; pass < 2; ++pass) {
    for (Imap4FolderSync* r : pending) {
      if (r->local_folder != nullptr) continue;
      const uint32_t kind = pass == 1 ? SpecialKindByName(*r) : IsInbox(*r) ? kFolderInbox : SpecialKindByAttr(r->attr);
      MailFolder* folder = kind == kFolderUser ? nullptr : storage.SpecialFolder(kind);
      if (folder != nullptr && !held.contains(folder)) bind(*r, folder);
    }
  }
  // The others under their parent's folder (parents come first): an
  // existing user folder of that name that no record holds is taken over.
  Result first = rc::kOk;
  for (Imap4FolderSync* r : pending) {
    if (r->local_folder != nullptr) continue;
    MailFolder* parent = r->parent->is_root() ? storage.root() : r->parent->local_folder;
    if (parent == nullptr) continue;  // the parent's folder could not be made
    for (int attempt = 1; attempt <= 100; ++attempt) {
      const WString name = LocalName(ServerLeaf(*r), attempt);
      MailFolder* existing;
      {
        MutexLock lock(storage.tree_mutex());
        existing = parent->FindChild(name);
        if (existing != nullptr && (existing->is_special() || held.contains(existing))) continue;
      }
      if (existing != nullptr) {
        bind(*r, existing);
        break;
      }
      MailFolder* created = nullptr;
      const Result made = storage.CreateFolder(parent, name, &created);
      if (made.ok()) {
        bind(*r, created);
        break;
      }
      if (made != rc::kFileExists) {  // else made meanwhile: the next round looks again
        if (first.ok()) first = made;
        break;
      }
    }
  }
  return first;
}

}  // namespace trv

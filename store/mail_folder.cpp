#include "store/mail_folder.h"

#include "store/storage.h"

namespace trv {

WStringView SpecialFolderName(uint32_t kind) {
  switch (kind) {
    case kFolderInbox: return u"Inbox";
    case kFolderOutbox: return u"Outbox";
    case kFolderSent: return u"Sent";
    case kFolderDeleted: return u"Deleted";
    case kFolderDrafts: return u"Drafts";
    default: return {};
  }
}

MailFolder::MailFolder(Storage& storage, MailFolder* parent, uint32_t kind, WString name, WString file_name)
    : storage_(storage), parent_(parent), kind_(kind), name_(std::move(name)), file_name_(std::move(file_name)) {}

MailFolder::~MailFolder() = default;

int MailFolder::depth() const {
  int d = 0;
  for (const MailFolder* f = parent_; f != nullptr; f = f->parent_) ++d;
  return d;
}

WString MailFolder::PathText() const {
  if (parent_ == nullptr) return storage_.name();
  WString path = parent_->PathText();
  path += u'/';
  path += name_;
  return path;
}

MailFolder* MailFolder::FindChild(WStringView name) const {
  for (const auto& child : children_) {
    if (EqualsNoCase(child->name_, name)) return child.get();
  }
  return nullptr;
}

}  // namespace trv

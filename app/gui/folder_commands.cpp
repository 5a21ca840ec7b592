#include "app/gui/folder_commands.h"

#include <QAction>
#include <QMenu>

#include "app/gui/main_window.h"
#include "app/gui/user_questions.h"
#include "base/wide_string.h"
#include "core/engine.h"
#include "services/mail_service.h"
#include "store/mail_folder.h"
#include "store/storage.h"

namespace trv::gui {

namespace {

QString Qs(const WString& s) { return QString::fromStdString(WideToUtf8(s)); }

// How a person names a folder: "Storage/A/B".
QString PathOf(const MailFolder& folder) { return folder.is_root() ? Qs(folder.name()) : Qs(folder.PathText()); }

uint64_t SubtreeMessages(const MailFolder& folder) {
  uint64_t n = folder.available() ? folder.file()->counts().messages : 0;
  for (const auto& child : folder.children()) n += SubtreeMessages(*child);
  return n;
}

bool Within(const MailFolder* folder, const MailFolder& top) {
  for (; folder != nullptr; folder = folder->parent()) {
    if (folder == &top) return true;
  }
  return false;
}

// A run of an account of the storage is under way: its worker may be
// using the storage's folders, which are then not deleted or moved.
bool RunUnderWay(const Storage& storage) {
  for (StorageService* service : storage.services()) {
    if (const auto* mail = dynamic_cast<const MailService*>(service); mail != nullptr && mail->running()) return true;
  }
  return false;
}

}  // namespace

FolderCommands::FolderCommands(MainWindow& window)
    : QObject(&window), window_(window), questions_(&UserQuestions::Boxes()) {
  const LanguageTable& texts = window.texts();
  auto add = [&](const char* id, bool (FolderCommands::*command)()) {
    QAction* action = window.menu(MainWindow::Menu::kFolder)->addAction(QString::fromStdString(texts.Text(id)));
    connect(action, &QAction::triggered, this, [this, command] { (this->*command)(); });
    return action;
  };
  new_folder_ = add("FolderNew", &FolderCommands::NewFolder);
  rename_ = add("FolderRename", &FolderCommands::RenameFolder);
  move_ = add("FolderMove", &FolderCommands::MoveFolder);
  delete_ = add("FolderDelete", &FolderCommands::DeleteFolder);
  rename_->setShortcut(QKeySequence(Qt::Key_F2));
  rename_->setShortcutContext(Qt::WidgetWithChildrenShortcut);
  delete_->setShortcut(QKeySequence::Delete);
  delete_->setShortcutContext(Qt::WidgetWithChildrenShortcut);

  FolderTree& tree = window.folder_tree();
  // The keys act while the tree has the focus (the list has its own Delete).
  tree.addAction(rename_);
  tree.addAction(delete_);
  tree.setContextMenuPolicy(Qt::CustomContextMenu);
  connect(&tree, &QWidget::customContextMenuRequested, this, [this, &tree](const QPoint& pos) {
    if (QTreeWidgetItem* item = tree.itemAt(pos)) tree.setCurrentItem(item);
    QMenu menu;
    menu.addActions({new_folder_, rename_, move_, delete_});
    menu.exec(tree.viewport()->mapToGlobal(pos));
  });
  connect(&tree, &QTreeWidget::currentItemChanged, this, [this] { UpdateActions(); });
  connect(&tree, &FolderTree::folderDropped, this,
          [this](MailFolder* folder, MailFolder* new_parent) { MoveFolderTo(folder, new_parent); });
  window.engine().storage_closing_listeners().Add(this);
  window.engine().storage_opened_listeners().Add(this);
  UpdateActions();
}

FolderCommands::~FolderCommands() {
  window_.engine().storage_closing_listeners().Remove(this);
  window_.engine().storage_opened_listeners().Remove(this);
}

void FolderCommands::UpdateActions() {
  const QTreeWidgetItem* item = window_.folder_tree().currentItem();
  new_folder_->setEnabled(FolderTree::NodeOf(item) != nullptr);
  const bool folder = FolderTree::FolderOf(item) != nullptr;
  rename_->setEnabled(folder);
  move_->setEnabled(folder);
  delete_->setEnabled(folder);
}

void FolderCommands::Refused(const char* id, const QString& folder, const QString& other, Result r) {
  const LanguageTable& texts = window_.texts();
  QString cause = r == rc::kFileExists ? QString::fromStdString(texts.Text("FolderNameTaken"))
                                       : QString::fromStdString(ResultText(r));
  if (r == rc::kInvalidArg) cause += "\n\n" + QString::fromStdString(texts.Text("FolderRules"));
  QString text = QString::fromStdString(texts.Text(id)).arg(folder);
  text = other.isNull() ? text.arg(cause) : text.arg(other, cause);
  questions_->Tell(&window_, QString::fromStdString(texts.Text("FolderCaption")), text);
}

bool FolderCommands::NewFolder() {
  MailFolder* parent = FolderTree::NodeOf(window_.folder_tree().currentItem());
  if (parent == nullptr) return false;
  const LanguageTable& texts = window_.texts();
  QString name;
  if (!questions_->AskText(&window_, QString::fromStdString(texts.Text("FolderCaption")),
                           QString::fromStdString(texts.Text("FolderNewPrompt")).arg(PathOf(*parent)), &name)) {
    return false;
  }
  MailFolder* created = nullptr;
  if (Result r = parent->storage().CreateFolder(parent, Utf8ToWide(name.toStdString()), &created); r.failed()) {
    Refused("FolderNewRefused", name, PathOf(*parent), r);
    return false;
  }
  window_.SelectFolder(created);
  return true;
}

bool FolderCommands::RenameFolder() {
  MailFolder* folder = FolderTree::FolderOf(window_.folder_tree().currentItem());
  if (folder == nullptr) return false;
  const LanguageTable& texts = window_.texts();
  const QString old_path = PathOf(*folder);
  QString name = Qs(folder->name());
  if (!questions_->AskText(&window_, QString::fromStdString(texts.Text("FolderCaption")),
                           QString::fromStdString(texts.Text("FolderRenamePrompt")).arg(old_path), &name) ||
      name == Qs(folder->name())) {
    return false;
  }
  if (Result r = folder->storage().RenameFolder(folder, Utf8ToWide(name.toStdString())); r.failed()) {
    Refused("FolderRenameRefused", old_path, name, r);
    return false;
  }
  return true;
}

bool FolderCommands::DeleteFolder() {
  MailFolder* folder = FolderTree::FolderOf(window_.folder_tree().currentItem());
  if (folder == nullptr) return false;
  const LanguageTable& texts = window_.texts();
  const QString path = PathOf(*folder);
  if (RunUnderWay(folder->storage())) {
    questions_->Tell(&window_, QString::fromStdString(texts.Text("FolderCaption")),
                     QString::fromStdString(texts.Text("FolderBusy")).arg(path));
    return false;
  }
  uint64_t messages = 0;
  {
    MutexLock lock(folder->storage().tree_mutex());  // a worker may add folders meanwhile
    messages = SubtreeMessages(*folder);
  }
  const QString question = QString::fromStdString(texts.Text("FolderDeleteConfirm")).arg(path).arg(messages);
  if (confirm_ && !questions_->Confirm(&window_, QString::fromStdString(texts.Text("FolderCaption")), question)) {
    return false;
  }
  // The list lets go of a folder that goes: the parent is shown instead.
  MailFolder* parent = folder->parent();
  const bool shown_inside = Within(window_.message_model().folder(), *folder);
  if (shown_inside) window_.folder_tree().setCurrentItem(window_.folder_tree().ItemOf(parent));
  if (Result r = folder->storage().DeleteFolder(folder); r.failed()) {
    if (shown_inside) window_.SelectFolder(folder);
    Refused("FolderDeleteRefused", path, QString(), r);
    return false;
  }
  return true;
}

bool FolderCommands::MoveFolder() {
  MailFolder* folder = FolderTree::FolderOf(window_.folder_tree().currentItem());
  if (folder == nullptr) return false;
  std::vector<MailFolder*> places = {folder->storage().root()};
  QStringList choices = {PathOf(*folder->storage().root())};
  folder->storage().ForEachFolder([&](MailFolder& f) {  // with the tree's lock: names may change on a worker
    if (&f == folder) return;
    places.push_back(&f);
    choices << PathOf(f);
  });
  const LanguageTable& texts = window_.texts();
  int chosen = -1;
  if (!questions_->AskChoice(&window_, QString::fromStdString(texts.Text("FolderCaption")),
                             QString::fromStdString(texts.Text("FolderMovePrompt")).arg(PathOf(*folder)), choices,
                             &chosen) ||
      chosen < 0 || static_cast<size_t>(chosen) >= places.size()) {
    return false;
  }
  return MoveFolderTo(folder, places[static_cast<size_t>(chosen)]);
}

bool FolderCommands::MoveFolderTo(MailFolder* folder, MailFolder* new_parent) {
  if (folder == nullptr || new_parent == nullptr || new_parent == folder->parent()) return false;
  const QString path = PathOf(*folder);
  if (RunUnderWay(folder->storage())) {
    questions_->Tell(&window_, QString::fromStdString(window_.texts().Text("FolderCaption")),
                     QString::fromStdString(window_.texts().Text("FolderBusy")).arg(path));
    return false;
  }
  if (Result r = folder->storage().MoveFolder(folder, new_parent); r.failed()) {
    Refused("FolderMoveRefused", path, PathOf(*new_parent), r);
    return false;
  }
  return true;
}

void FolderCommands::OnStorageAboutToClose(Storage& storage) {
  FolderTree& tree = window_.folder_tree();
  // Letting go of the current item lets the list go of its folder too.
  if (const MailFolder* shown = window_.message_model().folder(); shown != nullptr && &shown->storage() == &storage) {
    tree.setCurrentItem(nullptr);
  }
  if (const MailFolder* current = FolderTree::NodeOf(tree.currentItem());
      current != nullptr && &current->storage() == &storage) {
    tree.setCurrentItem(nullptr);
  }
  tree.Forget(storage);
}

void FolderCommands::OnStorageOpened(Storage& storage) {
  window_.OnFolderTreeChanged(storage, FolderTreeChange{FolderTreeChange::kAttached, storage.root()});
  if (window_.folder_tree().currentItem() == nullptr) window_.SelectFolder(storage.SpecialFolder(kFolderInbox));
}

}  // namespace trv::gui

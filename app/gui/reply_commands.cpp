#include "app/gui/reply_commands.h"

#include <QAction>
#include <QItemSelectionModel>
#include <QMenu>
#include <QMenuBar>
#include <QStatusBar>
#include <QTableView>
#include <memory>

#include "app/gui/compose_window.h"
#include "app/gui/main_window.h"
#include "app/gui/reading_window.h"
#include "core/folder_message_source.h"
#include "mime/mime_result.h"
#include "services/service_registry.h"
#include "store/mail_folder.h"

namespace trv::gui {

namespace {

QString Text(const MainWindow& main, const char* id) { return QString::fromStdString(main.texts().Text(id)); }
WString WText(const MainWindow& main, const char* id) { return Utf8ToWide(main.texts().Text(id)); }

// The commands' texts and shortcuts, in menu order.
struct Command {
  const char* id;
  QKeyCombination keys;
  ReplyKind kind;
};
constexpr Command kCommands[] = {
    {"MessageReply", Qt::CTRL | Qt::Key_R, ReplyKind::kReply},
    {"MessageReplyAll", Qt::CTRL | Qt::SHIFT | Qt::Key_R, ReplyKind::kReplyAll},
    {"MessageForward", Qt::CTRL | Qt::Key_L, ReplyKind::kForward},
};

void TellProblem(MainWindow& main, const char* id, Result r) {
  main.statusBar()->showMessage(Text(main, id).arg(QString::fromStdString(ResultText(r))), 10000);
}

}  // namespace

MailService* AccountOfFolder(MainWindow& main, const MailFolder* folder) {
  if (folder == nullptr) return nullptr;
  for (MailService* service : MailServices(main.engine())) {
    if (&service->storage() == &folder->storage()) return service;
  }
  return nullptr;
}

ComposeWindow* OpenResponse(MainWindow& main, const CXmMimeMessage& original, ReplyKind kind, MailService* account) {
  ReplyOptions options;
  for (MailService* service : MailServices(main.engine())) {
    const ServiceSettings settings = service->settings();
    for (const WString* address : {&settings.email_address, &settings.reply_address}) {
      if (!address->empty()) options.own_addresses.push_back(*address);
    }
  }
  bool html = false;
  OriginalText(original, &options.text, &html);
  options.attribution = WText(main, "ReplyAttribution");
  options.forward_banner = WText(main, "ForwardBanner");
  ComposedMessage composed;
  const Result r = BuildReply(original, kind, options, &composed);
  // The reply is opened all the same; what could not be carried is told.
  if (r.failed()) TellProblem(main, "ReplyAttachmentLost", r);
  return OpenCompose(main, composed, account);
}

ReplyCommands::ReplyCommands(MainWindow& window) : QObject(&window), window_(window) {
  QMenu* menu = window.menu(MainWindow::Menu::kMessage);
  QAction** actions[] = {&reply_, &reply_all_, &forward_};
  for (size_t i = 0; i < std::size(kCommands); ++i) {
    const ReplyKind kind = kCommands[i].kind;
    QAction* action = menu->addAction(Text(window, kCommands[i].id));
    action->setShortcut(QKeySequence(kCommands[i].keys));
    connect(action, &QAction::triggered, this, [this, kind] { Respond(kind); });
    *actions[i] = action;
  }

  connect(window.message_list().selectionModel(), &QItemSelectionModel::currentRowChanged, this,
          [this] { UpdateActions(); });
  connect(&window.message_model(), &QAbstractItemModel::modelReset, this, [this] { UpdateActions(); });
  UpdateActions();
}

void ReplyCommands::UpdateActions() {
  const QModelIndex current = window_.message_list().currentIndex();
  const bool any = current.isValid() && window_.message_model().RecordAt(current.row()) != nullptr;
  for (QAction* action : {reply_, reply_all_, forward_}) action->setEnabled(any);
}

ComposeWindow* ReplyCommands::Respond(ReplyKind kind) {
  MessageListModel& model = window_.message_model();
  MailFolder* folder = model.folder();
  const QModelIndex current = window_.message_list().currentIndex();
  const MessageRecord* record = current.isValid() ? model.RecordAt(current.row()) : nullptr;
  if (folder == nullptr || record == nullptr) return nullptr;
  std::shared_ptr<FolderMessageSource> source;
  Result r = folder->available() ? FolderMessageSource::Open(*folder->file(), record->key, &source) : rc::kFileMissing;
  CXmMimeMessage original;
  if (r.ok()) r = original.Parse(source);
  // Broken MIME is answered as far as it could be read; a failed read is not.
  if (r == rc::kMimeSyntax || r == rc::kMimeCharset) r = rc::kOk;
  if (r.failed()) {
    TellProblem(window_, "ReplyUnreadable", r);
    return nullptr;
  }
  return OpenResponse(window_, original, kind, AccountOfFolder(window_, folder));
}

void AddReplyCommands(MainWindow& main, ReadingWindow& window) {
  QMenu* menu = window.menuBar()->addMenu(Text(main, "MenuMessage"));
  for (const Command& command : kCommands) {
    QAction* action = menu->addAction(Text(main, command.id));
    action->setShortcut(QKeySequence(command.keys));
    QObject::connect(action, &QAction::triggered, &window, [&main, &window, kind = command.kind] {
      if (const CXmMimeMessage* message = window.view().message()) OpenResponse(main, *message, kind, nullptr);
    });
  }
}

}  // namespace trv::gui

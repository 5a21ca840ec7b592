#include "app/gui/session.h"

#include <QAbstractEventDispatcher>
#include <QApplication>
#include <QMessageBox>
#include <QPushButton>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>
#include <utility>

#include "app/gui/options_dialog.h"
#include "base/wide_string.h"
#include "core/engine.h"
#include "services/service_registry.h"
#include "store/storage_host.h"

namespace trv::gui {

namespace {

constexpr const char* kProgramName = "trvmail";
// The title when the language file has none.
constexpr const char* kDefaultTitle = "Tarvo Mail";

void ShowBox(const std::string& text, const std::string& caption) {
  QMessageBox box(QMessageBox::Critical, QString::fromStdString(caption), QString::fromStdString(text),
                  QMessageBox::Ok);
  box.setWindowFlag(Qt::WindowStaysOnTopHint);
  box.exec();
}

int AskBox(const std::string& text, const std::string& caption, const std::vector<std::string>& choices) {
  QMessageBox box(QMessageBox::Warning, QString::fromStdString(caption), QString::fromStdString(text));
  std::vector<QAbstractButton*> buttons;
  for (const std::string& choice : choices) {
    buttons.push_back(box.addButton(QString::fromStdString(choice), QMessageBox::AcceptRole));
  }
  box.setWindowFlag(Qt::WindowStaysOnTopHint);
  QApplication::setOverrideCursor(Qt::ArrowCursor);  // over start-up's wait cursor
  box.exec();
  QApplication::restoreOverrideCursor();
  const auto it = std::find(buttons.begin(), buttons.end(), box.clickedButton());
  return it == buttons.end() ? -1 : static_cast<int>(it - buttons.begin());
}

// The language file's text `id` with %1 to %3 replaced; the arguments
// alone when the file has no such text (it may be missing: start-up
// problems come before the check that says so).
std::string Format(const LanguageTable& texts, const char* id, const std::vector<std::string>& args) {
  QString text = QString::fromStdString(texts.Text(id));
  if (text.isEmpty()) {
    QStringList parts;
    for (const std::string& arg : args) parts << QString::fromStdString(arg);
    return parts.join(": ").toStdString();
  }
  // One arg() call for all, so that a %n inside an argument stays as it is.
  QString a[3];
  for (size_t i = 0; i < args.size() && i < 3; ++i) a[i] = QString::fromStdString(args[i]);
  switch (args.size()) {
    case 0: return text.toStdString();
    case 1: return text.arg(a[0]).toStdString();
    case 2: return text.arg(a[0], a[1]).toStdString();
    default: return text.arg(a[0], a[1], a[2]).toStdString();
  }
}

std::string TextOr(const LanguageTable& texts, const char* id, const char* fallback) {
  const std::string text = texts.Text(id);
  return text.empty() ? fallback : text;
}

// The engine's progress callback's question for a storage event, put
// through `ask` (or `tell` for what has no choice); the answer as the
// storages understand it. A folder the person chose to leave unavailable
// is not asked about again when its storage then reports it as not loaded
// (*skipped holds its name meanwhile).
int AnswerStorageEvent(const StorageEvent& event, const LanguageTable& texts, const TellUser& tell,
                       const AskUser& ask, WString* skipped) {
  const std::string caption = TextOr(texts, "AppTitle", kDefaultTitle);
  const std::string storage = WideToUtf8(event.storage_name);
  const auto choose = [&](const std::string& text, const std::vector<const char*>& ids) {
    std::vector<std::string> choices;
    for (const char* id : ids) choices.push_back(TextOr(texts, id, id));
    return ask(text, caption, choices);
  };
  switch (event.code) {
    case kEventFolderFileNotFound: {
      const std::string folder = WideToUtf8(event.folder_name);
      const int answer = choose(Format(texts, "AskFolderFileMissing", {event.path.string(), folder, storage}),
                                {"AskSearchAgain", "AskLeaveUnavailable", "AskCreateEmpty"});
      if (answer == 0) return kAnswerSearchAgain;
      if (answer == 2) return kAnswerDefault;
      *skipped = event.folder_name;
      return kAnswerSkip;
    }
    case kEventStorageLoadingError: {
      const std::string why = event.detail.empty() ? ResultText(event.error) : event.detail;
      tell(Format(texts, "AskStorageUnreadable", {event.path.string(), why}), caption);
      return kAnswerDefault;
    }
    case kEventFolderLoadingError: {
      if (!event.folder_name.empty() && std::exchange(*skipped, WString()) == event.folder_name) return kAnswerDefault;
      const std::string text =
          event.folder_name.empty()
              ? Format(texts, "AskIndexDamaged", {storage, event.detail})
              : Format(texts, "AskFolderDamaged", {WideToUtf8(event.folder_name), storage, ResultText(event.error)});
      return choose(text, {"AskGoOn", "AskStopLoading"}) == 1 ? kAnswerStop : kAnswerDefault;
    }
    default:
      return kAnswerDefault;
  }
}

}  // namespace

bool Session::Start(const SessionOptions& options) {
  QApplication::setOverrideCursor(Qt::WaitCursor);
  wait_cursor_ = true;

  engine_ = AcquireEngine();
  if (engine_ == nullptr) {
    Shutdown();
    return false;
  }
  if (!options.data_dir.empty()) engine_->SetDataDirectoryOverride(options.data_dir);
  InstallServiceFactory(*engine_);
  // The start-up messages come before the language file's own check; they
  // read it themselves (and make do without it).
  auto early = std::make_shared<LanguageTable>();
  early->Load(LanguageTable::Locate(options.program_dir)).Ignore();
  const TellUser tell = options.tell ? options.tell : ShowBox;
  const AskUser ask = options.ask ? options.ask : AskBox;
  // No answer (-1) picks what changes nothing on disk.
  engine_->SetProgressCallback([early, tell, ask, skipped = std::make_shared<WString>()](const StorageEvent& event) {
    return AnswerStorageEvent(event, *early, tell, ask, skipped.get());
  });
  std::filesystem::path dir;
  std::string problem;
  if (engine_->PrepareDataDirectory(&dir).failed()) {
    problem = Format(*early, "StartDataDir", {engine_->start_problem()});
  } else if (data_lock_.Acquire(dir, kProgramName, std::chrono::milliseconds(2000)).failed()) {
    const std::string& holder = data_lock_.holder_name();
    problem = holder.empty() ? Format(*early, "StartInUseUnknown", {dir.string()})
                             : Format(*early, "DataDirInUse", {dir.string(), holder});
  } else if (engine_->Start(options.command_line).failed()) {
    problem = Format(*early, "EngineFailed", {engine_->start_problem()});
  }
  if (!problem.empty()) {
    std::fprintf(stderr, "%s: %s\n", kProgramName, problem.c_str());
    Shutdown();
    tell(problem, TextOr(*early, "AppTitle", kDefaultTitle));
    return false;
  }

  options_.Load({}, &engine_->activity_log());

  if (texts_.Load(LanguageTable::Locate(options.program_dir)).failed()) {
    Shutdown();
    (options.tell ? options.tell : ShowBox)(LanguageTable::kMissingText, LanguageTable::kMissingCaption);
    return false;
  }
  std::string title = texts_.Text("AppTitle").substr(0, 100);
  if (title.empty()) title = kDefaultTitle;

  window_ = std::make_unique<MainWindow>(*engine_, texts_, QString::fromStdString(title));
  window_->ApplyOptions(options_);
  OptionsCommands::Attach(*window_, &options_);
  window_->show();

  MailEngine* engine = engine_;
  idle_hook_ = QObject::connect(QAbstractEventDispatcher::instance(), &QAbstractEventDispatcher::aboutToBlock,
                                [engine] { engine->Idle(); });
  QApplication::restoreOverrideCursor();
  wait_cursor_ = false;
  return true;
}

void Session::Shutdown() {
  if (wait_cursor_) {
    QApplication::restoreOverrideCursor();
    wait_cursor_ = false;
  }
  if (window_ != nullptr) window_->KeepOptions(&options_);
  window_.reset();
  texts_ = LanguageTable();
  options_.Finish();
  if (idle_hook_) QObject::disconnect(idle_hook_);
  if (engine_ != nullptr) {
    ReleaseEngine();  // the last release shuts the engine down
    engine_ = nullptr;
  }
  data_lock_.Release();
}

}  // namespace trv::gui

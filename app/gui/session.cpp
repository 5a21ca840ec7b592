#include "app/gui/session.h"

#include <QAbstractEventDispatcher>
#include <QApplication>
#include <QMessageBox>
#include <chrono>
#include <cstdio>

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
  // Until the window can ask: a folder whose file is missing stays
  // unavailable (its medium may be back tomorrow), other problems go on.
  engine_->SetProgressCallback([](const StorageEvent& event) {
    return event.code == kEventFolderFileNotFound ? kAnswerSkip : kAnswerDefault;
  });
  std::filesystem::path dir;
  bool started = false;
  if (engine_->PrepareDataDirectory(&dir).failed()) {
    std::fprintf(stderr, "%s: %s\n", kProgramName, engine_->start_problem().c_str());
  } else if (data_lock_.Acquire(dir, kProgramName, std::chrono::milliseconds(2000)).failed()) {
    std::fprintf(stderr, "%s: the data directory %s is in use%s%s\n", kProgramName, dir.c_str(),
                 data_lock_.holder_name().empty() ? "" : " by ", data_lock_.holder_name().c_str());
  } else if (engine_->Start(options.command_line).failed()) {
    std::fprintf(stderr, "%s: %s\n", kProgramName, engine_->start_problem().c_str());
  } else {
    started = true;
  }
  if (!started) {
    Shutdown();
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

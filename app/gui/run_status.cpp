#include "app/gui/run_status.h"

#include <QHBoxLayout>
#include <QLocale>
#include <algorithm>

#include "core/engine.h"
#include "services/mail_service.h"
#include "services/run_trust.h"
#include "services/service_registry.h"

namespace trv::gui {

namespace {

QString Number(int64_t n) { return QString::number(n); }
QString Bytes(int64_t n) { return QLocale().formattedDataSize(n); }

}  // namespace

RunStatus::RunStatus(MailEngine& engine, const LanguageTable& texts, QWidget* parent)
    : QWidget(parent), engine_(engine), texts_(texts) {
  label_ = new QLabel;
  label_->setTextFormat(Qt::PlainText);
  bar_ = new QProgressBar;
  bar_->setMaximumWidth(160);
  bar_->setRange(0, 1);
  bar_->setValue(0);
  bar_->setTextVisible(false);
  bar_->hide();
  auto* layout = new QHBoxLayout(this);
  layout->setContentsMargins(0, 0, 0, 0);
  layout->addWidget(label_, 1);
  layout->addWidget(bar_, 0, Qt::AlignRight | Qt::AlignVCenter);
}

RunStatus::~RunStatus() {
  // Removed services are gone; only those still on the engine know us.
  for (MailService* service : MailServices(engine_)) service->observers().Remove(this);
}

void RunStatus::Follow() {
  const std::vector<MailService*> now = MailServices(engine_);
  for (MailService* service : now) {
    if (std::find(followed_.begin(), followed_.end(), service) == followed_.end()) service->observers().Add(this);
  }
  // A removed account's line goes with it.
  for (MailService* service : followed_) {
    if (std::find(now.begin(), now.end(), service) != now.end()) continue;
    lines_.remove(service);
    running_.remove(service);
    std::erase(order_, static_cast<const void*>(service));
  }
  followed_ = now;
  bar_->setVisible(!running_.isEmpty());
  label_->setText(Lines().join('\n'));
}

QString RunStatus::EventText(MailService& service, const SyncEvent& e) const {
  const QString name = QString::fromStdString(e.text);
  const auto& v = e.values;
  switch (e.code) {
    case kEventConnecting: return Text("RunConnecting").arg(name);
    case kEventAuthenticating: return Text("RunLoggingIn");
    case kEventStartingTls: return Text("RunStartingTls");
    case kEventReadingList: return Text("RunReadingList");
    case kEventListingFolders: return Text("RunListingFolders");
    case kEventReadingFolder: return Text("RunReadingFolder").arg(name);
    case kEventDownloading: return Text("RunDownloading").arg(Number(v[0]), Number(v[1]), Bytes(v[2]), Bytes(v[3]));
    case kEventDownloadingFolder: return Text("RunDownloadingFolder").arg(name, Number(v[0]), Number(v[1]));
    case kEventDeleting:
    case kEventDeletingOnServer: return Text("RunDeleting").arg(Number(v[0]), Number(v[1]));
    case kEventUploading: return Text("RunUploading").arg(Number(v[0]), Number(v[1]));
    case kEventSending: return Text("RunSending").arg(Number(v[0]), Number(v[1]), Bytes(v[2]), Bytes(v[3]));
    case kEventClosing: return Text("RunClosing");
    case kEventRunFinished: {
      // A stop may leave the aborted connection's error behind.
      if (service.interrupted()) return Text("RunStopped");
      const Result r = service.pending_error();
      if (r.ok()) return Text("RunFinished");
      const std::string refusal = RunRefusalText(service, r);
      return Text("RunFailed").arg(QString::fromStdString(refusal.empty() ? ResultText(r) : refusal),
                                   QString::fromStdString(ResultHex(r)));
    }
    default: return {};
  }
}

void RunStatus::OnSyncEvent(MailService& service, const SyncEvent& event) {
  const QString text = EventText(service, event);
  if (text.isEmpty()) return;
  const bool counted = event.code == kEventDownloading || event.code == kEventDownloadingFolder ||
                       event.code == kEventSending || event.code == kEventDeleting ||
                       event.code == kEventDeletingOnServer || event.code == kEventUploading;
  // A run's first event empties the bar.
  const bool first = event.code == kEventConnecting;
  const int done = counted ? static_cast<int>(event.values[0]) : first ? 0 : -1;
  const int total = counted ? static_cast<int>(event.values[1]) : first ? 1 : -1;
  const QString line = Text("RunLine").arg(QString::fromStdString(service.DisplayName()), text);
  const bool finished = event.code == kEventRunFinished;
  const void* key = &service;
  QMetaObject::invokeMethod(
      this, [this, key, line, done, total, finished] { Show(key, line, done, total, finished, false); },
      Qt::QueuedConnection);
}

void RunStatus::Note(const void* service, const QString& line) { Show(service, line, -1, -1, false, true); }

void RunStatus::ShowMessage(const QString& text) {
  message_ = text;
  label_->setText(Lines().join('\n'));
}

void RunStatus::Show(const void* service, const QString& text, int done, int total, bool finished, bool note) {
  if (!lines_.contains(service)) order_.push_back(service);
  Line& line = lines_[service];
  if (note) {
    line = {text, true};
  } else if (finished) {
    if (!line.noted) line.text = text;
    line.noted = false;
  } else if (!line.noted) {
    line.text = text;
  }
  if (finished) {
    running_.remove(service);
    bar_->setRange(0, 1);
    bar_->setValue(1);
  } else if (!note) {
    running_.insert(service);
  }
  bar_->setVisible(!running_.isEmpty());
  if (!finished && total > 0) {
    bar_->setRange(0, total);
    bar_->setValue(std::clamp(done, 0, total));
  }
  label_->setText(Lines().join('\n'));
  if (finished) emit runFinished();
}

QStringList RunStatus::Lines() const {
  QStringList lines;
  for (const void* service : order_) lines << lines_.value(service).text;
  if (!message_.isEmpty()) lines << message_;
  return lines;
}

}  // namespace trv::gui

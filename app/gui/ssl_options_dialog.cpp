#include "app/gui/ssl_options_dialog.h"

#include <QCheckBox>
#include <QDialogButtonBox>
#include <QGroupBox>
#include <QPushButton>
#include <QRadioButton>
#include <QVBoxLayout>

#include "net/tls_engine.h"

namespace trv::gui {

namespace {

// The version boxes, newest first, with their bits.
constexpr std::pair<const char*, uint32_t> kVersions[] = {
    {"AccSslTls13", kTls13}, {"AccSslTls12", kTls12}, {"AccSslTls11", kTls11}, {"AccSslTls10", kTls10}};

}  // namespace

SslOptionsDialog::SslOptionsDialog(const LanguageTable& texts, const SslOptions& options, QWidget* parent)
    : QDialog(parent) {
  const auto text = [&](const char* id) { return QString::fromStdString(texts.Text(id)); };
  setWindowTitle(text("AccSslCaption"));
  auto* layout = new QVBoxLayout(this);
  auto* mode = new QGroupBox(text("AccSslMode"));
  auto* mode_layout = new QVBoxLayout(mode);
  explicit_ = new QRadioButton(text("AccSslExplicit"));
  implicit_ = new QRadioButton(text("AccSslImplicit"));
  (options.explicit_mode ? explicit_ : implicit_)->setChecked(true);
  mode_layout->addWidget(explicit_);
  mode_layout->addWidget(implicit_);
  layout->addWidget(mode);

  auto* versions = new QGroupBox(text("AccSslVersions"));
  auto* versions_layout = new QVBoxLayout(versions);
  for (size_t i = 0; i < std::size(kVersions); ++i) {
    versions_[i] = new QCheckBox(text(kVersions[i].first));
    versions_[i]->setChecked((options.versions & kVersions[i].second) != 0);
    versions_layout->addWidget(versions_[i]);
  }
  layout->addWidget(versions);
  insecure_ = new QCheckBox(text("AccSslInsecure"));
  insecure_->setChecked(options.allow_insecure);
  layout->addWidget(insecure_);
  strong_ = new QCheckBox(text("AccSslStrong"));
  strong_->setChecked(options.strong);
  layout->addWidget(strong_);

  auto* buttons = new QDialogButtonBox(QDialogButtonBox::Ok | QDialogButtonBox::Cancel);
  connect(buttons, &QDialogButtonBox::accepted, this, &QDialog::accept);
  connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
  layout->addWidget(buttons);
  // No version at all could never connect: OK waits for one.
  const auto any_version = [this, buttons] {
    bool any = false;
    for (QCheckBox* box : versions_) any = any || box->isChecked();
    buttons->button(QDialogButtonBox::Ok)->setEnabled(any);
  };
  for (QCheckBox* box : versions_) connect(box, &QCheckBox::toggled, this, any_version);
  any_version();
}

SslOptions SslOptionsDialog::options() const {
  SslOptions o;
  o.explicit_mode = explicit_->isChecked();
  o.allow_insecure = insecure_->isChecked();
  o.versions = 0;
  for (size_t i = 0; i < std::size(kVersions); ++i) {
    if (versions_[i]->isChecked()) o.versions |= kVersions[i].second;
  }
  o.strong = strong_->isChecked();
  return o;
}

}  // namespace trv::gui

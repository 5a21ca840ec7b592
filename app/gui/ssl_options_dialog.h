// The "SSL options" of one protocol of an account: explicit TLS (STARTTLS /
// STLS on the plain port) or implicit TLS (from the first byte), whether an
// insecure certificate is allowed, the TLS versions offered and whether only
// strong ciphers are used. Confirming it lets the protocol page apply the
// port rules (services/port_rules.h).
//
// Threads: interface thread.
#pragma once

#include <QDialog>
#include <cstdint>

#include "app/gui/language.h"

class QCheckBox;
class QRadioButton;

namespace trv::gui {

struct SslOptions {
  bool explicit_mode = true;
  bool allow_insecure = false;
  uint32_t versions = 7;  // net/tls_engine.h bits
  bool strong = false;
};

class SslOptionsDialog final : public QDialog {
  Q_OBJECT

 public:
  SslOptionsDialog(const LanguageTable& texts, const SslOptions& options, QWidget* parent);

  // What the boxes say now.
  SslOptions options() const;

  QRadioButton& explicit_button() { return *explicit_; }
  QRadioButton& implicit_button() { return *implicit_; }

 private:
  QRadioButton* explicit_;
  QRadioButton* implicit_;
  QCheckBox* insecure_;
  QCheckBox* versions_[4];
  QCheckBox* strong_;
};

}  // namespace trv::gui

#include "app/gui/crash_guard.h"

#include <signal.h>
#include <unistd.h>

#include <QApplication>
#include <QMessageBox>
#include <cstdio>

namespace trv::gui {

namespace {

// Codes the report gives for the signals, as the program's exception codes.
uint32_t SignalCode(int sig) {
  switch (sig) {
    case SIGSEGV: return 0xC0000005;  // access violation
    case SIGBUS: return 0x80000002;   // misaligned data
    case SIGILL: return 0xC000001D;   // illegal instruction
    case SIGFPE: return 0xC0000094;   // integer division by zero
    default: return 0xC0000025;
  }
}

// Formats into `out` without the C library, since a signal handler may not
// call it. Returns the length.
size_t FormatReport(uint32_t code, uint32_t address, char* out) {
  static const char kDigits[] = "0123456789ABCDEF";
  size_t n = 0;
  auto put = [&](const char* text) {
    while (*text) out[n++] = *text++;
  };
  auto hex = [&](uint32_t v) {
    for (int shift = 28; shift >= 0; shift -= 4) out[n++] = kDigits[(v >> shift) & 0xF];
  };
  put("Exception code ");
  hex(code);
  put("h at address ");
  hex(address);
  put("h");
  out[n] = '\0';
  return n;
}

void OnFatalSignal(int sig, siginfo_t* info, void*) {
  char line[160];
  size_t n = 0;
  for (const char* c = kExceptionCaption; *c;) line[n++] = *c++;
  line[n++] = ' ';
  n += FormatReport(SignalCode(sig), static_cast<uint32_t>(reinterpret_cast<uintptr_t>(info->si_addr)), line + n);
  line[n++] = '\n';
  ssize_t written = ::write(STDERR_FILENO, line, n);
  (void)written;  // nothing more can be done about a failed write here
  ::_exit(0);
}

}  // namespace

std::string ExceptionText(uint32_t code, uintptr_t address) {
  char text[64];
  const size_t n = FormatReport(code, static_cast<uint32_t>(address), text);
  return std::string(text, n);
}

void InstallCrashHandlers() {
  struct sigaction action = {};
  action.sa_sigaction = OnFatalSignal;
  action.sa_flags = SA_SIGINFO | SA_RESETHAND;
  sigemptyset(&action.sa_mask);
  for (int sig : {SIGSEGV, SIGBUS, SIGILL, SIGFPE}) ::sigaction(sig, &action, nullptr);
}

int ReportException(uint32_t code, uintptr_t address) {
  const std::string text = ExceptionText(code, address);
  std::fprintf(stderr, "%s %s\n", kExceptionCaption, text.c_str());
  if (qApp != nullptr) {
    QMessageBox box(QMessageBox::NoIcon, QString::fromUtf8(kExceptionCaption), QString::fromStdString(text),
                    QMessageBox::Ok);
    box.setWindowFlag(Qt::WindowStaysOnTopHint);
    box.exec();
  }
  return 0;
}

}  // namespace trv::gui

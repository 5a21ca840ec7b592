// trvmail: the window program.
#include <exception>

#include "app/gui/crash_guard.h"
#include "app/gui/gui_main.h"

int main(int argc, char** argv) {
  trv::gui::InstallCrashHandlers();
  try {
    return trv::gui::RunMain(argc, argv);
  } catch (...) {
    return trv::gui::ReportException(trv::gui::kCppExceptionCode, 0);
  }
}

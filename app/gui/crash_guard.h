// The last-resort report: an exception that escapes the program, or a fatal
// signal (SIGSEGV, SIGBUS, SIGILL, SIGFPE), ends the process with exit code
// 0 after saying "Exception code %08Xh at address %08Xh" under the caption
// "Tarvo Mail Exception!". A signal can only be reported on standard error
// (nothing else is safe inside its handler); an exception is shown in a
// message box too when the application object exists.
#pragma once

#include <cstdint>
#include <string>

namespace trv::gui {

inline constexpr const char* kExceptionCaption = "Tarvo Mail Exception!";
// The code reported for a C++ exception (no signal behind it).
inline constexpr uint32_t kCppExceptionCode = 0xE06D7363;

// The report's text for a code and an address (its low 32 bits are shown).
std::string ExceptionText(uint32_t code, uintptr_t address);

// Installs the handlers for the fatal signals. Once, at the start of main.
void InstallCrashHandlers();

// Reports an exception caught at the outermost layer. Returns the exit code.
int ReportException(uint32_t code, uintptr_t address);

}  // namespace trv::gui

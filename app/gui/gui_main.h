// The window program's main routine, inside the last-resort guard of main():
// "-uninstall" (the running instance is asked to close), the single-instance
// check, start-up, the event loop, shutdown. Returns the exit code.
#pragma once

namespace trv::gui {

int RunMain(int argc, char** argv);

}  // namespace trv::gui

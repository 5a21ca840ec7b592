// trvmail-cli: see app/cli/cli.h and CLI.md.
#include <cstdio>
#include <exception>
#include <new>
#include <string>
#include <vector>

#include "app/cli/cli.h"

int main(int argc, char** argv) {
  try {
    return trv::cli::RunCli(std::vector<std::string>(argv + 1, argv + argc));
  } catch (const std::bad_alloc&) {
    std::fprintf(stderr, "trvmail-cli: out of memory\n");
  } catch (const std::exception& e) {
    std::fprintf(stderr, "trvmail-cli: unexpected error: %s\n", e.what());
  }
  return trv::cli::kExitFailed;
}

// Child processes and ports for the test harness: servers are started as
// children of the test process (they get SIGTERM when it dies), stopped by
// process id, and reached on 127.0.0.1 only.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace trv::test {

// Starts argv[0] (a full path) with argv, standard output and error appended
// to log. Returns the pid, or -1 with *error set.
pid_t StartProcess(const std::vector<std::string>& argv, const std::filesystem::path& log, std::string* error);

// Runs a command to its end; returns its exit status (-1 when it could not
// start or was killed). Output goes to log.
int RunProcess(const std::vector<std::string>& argv, const std::filesystem::path& log);

// Sends SIGTERM to every pid first, then waits for all (servers stop in
// parallel), killing the process group of what is left after the grace period.
void StopProcesses(const std::vector<pid_t>& pids, std::chrono::milliseconds grace);

// A port on 127.0.0.1 that nothing listens on, below the range the system
// hands out for outgoing connections.
uint16_t PickFreePort();

// Waits until address:port accepts a connection, while pid lives.
bool WaitForPort(const std::string& address, uint16_t port, pid_t pid, std::chrono::milliseconds limit);

// Whether an executable exists at path.
bool Executable(const std::filesystem::path& path);

}  // namespace trv::test

#include "tests/support/process.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <random>
#include <set>
#include <thread>

namespace trv::test {

namespace {

// Whether binding to (connect false) or connecting to address:port works.
bool TryPort(const std::string& address, uint16_t port, bool connect) {
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(port);
  ::inet_pton(AF_INET, address.c_str(), &a.sin_addr);
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const auto* sa = reinterpret_cast<const sockaddr*>(&a);
  const bool ok = (connect ? ::connect(fd, sa, sizeof a) : ::bind(fd, sa, sizeof a)) == 0;
  ::close(fd);
  return ok;
}

// Whether the child is still running (reaps it when it ended).
bool Alive(pid_t pid) { return ::waitpid(pid, nullptr, WNOHANG) == 0; }

}  // namespace

pid_t StartProcess(const std::vector<std::string>& argv, const std::filesystem::path& log, std::string* error) {
  std::vector<char*> args;
  for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  const int out = ::open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (out < 0) {
    *error = "cannot open " + log.string() + ": " + std::strerror(errno);
    return -1;
  }
  const pid_t parent = ::getpid();
  const pid_t pid = ::fork();
  if (pid < 0) {
    *error = std::string("fork: ") + std::strerror(errno);
    ::close(out);
    return -1;
  }
  if (pid == 0) {
    // A server must not outlive a test process that was killed.
    ::prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (::getppid() != parent) ::_exit(127);
    ::setpgid(0, 0);
    ::dup2(out, 1);
    ::dup2(out, 2);
    ::dup2(::open("/dev/null", O_RDONLY), 0);
    ::execv(args[0], args.data());
    ::_exit(127);
  }
  ::close(out);
  return pid;
}

int RunProcess(const std::vector<std::string>& argv, const std::filesystem::path& log) {
  std::string error;
  const pid_t pid = StartProcess(argv, log, &error);
  int status = 0;
  while (pid > 0 && ::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  return pid > 0 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

void StopProcesses(const std::vector<pid_t>& pids, std::chrono::milliseconds grace) {
  std::set<pid_t> running;
  for (pid_t pid : pids) {
    if (pid > 0 && ::kill(pid, SIGTERM) == 0) running.insert(pid);
  }
  const auto deadline = std::chrono::steady_clock::now() + grace;
  while (!running.empty()) {
    for (auto it = running.begin(); it != running.end();) {
      it = Alive(*it) ? std::next(it) : running.erase(it);
    }
    if (running.empty()) break;
    if (std::chrono::steady_clock::now() >= deadline) {
      for (pid_t pid : running) {
        ::kill(-pid, SIGKILL);  // its process group: workers it started too
        ::kill(pid, SIGKILL);
        ::waitpid(pid, nullptr, 0);
      }
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
}

uint16_t PickFreePort() {
  static std::mt19937 rng(std::random_device{}());
  std::uniform_int_distribution<int> dist(20000, 31999);
  for (int attempt = 0; attempt < 200; ++attempt) {
    const uint16_t port = static_cast<uint16_t>(dist(rng));
    if (TryPort("127.0.0.1", port, false)) return port;
  }
  return 0;
}

bool WaitForPort(const std::string& address, uint16_t port, pid_t pid, std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (std::chrono::steady_clock::now() < deadline) {
    if (TryPort(address, port, true)) return true;
    if (pid > 0 && !Alive(pid)) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(25));
  }
  return false;
}

bool Executable(const std::filesystem::path& path) { return ::access(path.c_str(), X_OK) == 0; }

}  // namespace trv::test

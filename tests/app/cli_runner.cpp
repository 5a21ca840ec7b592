#include "tests/app/cli_runner.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

namespace trv::test {
namespace {

// The child's output goes to files, so a parent that writes all of the input
// before it reads never blocks.
std::string OutPath(const std::filesystem::path& root, pid_t pid, const char* which) {
  return (root / ("run-" + std::to_string(pid) + "." + which)).string();
}

}  // namespace

CliSandbox::CliSandbox() {
  for (const char* d : {"home", "config", "data", "run"}) std::filesystem::create_directories(root() / d);
  std::filesystem::permissions(root() / "run", std::filesystem::perms::owner_all);
}

std::vector<std::string> CliSandbox::Environment() const {
  const char* path = ::getenv("PATH");
  return {"HOME=" + (root() / "home").string(), "XDG_CONFIG_HOME=" + (root() / "config").string(),
          "XDG_DATA_HOME=" + (root() / "data").string(), "XDG_RUNTIME_DIR=" + (root() / "run").string(),
          "TZ=UTC", "LC_ALL=C", std::string("PATH=") + (path ? path : "/usr/bin:/bin")};
}

void CliSandbox::Enter() const {
  for (const std::string& e : Environment()) {
    const size_t eq = e.find('=');
    ::setenv(e.substr(0, eq).c_str(), e.substr(eq + 1).c_str(), 1);
  }
}

pid_t CliSandbox::Start(const std::vector<std::string>& args, int* input) const {
  int fds[2];
  if (::pipe2(fds, O_CLOEXEC) != 0) return -1;
  std::vector<std::string> argv = {TRVMAIL_CLI_PATH};
  argv.insert(argv.end(), args.begin(), args.end());
  const std::vector<std::string> env = Environment();
  std::vector<char*> argp, envp;
  for (const std::string& a : argv) argp.push_back(const_cast<char*>(a.c_str()));
  for (const std::string& e : env) envp.push_back(const_cast<char*>(e.c_str()));
  argp.push_back(nullptr);
  envp.push_back(nullptr);
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    const int out = ::open(OutPath(root(), ::getpid(), "out").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    const int err = ::open(OutPath(root(), ::getpid(), "err").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (out < 0 || err < 0) ::_exit(126);
    ::dup2(fds[0], 0);
    ::dup2(out, 1);
    ::dup2(err, 2);
    ::execve(argp[0], argp.data(), envp.data());
    ::_exit(127);
  }
  ::close(fds[0]);
  if (pid < 0) {
    ::close(fds[1]);
    return -1;
  }
  *input = fds[1];
  return pid;
}

CliRun CliSandbox::Wait(pid_t pid) const {
  CliRun run;
  if (pid < 0) return run;
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  for (auto [which, text] : {std::pair{"out", &run.out}, std::pair{"err", &run.err}}) {
    *text = ReadFile(OutPath(root(), pid, which));
    std::filesystem::remove(OutPath(root(), pid, which));
  }
  return run;
}

CliRun CliSandbox::Run(const std::vector<std::string>& args, const std::string& input) const {
  int in = -1;
  const pid_t pid = Start(args, &in);
  if (pid < 0) return {};
  // A child that exits without reading closes the pipe: ignore SIGPIPE.
  std::signal(SIGPIPE, SIG_IGN);
  for (size_t done = 0; done < input.size();) {
    const ssize_t n = ::write(in, input.data() + done, input.size() - done);
    if (n <= 0 && errno != EINTR) break;
    if (n > 0) done += static_cast<size_t>(n);
  }
  ::close(in);
  return Wait(pid);
}

}  // namespace trv::test

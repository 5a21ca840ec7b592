#include "tests/app/cli_runner.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

namespace trv::test {

CliTestBase::CliTestBase() {
  for (const char* d : {"home", "config", "data", "run"}) std::filesystem::create_directories(root() / d);
  std::filesystem::permissions(root() / "run", std::filesystem::perms::owner_all);
}

// The child's output goes to files, so a parent that writes all of the input
// before it reads never blocks.
std::string CliTestBase::OutPath(pid_t pid, const char* which) const {
  return (root() / ("run-" + std::to_string(pid) + "." + which)).string();
}

std::vector<std::string> CliTestBase::Environment() const {
  const char* path = ::getenv("PATH");
  return {"HOME=" + (root() / "home").string(), "XDG_CONFIG_HOME=" + (root() / "config").string(),
          "XDG_DATA_HOME=" + (root() / "data").string(), "XDG_RUNTIME_DIR=" + (root() / "run").string(),
          "TZ=UTC", "LC_ALL=C", std::string("PATH=") + (path ? path : "/usr/bin:/bin")};
}

void CliTestBase::Enter() {
  for (const std::string& e : Environment()) ::putenv(::strdup(e.c_str()));
}

pid_t CliTestBase::Start(const std::vector<std::string>& args, int* input, bool terminal) {
  int fds[2];  // [0] the child's side, [1] ours
  if (terminal) {
    fds[1] = ::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (fds[1] < 0 || ::grantpt(fds[1]) != 0 || ::unlockpt(fds[1]) != 0 ||
        (fds[0] = ::open(::ptsname(fds[1]), O_RDWR | O_NOCTTY | O_CLOEXEC)) < 0) {
      if (fds[1] >= 0) ::close(fds[1]);
      return -1;
    }
  } else if (::pipe2(fds, O_CLOEXEC) != 0) {
    return -1;
  }
  std::vector<std::string> argv = {TRVMAIL_CLI_PATH}, env = Environment();
  argv.insert(argv.end(), args.begin(), args.end());
  std::vector<char*> argp, envp;
  for (std::string& a : argv) argp.push_back(a.data());
  for (std::string& e : env) envp.push_back(e.data());
  argp.push_back(nullptr);
  envp.push_back(nullptr);
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    const int out = ::open(OutPath(::getpid(), "out").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    const int err = ::open(OutPath(::getpid(), "err").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (out < 0 || err < 0 || ::dup2(fds[0], 0) < 0 || ::dup2(out, 1) < 0 || ::dup2(terminal ? fds[0] : err, 2) < 0) {
      ::_exit(126);
    }
    ::execve(argp[0], argp.data(), envp.data());
    ::_exit(127);
  }
  ::close(fds[0]);
  if (pid < 0) ::close(fds[1]);
  *input = pid < 0 ? -1 : fds[1];
  return pid < 0 ? -1 : pid;
}

CliRun CliTestBase::Wait(pid_t pid) {
  CliRun run;
  int status = 0;
  if (pid < 0) return run;
  while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  for (auto [which, text] : {std::pair{"out", &run.out}, std::pair{"err", &run.err}}) {
    *text = ReadFile(OutPath(pid, which));
    std::filesystem::remove(OutPath(pid, which));
  }
  return run;
}

CliRun CliTestBase::Run(const std::vector<std::string>& args, const std::string& input) {
  int in = -1;
  const pid_t pid = Start(args, &in);
  std::signal(SIGPIPE, SIG_IGN);  // a child that exits without reading closes the pipe
  for (size_t done = 0; pid > 0 && done < input.size();) {
    const ssize_t n = ::write(in, input.data() + done, input.size() - done);
    if (n <= 0 && errno != EINTR) break;
    done += n > 0 ? static_cast<size_t>(n) : 0;
  }
  if (in >= 0) ::close(in);
  return Wait(pid);
}

}  // namespace trv::test

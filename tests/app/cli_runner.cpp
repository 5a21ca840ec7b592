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
std::string OutPath(const std::filesystem::path& root, pid_t pid, const char* which) {
  return (root / ("run-" + std::to_string(pid) + "." + which)).string();
}
}  // namespace

CliSandbox::CliSandbox() {
  for (const char* d : {"home", "config", "data", "run"}) std::filesystem::create_directories(root() / d);
  std::filesystem::permissions(runtime_dir(), std::filesystem::perms::owner_all);
}

std::vector<std::string> CliSandbox::Environment() const {
  const char* path = ::getenv("PATH");
  return {
      "HOME=" + (root() / "home").string(),
      "XDG_CONFIG_HOME=" + (root() / "config").string(),
      "XDG_DATA_HOME=" + (root() / "data").string(),
      "XDG_RUNTIME_DIR=" + runtime_dir().string(),
      "TZ=UTC",
      "LC_ALL=C",
      std::string("PATH=") + (path ? path : "/usr/bin:/bin"),
  };
}

void CliSandbox::Enter() const {
  for (const std::string& e : Environment()) {
    const size_t eq = e.find('=');
    ::setenv(e.substr(0, eq).c_str(), e.substr(eq + 1).c_str(), 1);
  }
}

pid_t CliSandbox::Spawn(const std::vector<std::string>& args, int input_fd) const {
  std::vector<std::string> argv = {TRVMAIL_CLI_PATH};
  argv.insert(argv.end(), args.begin(), args.end());
  const std::vector<std::string> env = Environment();
  std::vector<char*> argp, envp;
  for (const std::string& a : argv) argp.push_back(const_cast<char*>(a.c_str()));
  for (const std::string& e : env) envp.push_back(const_cast<char*>(e.c_str()));
  argp.push_back(nullptr);
  envp.push_back(nullptr);
  const std::string root_text = root().string();
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    const pid_t self = ::getpid();
    const int out = ::open(OutPath(root_text, self, "out").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    const int err = ::open(OutPath(root_text, self, "err").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (out < 0 || err < 0) ::_exit(126);
    ::dup2(input_fd, 0);
    ::dup2(out, 1);
    ::dup2(err, 2);
    ::execve(argp[0], argp.data(), envp.data());
    ::_exit(127);
  }
  return pid;
}

CliRun CliSandbox::Wait(pid_t pid) const {
  CliRun run;
  if (pid < 0) return run;
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  run.out = ReadFile(OutPath(root(), pid, "out"));
  run.err = ReadFile(OutPath(root(), pid, "err"));
  std::error_code ec;
  std::filesystem::remove(OutPath(root(), pid, "out"), ec);
  std::filesystem::remove(OutPath(root(), pid, "err"), ec);
  return run;
}

CliRun CliSandbox::Run(const std::vector<std::string>& args, const std::string& input) const {
  const std::filesystem::path in_path = root() / "stdin";
  WriteFile(in_path, input);
  const int in = ::open(in_path.c_str(), O_RDONLY | O_CLOEXEC);
  const pid_t pid = Spawn(args, in);
  ::close(in);
  return Wait(pid);
}

pid_t CliSandbox::Start(const std::vector<std::string>& args, int* input) const {
  int fds[2];
  if (::pipe2(fds, O_CLOEXEC) != 0) return -1;
  const pid_t pid = Spawn(args, fds[0]);
  ::close(fds[0]);
  *input = fds[1];
  return pid;
}

}  // namespace trv::test

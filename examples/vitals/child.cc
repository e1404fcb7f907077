#include "child.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <system_error>

namespace vitals {
namespace {

// The path of this program, so that process lists show its name; without /proc, what it was called.
std::string thisProgram() {
  std::array<char, 4096> path{};
  const ssize_t size = readlink("/proc/self/exe", path.data(), path.size());
  if (size <= 0 || size == static_cast<ssize_t>(path.size())) return program_invocation_name;
  return std::string(path.data(), static_cast<std::size_t>(size));
}

// Between fork() and exec(): Ctrl-C, which the terminal sends to every process of the group, and
// the end of the terminal are left to the supervisor; its own death is told.
void prepare(pid_t supervisor) {
  std::signal(SIGINT, SIG_IGN);
  std::signal(SIGHUP, SIG_IGN);
  std::signal(SIGPIPE, SIG_DFL);
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  prctl(PR_SET_PDEATHSIG, SIGTERM);
  if (getppid() != supervisor) _exit(1);  // it died before it could be told
}

}  // namespace

Child::Child(const std::string& role, std::vector<std::string> arguments) : role_(role) {
  std::array<int, 2> pipeEnds{};
  if (pipe2(pipeEnds.data(), O_CLOEXEC | O_NONBLOCK) != 0) {
    throw std::system_error(errno, std::generic_category(), "pipe");
  }
  readyPipe_ = pipeEnds[0];

  arguments.insert(arguments.begin(), {"vitals", role});
  arguments.insert(arguments.end(), {"--supervisor", std::to_string(pipeEnds[1])});
  std::vector<char*> argv;
  for (std::string& argument : arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);

  const std::string program = thisProgram();
  const pid_t supervisor = getpid();
  pid_ = fork();
  if (pid_ == 0) {
    prepare(supervisor);
    fcntl(pipeEnds[1], F_SETFD, 0);  // the one descriptor that it inherits besides the usual three
    execvp(program.c_str(), argv.data());
    _exit(127);
  }
  close(pipeEnds[1]);
  if (pid_ < 0) {
    close(readyPipe_);
    throw std::system_error(errno, std::generic_category(), "fork");
  }
}

Child::~Child() {
  if (running()) {
    kill();
    waitpid(pid_, nullptr, 0);
  }
  close(readyPipe_);
}

std::optional<std::string> Child::ready() {
  std::array<char, 256> bytes{};
  for (;;) {
    const std::size_t end = readyText_.find('\n');
    if (end != std::string::npos) return readyText_.substr(0, end);
    const ssize_t count = read(readyPipe_, bytes.data(), bytes.size());
    if (count <= 0) return std::nullopt;
    readyText_.append(bytes.data(), static_cast<std::size_t>(count));
  }
}

bool Child::running() {
  if (status_) return false;
  int status = 0;
  if (waitpid(pid_, &status, WNOHANG) != pid_) return true;
  status_ = status;
  return false;
}

void Child::ask() {
  if (running()) ::kill(pid_, SIGTERM);
}

void Child::kill() {
  if (running()) ::kill(pid_, SIGKILL);
}

std::string Child::fate() const {
  if (!status_) return "still runs";
  if (WIFSIGNALED(*status_)) return std::string("was ended: ") + strsignal(WTERMSIG(*status_));
  return "ended with status " + std::to_string(WEXITSTATUS(*status_));
}

}  // namespace vitals

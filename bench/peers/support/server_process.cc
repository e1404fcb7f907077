#include "peers/support/server_process.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "support/measure.h"

namespace tessel::bench {
namespace {

constexpr const char* kOutput = "output.log";

sockaddr_in loopback(int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  return address;
}

bool accepts(int port) {
  const int socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const sockaddr_in address = loopback(port);
  const bool connected =
      connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  close(socket);
  return connected;
}

std::string newFolder() {
  std::string path = (std::filesystem::temp_directory_path() / "tessel-peer-XXXXXX").string();
  if (mkdtemp(path.data()) == nullptr) throw std::runtime_error("no folder for a server");
  return path;
}

bool hasEnded(pid_t process) {
  siginfo_t info{};
  // Leaves it to be waited for, so that its number is not given to another process.
  return waitid(P_PID, static_cast<id_t>(process), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
         info.si_pid != 0;
}

std::string contentOf(const std::string& path) {
  std::ostringstream content;
  content << std::ifstream(path).rdbuf();
  return content.str();
}

// In the child, which has one thread only and must not allocate.
[[noreturn]] void become(char* const* command, const char* folder) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (chdir(folder) != 0) _exit(1);
  const int output = open(kOutput, O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  dup2(output, STDOUT_FILENO);
  dup2(output, STDERR_FILENO);
  execv(command[0], command);
  _exit(1);
}

}  // namespace

int freePort() {
  const int socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address = loopback(0);
  socklen_t size = sizeof address;
  const bool found = bind(socket, reinterpret_cast<sockaddr*>(&address), size) == 0 &&
                     getsockname(socket, reinterpret_cast<sockaddr*>(&address), &size) == 0;
  close(socket);
  if (!found) throw std::runtime_error("no port is free");
  return ntohs(address.sin_port);
}

ServerProcess::ServerProcess(int port, const std::vector<std::string>& command,
                             const std::string& configuration)
    : port_(port), folder_(newFolder()) {
  std::ofstream(folder_ + "/" + kConfiguration) << configuration;
  start(command);
  try {
    waitUntilReady();
  } catch (...) {
    end();
    throw;
  }
  beginCountingServer(process_);
}

ServerProcess::~ServerProcess() {
  endCountingServer();
  end();
}

void ServerProcess::start(const std::vector<std::string>& command) {
  std::vector<char*> words;
  for (const std::string& word : command) words.push_back(const_cast<char*>(word.c_str()));
  words.push_back(nullptr);
  process_ = fork();
  if (process_ < 0) throw std::runtime_error("no process for a server");
  if (process_ == 0) become(words.data(), folder_.c_str());
}

void ServerProcess::waitUntilReady() {
  const Clock::time_point begin = Clock::now();
  while (!accepts(port_)) {
    if (secondsSince(begin) > 10 || hasEnded(process_)) {
      throw std::runtime_error("the server did not start: " + contentOf(folder_ + "/" + kOutput));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

void ServerProcess::end() {
  kill(process_, SIGKILL);
  waitpid(process_, nullptr, 0);
  std::error_code ignored;
  std::filesystem::remove_all(folder_, ignored);
}

std::uint64_t ServerProcess::residentBytes() const {
  std::ifstream file("/proc/" + std::to_string(process_) + "/statm");
  std::uint64_t total = 0;
  std::uint64_t resident = 0;
  file >> total >> resident;
  return resident * static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
}

}  // namespace tessel::bench

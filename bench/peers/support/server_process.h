#ifndef TESSEL_BENCH_PEERS_SUPPORT_SERVER_PROCESS_H
#define TESSEL_BENCH_PEERS_SUPPORT_SERVER_PROCESS_H

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace tessel::bench {

/// A TCP port of this machine that nobody listens on.
int freePort();

/// The server of another product: a child process that works in an empty folder of its own. It ends
/// with this object, or with this process, and its folder goes with it. Its processor time counts
/// in the Usage of the benchmark.
class ServerProcess {
 public:
  /// Starts `command`, whose first word is the path of the program, and waits until the port
  /// accepts connections. Throws with what the server wrote if it does not.
  ServerProcess(int port, const std::vector<std::string>& command,
                const std::string& configuration = "");
  ~ServerProcess();
  ServerProcess(const ServerProcess&) = delete;
  ServerProcess& operator=(const ServerProcess&) = delete;

  int port() const { return port_; }
  /// Bytes of it that are in memory.
  std::uint64_t residentBytes() const;

  /// The file, in its folder, that it finds its configuration in.
  static constexpr const char* kConfiguration = "server.conf";

 private:
  void start(const std::vector<std::string>& command);
  void waitUntilReady();
  void end();

  const int port_;
  const std::string folder_;
  pid_t process_ = 0;
};

}  // namespace tessel::bench

#endif

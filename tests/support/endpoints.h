#ifndef TESSEL_TESTS_SUPPORT_ENDPOINTS_H
#define TESSEL_TESTS_SUPPORT_ENDPOINTS_H

#include <unistd.h>
#include <zmq.h>

#include <atomic>
#include <cstdlib>
#include <mutex>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

namespace tessel::test {

/// An in-process name that nobody else uses.
inline std::string uniqueInproc() {
  static std::atomic<int> next{0};
  return "inproc://test" + std::to_string(next.fetch_add(1));
}

/// Removes at the end of the process what its file-system names have left behind: ZeroMQ removes
/// them in the background, which an ending process does not wait for.
class IpcFiles {
 public:
  ~IpcFiles() {
    for (const std::string& path : paths_) unlink(path.c_str());
  }
  void add(const std::string& path) {
    const std::lock_guard<std::mutex> lock(mutex_);
    paths_.push_back(path);
  }

 private:
  std::mutex mutex_;
  std::vector<std::string> paths_;
};

/// A file-system name that nobody else uses, also in other processes.
inline std::string uniqueIpc() {
  static std::atomic<int> next{0};
  static IpcFiles files;
  const char* folder = std::getenv("TMPDIR");
  const std::string path = std::string(folder == nullptr ? "/tmp" : folder) + "/tessel-test-" +
                           std::to_string(getpid()) + "-" + std::to_string(next.fetch_add(1));
  files.add(path);
  return "ipc://" + path;
}

/// A TCP port that this process has not been given before, at random. None of those that the system
/// hands out by itself, which are higher: any connection of another test could take one meanwhile.
inline std::string newPort() {
  static std::mutex mutex;
  static std::set<unsigned> given;
  static std::random_device random;
  const std::lock_guard<std::mutex> lock(mutex);
  unsigned port = 0;
  while (!given.insert(port = 10000 + random() % 22000).second) {
  }
  return std::to_string(port);
}

/// A TCP endpoint on the loopback whose port was free a moment ago.
inline std::string freeTcp() {
  void* context = zmq_ctx_new();
  void* socket = zmq_socket(context, ZMQ_PULL);
  std::string endpoint;
  bool bound = false;
  for (int tries = 0; !bound && tries < 100; ++tries) {
    endpoint = "tcp://127.0.0.1:" + newPort();
    bound = zmq_bind(socket, endpoint.c_str()) == 0;
  }
  zmq_close(socket);
  zmq_ctx_term(context);  // returns when the port is free again
  if (!bound) throw std::runtime_error("no free TCP port");
  return endpoint;
}

}  // namespace tessel::test

#endif

#ifndef TESSEL_TESTS_TORTURE_RELAY_H
#define TESSEL_TESTS_TORTURE_RELAY_H

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <deque>
#include <list>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace tessel::test {

/// Stands between those who connect to its endpoint and a TCP endpoint of this machine, and treats
/// what passes as a bad network would. Any thread may change how.
class Relay {
 public:
  explicit Relay(const std::string& to)
      : target_(addressOf(portOf(to))), listener_(listenAnywhere()), thread_([this] { run(); }) {}
  ~Relay() {
    over_ = true;
    thread_.join();
    for (const Connection& connection : connections_) drop(connection);
    close(listener_);
  }
  Relay(const Relay&) = delete;
  Relay& operator=(const Relay&) = delete;

  std::string endpoint() const { return "tcp://127.0.0.1:" + std::to_string(port_); }

  /// How long every byte takes, in each direction.
  void setDelay(std::chrono::milliseconds delay) { delay_ = delay.count(); }
  /// Nothing passes, and nobody is told.
  void stall(bool stalled) { stalled_ = stalled; }
  /// Ends every connection, with a reset or in good order, and those that are made until
  /// refuse(false).
  void refuse(bool refused) { refused_ = refused; }
  void setReset(bool reset) { reset_ = reset; }
  /// How many connections it has ended, or seen the end of.
  int ended() const { return ended_; }

 private:
  using Clock = std::chrono::steady_clock;
  struct Chunk {
    Clock::time_point due;
    std::string bytes;
  };
  struct Connection {
    std::array<int, 2> sockets{};
    std::array<std::deque<Chunk>, 2> read{};  // what the socket of that index has sent
    bool ended = false;
  };

  static int portOf(const std::string& endpoint) {
    return std::stoi(endpoint.substr(endpoint.rfind(':') + 1));
  }
  static sockaddr_in addressOf(int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    return address;
  }
  int listenAnywhere() {
    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    sockaddr_in address = addressOf(0);
    socklen_t size = sizeof address;
    if (bind(listener, reinterpret_cast<sockaddr*>(&address), size) != 0 ||
        listen(listener, 64) != 0 ||
        getsockname(listener, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
      throw std::runtime_error("no relay");
    }
    port_ = ntohs(address.sin_port);
    return listener;
  }

  void run() {
    while (!over_) {
      accept();
      for (Connection& connection : connections_) {
        if (refused_) connection.ended = true;
        if (!stalled_ && !connection.ended) pass(connection);
        if (connection.ended) drop(connection);
      }
      connections_.remove_if([](const Connection& connection) { return connection.ended; });
      wait();
    }
  }
  // Sleeps a millisecond at most: what is due and what is to change is looked at then.
  void wait() {
    std::vector<pollfd> readable{{listener_, POLLIN, 0}};
    for (const Connection& connection : connections_) {
      for (const int socket : connection.sockets) readable.push_back({socket, POLLIN, 0});
    }
    if (stalled_) readable.resize(1);
    poll(readable.data(), readable.size(), 1);
  }
  void accept() {
    while (true) {
      const int from = accept4(listener_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
      if (from < 0) return;
      const int to = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
      Connection connection;
      connection.sockets = {from, to};
      connection.ended =
          connect(to, reinterpret_cast<const sockaddr*>(&target_), sizeof target_) != 0;
      fcntl(to, F_SETFL, O_NONBLOCK);
      const int on = 1;
      for (const int socket : connection.sockets) {
        setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
      }
      connections_.push_back(std::move(connection));
    }
  }
  void pass(Connection& connection) {
    for (std::size_t i = 0; i < 2; ++i) {
      receive(connection, i);
      send(connection, i);
    }
  }
  void receive(Connection& connection, std::size_t side) {
    char bytes[65536];
    const ssize_t size = recv(connection.sockets[side], bytes, sizeof bytes, 0);
    if (size == 0 || (size < 0 && errno != EAGAIN)) connection.ended = true;
    if (size <= 0) return;
    connection.read[side].push_back({Clock::now() + std::chrono::milliseconds(delay_),
                                     std::string(bytes, static_cast<std::size_t>(size))});
  }
  void send(Connection& connection, std::size_t side) {
    std::deque<Chunk>& chunks = connection.read[side];
    while (!chunks.empty() && chunks.front().due <= Clock::now()) {
      std::string& bytes = chunks.front().bytes;
      const ssize_t size =
          ::send(connection.sockets[1 - side], bytes.data(), bytes.size(), MSG_NOSIGNAL);
      if (size < 0 && errno != EAGAIN) connection.ended = true;
      if (size <= 0) return;
      bytes.erase(0, static_cast<std::size_t>(size));
      if (!bytes.empty()) return;
      chunks.pop_front();
    }
  }
  void drop(const Connection& connection) {
    const linger none{1, 0};
    for (const int socket : connection.sockets) {
      if (reset_) setsockopt(socket, SOL_SOCKET, SO_LINGER, &none, sizeof none);
      close(socket);
    }
    ++ended_;
  }

  const sockaddr_in target_;
  int port_ = 0;
  const int listener_;
  std::atomic<std::int64_t> delay_{0};
  std::atomic<bool> stalled_{false}, refused_{false}, reset_{false}, over_{false};
  std::atomic<int> ended_{0};
  std::list<Connection> connections_;  // of the thread, while it runs
  std::thread thread_;
};

}  // namespace tessel::test

#endif

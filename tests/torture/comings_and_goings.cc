// Subscribers that connect to a broker with nothing to do, and go again:
//
//   comings_and_goings [--seed N] [--count CONNECTIONS] [--seconds N]
//
// They speak just enough of ZeroMQ's protocol (ZMTP 3.0) to be quick, and go in every way: in good
// order, by a reset, in the middle of the handshake. The broker is a process of its own, whose
// memory is looked at before and after.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <string>

#include "process_figures.h"
#include "support/child_process.h"
#include "support/deadline.h"
#include "support/endpoints.h"
#include "support/raw_peer.h"
#include "support/watchdog.h"
#include "tessel/publisher.h"
#include "torture.h"

namespace tessel::test {
namespace {

constexpr std::int64_t kMaxGrowth = 15'000'000;
constexpr std::uint64_t kWarmUp = 1000;

// From another address of the loopback each time, since each has only so many ports a minute.
class Visitor {
 public:
  Visitor(const std::string& endpoint, std::uint64_t number)
      : socket_(::socket(AF_INET, SOCK_STREAM, 0)) {
    const timeval patience{20, 0};
    setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    const int on = 1;
    setsockopt(socket_, IPPROTO_IP, IP_BIND_ADDRESS_NO_PORT, &on, sizeof on);
    setsockopt(socket_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    sockaddr_in from = address(INADDR_LOOPBACK + 1 + number % 200, 0);
    sockaddr_in to = address(INADDR_LOOPBACK, portOf(endpoint));
    require(::bind(socket_, reinterpret_cast<sockaddr*>(&from), sizeof from) == 0 &&
                ::connect(socket_, reinterpret_cast<sockaddr*>(&to), sizeof to) == 0,
            "a subscriber cannot connect");
  }
  ~Visitor() { close(socket_); }
  Visitor(const Visitor&) = delete;
  Visitor& operator=(const Visitor&) = delete;

  void greet() {
    std::string greeting(64, '\0');
    greeting[0] = '\xFF';
    greeting[9] = '\x7F';
    greeting[10] = 3;
    greeting.replace(12, 4, "NULL");
    write(greeting);
  }
  void shakeHands() {
    std::string ready = "\5READY\13Socket-Type";
    ready += std::string("\0\0\0\3SUB", 7);
    write(std::string("\4") + static_cast<char>(ready.size()) + ready);
    const std::string theirs = read(64 + 2);
    read(static_cast<std::size_t>(theirs.back()));
  }
  void subscribe(const std::string& key) {
    write(std::string("\0", 1) + static_cast<char>(key.size() + 1) + '\1' + key);
  }
  // The three frames of a value; all of them are short.
  std::string value() {
    std::string frames[3];
    for (std::string& frame : frames) frame = read(static_cast<std::size_t>(read(2).back()));
    return frames[1];
  }
  void reset() {
    const linger none{1, 0};
    setsockopt(socket_, SOL_SOCKET, SO_LINGER, &none, sizeof none);
  }

 private:
  static sockaddr_in address(std::uint64_t host, int port) {
    sockaddr_in result{};
    result.sin_family = AF_INET;
    result.sin_addr.s_addr = htonl(static_cast<std::uint32_t>(host));
    result.sin_port = htons(static_cast<std::uint16_t>(port));
    return result;
  }
  static int portOf(const std::string& endpoint) {
    return std::stoi(endpoint.substr(endpoint.rfind(':') + 1));
  }
  void write(const std::string& bytes) {
    require(send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
                static_cast<ssize_t>(bytes.size()),
            "the broker does not take what is sent");
  }
  std::string read(std::size_t size) {
    std::string bytes(size, '\0');
    require(recv(socket_, bytes.data(), size, MSG_WAITALL) == static_cast<ssize_t>(size),
            "the broker does not answer");
    return bytes;
  }

  const int socket_;
};

class Broker {
 public:
  Broker() : process_(TESSEL_PUBSUB_PROCESS, {"broker", pull, updates, cache}) {
    require(process_.line() == "started", "a broker does not come up");
    const Publisher publisher({pull}, "t", "g");
    publisher.publish("value", 5);
    expectServing();
  }
  std::int64_t memory() const { return privateMemory(process_.pid()); }
  int descriptors() const { return filesIn("/proc/" + std::to_string(process_.pid()) + "/fd"); }
  void expectServing() {
    RawPeer subscriber(ZMQ_SUB);
    subscriber.connect(cache).subscribe("t:g");
    require(subscriber.receive().at(1) == "value", "a good subscriber is not served");
  }

  const std::string pull = freeTcp();
  const std::string updates = freeTcp();
  const std::string cache = freeTcp();

 private:
  ChildProcess process_;
};

void visit(const Broker& broker, std::uint64_t number, Random& random) {
  const bool cached = pick(random, 2) == 0;
  Visitor visitor(cached ? broker.cache : broker.updates, number);
  const std::size_t way = pick(random, 10);
  if (pick(random, 2) == 0) visitor.reset();
  if (way == 0) return;
  visitor.greet();
  if (way == 1) return;
  visitor.shakeHands();
  for (std::size_t i = pick(random, 3); i > 0; --i) {
    visitor.subscribe("k" + std::to_string(number) + ":" + std::to_string(i));
  }
  if (!cached) return;
  visitor.subscribe("t:g");
  if (way > 5) require(visitor.value() == "value", "a subscriber gets another value");
}

int run() {
  const Torture& torture = Torture::instance();
  const Watchdog watchdog("comings and goings", torture.length() + std::chrono::seconds(200));
  Random random = randomFor(0);
  Broker broker;
  const int descriptors = broker.descriptors();
  std::uint64_t number = 0;
  std::int64_t memory = 0;
  while (number < torture.count() && !torture.timeIsUp()) {
    if (number == kWarmUp) memory = broker.memory();
    visit(broker, number++, random);
  }
  require(eventually([&] { return broker.descriptors() <= descriptors + 2; }),
          "the broker keeps descriptors of those who went");
  broker.expectServing();
  const std::int64_t growth = memory == 0 ? 0 : broker.memory() - memory;
  require(growth < kMaxGrowth || !kMemoryTells, "the broker grows");
  row("F6", "subscriber connections coming and going on a quiet broker over TCP",
      grouped(number) + " connections",
      "broker's memory " + oneDecimal(static_cast<double>(growth) / 1e6) +
          " MB more after the last than after the first " + grouped(kWarmUp) +
          "; its descriptors as before; the next subscriber is served");
  return 0;
}

}  // namespace
}  // namespace tessel::test

int main(int argc, char** argv) {
  tessel::test::Torture::instance().begin(argc, argv, 100000, 3600);
  return tessel::test::run();
}

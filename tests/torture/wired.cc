// A bad network of two and of three network namespaces, joined by wires in this process:
//
//   wired [--seed N] [--count CUTS] [--seconds N] [--longest MILLISECONDS]
//
// A wire is a pair of tun devices and a thread that carries packets from one to the other, 20 ms
// late, and loses one in a hundred. It is cut for a while, or its devices are taken down, and
// healed; then everything goes on by itself. What is in the way is TCP as the kernel speaks it.
//
// Needs root, or namespaces that users may make. Says why when it can do nothing, and ends with 77.

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstring>
#include <deque>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "recovery.h"
#include "support/watchdog.h"

namespace tessel::test {
namespace {

using std::chrono::milliseconds;

constexpr milliseconds kDelay{20};
constexpr std::size_t kLossOneIn = 100;

[[noreturn]] void skip(const char* what) {
  std::printf("skipped: %s: %s\n", what, std::strerror(errno));
  row("F10", "network namespaces", "skipped", std::string(what) + " is not permitted here");
  std::_Exit(77);
}

// Before there is any other thread.
void becomeRootOfANamespace() {
  if (geteuid() == 0) return;
  const auto user = geteuid();
  if (unshare(CLONE_NEWUSER) != 0) skip("a user namespace");
  std::ofstream("/proc/self/uid_map") << "0 " << user << " 1";
}

class Namespace {
 public:
  Namespace() {
    std::thread([this] {
      if (unshare(CLONE_NEWNET) != 0) skip("a network namespace");
      file_ = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
      setUp("lo", true);
    }).join();
    if (file_ < 0) skip("a network namespace");
  }
  ~Namespace() { close(file_); }
  Namespace(const Namespace&) = delete;
  Namespace& operator=(const Namespace&) = delete;

  /// On a thread that is in it; so is a process that it starts.
  void run(const std::function<void()>& work) const {
    std::thread([&] {
      require(setns(file_, CLONE_NEWNET) == 0, "a namespace cannot be entered");
      work();
    }).join();
  }
  /// Of the calling thread's namespace.
  static void setUp(const std::string& device, bool up) {
    ifreq request = requestFor(device);
    control(SIOCGIFFLAGS, request);
    if (up) {
      request.ifr_flags |= IFF_UP | IFF_RUNNING;
    } else {
      request.ifr_flags = static_cast<short>(request.ifr_flags & ~IFF_UP);
    }
    control(SIOCSIFFLAGS, request);
  }
  static void setAddress(unsigned long what, const std::string& device,
                         const std::string& address) {
    ifreq request = requestFor(device);
    sockaddr_in in{};
    in.sin_family = AF_INET;
    inet_pton(AF_INET, address.c_str(), &in.sin_addr);
    std::memcpy(&request.ifr_addr, &in, sizeof in);
    control(what, request);
  }

 private:
  static ifreq requestFor(const std::string& device) {
    ifreq request{};
    device.copy(request.ifr_name, IFNAMSIZ - 1);
    return request;
  }
  static void control(unsigned long what, ifreq& request) {
    const int socket = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const bool done = ioctl(socket, what, &request) == 0;
    close(socket);
    if (!done) skip("the set-up of a network device");
  }

  int file_ = -1;
};

class Wire {
 public:
  struct End {
    const Namespace& space;
    std::string address;
  };

  Wire(const std::string& device, const End& a, const End& b)
      : device_(device),
        spaces_{&a.space, &b.space},
        devices_{openDevice(a, b.address), openDevice(b, a.address)},
        thread_([this] { run(); }) {}
  ~Wire() {
    over_ = true;
    thread_.join();
    for (const int device : devices_) close(device);
  }
  Wire(const Wire&) = delete;
  Wire& operator=(const Wire&) = delete;

  /// Everything on it is lost, without a word.
  void cut(bool isCut) { cut_ = isCut; }
  /// As if the plug were pulled at both ends.
  void unplug(bool unplugged) {
    for (const Namespace* space : spaces_) {
      space->run([&] { Namespace::setUp(device_, !unplugged); });
    }
  }

 private:
  struct Packet {
    Clock::time_point due;
    std::string bytes;
  };

  int openDevice(const End& here, const std::string& there) const {
    int device = -1;
    here.space.run([&] {
      device = open("/dev/net/tun", O_RDWR | O_NONBLOCK | O_CLOEXEC);
      ifreq request{};
      request.ifr_flags = IFF_TUN | IFF_NO_PI;
      device_.copy(request.ifr_name, IFNAMSIZ - 1);
      if (device < 0 || ioctl(device, TUNSETIFF, &request) != 0) skip("a tun device");
      Namespace::setAddress(SIOCSIFADDR, device_, here.address);
      Namespace::setAddress(SIOCSIFDSTADDR, device_, there);
      Namespace::setUp(device_, true);
    });
    return device;
  }

  void run() {
    Random random = randomFor(1);
    while (!over_) {
      pollfd readable[] = {{devices_[0], POLLIN, 0}, {devices_[1], POLLIN, 0}};
      poll(readable, 2, 1);
      for (std::size_t i = 0; i < 2; ++i) {
        take(i, random);
        deliver(i);
      }
    }
  }
  void take(std::size_t end, Random& random) {
    char bytes[65536];
    for (ssize_t size = 0; (size = read(devices_[end], bytes, sizeof bytes)) > 0;) {
      if (cut_ || pick(random, kLossOneIn) == 0) continue;
      packets_[end].push_back({Clock::now() + kDelay, std::string(bytes, std::size_t(size))});
    }
  }
  // What cannot be written is lost.
  void deliver(std::size_t from) {
    std::deque<Packet>& packets = packets_[from];
    while (!packets.empty() && packets.front().due <= Clock::now()) {
      const std::string& bytes = packets.front().bytes;
      if (write(devices_[1 - from], bytes.data(), bytes.size()) < 0 && errno == EBADF) return;
      packets.pop_front();
    }
  }

  const std::string device_;
  const std::array<const Namespace*, 2> spaces_;
  const std::array<int, 2> devices_;
  std::atomic<bool> cut_{false}, over_{false};
  std::array<std::deque<Packet>, 2> packets_;  // of the thread; by the end that they come from
  std::thread thread_;
};

// Brokers in the middle, publisher at the one side, the others at the other side; with two
// namespaces both sides are one.
class System {
 public:
  explicit System(bool three) {
    const Namespace& right = three ? right_ : left_;
    wires_.push_back(std::make_unique<Wire>("wire0", Wire::End{left_, "10.78.0.1"},
                                            Wire::End{middle_, "10.78.0.2"}));
    if (three) {
      wires_.push_back(std::make_unique<Wire>("wire1", Wire::End{right_, "10.78.1.1"},
                                              Wire::End{middle_, "10.78.1.2"}));
    }
    const std::string seenLeft = "tcp://10.78.0.2:";
    const std::string seenRight = three ? "tcp://10.78.1.2:" : seenLeft;
    middle_.run([&] {
      broker_ = startPubsubBroker("tcp://*:9010", "tcp://*:9011", "tcp://*:9012");
      master_ = startMaster("tcp://*:9013");
    });
    left_.run([&] {
      publisher_ = startNode({"publish", seenLeft + "9010", "1", "2", "8", "200"});
    });
    right.run([&] {
      slave_ = startSlave(seenRight + "9013", "one");
      dispatcher_ =
          startNode({"dispatch", seenRight + "9011", seenRight + "9012", "8", "32", "0", "0"});
      callers_ = startNode({"call", seenRight + "9013", "500", "2", "master"});
      callersOfSlave_ = startNode({"call", seenRight + "9013", "500", "2", "one"});
    });
    recovery_ = std::make_unique<Recovery>(
        *dispatcher_, std::vector<Node*>{callers_.get(), callersOfSlave_.get()});
  }

  void breakFor(milliseconds length, bool unplug, std::size_t which) {
    Wire& wire = *wires_[which % wires_.size()];
    unplug ? wire.unplug(true) : wire.cut(true);
    std::this_thread::sleep_for(length);
    unplug ? wire.unplug(false) : wire.cut(false);
  }
  Recovery& recovery() { return *recovery_; }

 private:
  const Namespace left_, middle_, right_;
  std::vector<std::unique_ptr<Wire>> wires_;
  NodeHandle broker_, master_, slave_, dispatcher_, publisher_, callers_, callersOfSlave_;
  std::unique_ptr<Recovery> recovery_;
};

void run(bool three) {
  const Torture& torture = Torture::instance();
  const std::uint64_t longest = torture.number("--longest", 8000);
  Random random = randomFor(three ? 3 : 2);
  System system(three);
  std::uint64_t cuts = 0;
  double worst = 0;
  while (cuts < torture.count() && !torture.timeIsUp(three ? 2 : 1, 2)) {
    const milliseconds length(longest / 10 + pick(random, longest));
    system.breakFor(length, pick(random, 3) == 0, pick(random, 2));
    const std::int64_t took = system.recovery().awaitProgress();
    worst = std::max(worst, static_cast<double>(took) / static_cast<double>(length.count()));
    ++cuts;
  }
  row("F10",
      std::string(three ? "three" : "two") +
          " network namespaces, 20 ms each way, 1 % loss, cuts of up to " +
          oneDecimal(static_cast<double>(longest) * 1.1 / 1000) + " s",
      grouped(cuts) + " cuts",
      system.recovery().found() + "; goes on by itself after " + system.recovery().times() + " (" +
          oneDecimal(worst) + " times the cut)");
}

}  // namespace
}  // namespace tessel::test

int main(int argc, char** argv) {
  using namespace tessel::test;
  Torture::instance().begin(argc, argv, 20, 3600);
  becomeRootOfANamespace();
  const Watchdog watchdog("the wires", Torture::instance().length() + std::chrono::seconds(400));
  for (const bool three : {false, true}) run(three);
  return 0;
}

#include "demo.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include "child.h"
#include "screen.h"

namespace vitals {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr milliseconds kLook{10};
constexpr std::chrono::seconds kStartPatience{20};
constexpr std::chrono::seconds kEndPatience{10};
constexpr milliseconds kHeadStart{2000};  // of the sensor: the viewer is to come late
constexpr int kInterrupted = 130;         // the customary status after Ctrl-C

// Asked for all at once, so that they differ.
Ports freePorts() {
  std::array<int, 4> sockets{};
  std::array<int, 4> ports{};
  for (std::size_t i = 0; i < sockets.size(); ++i) {
    sockets[i] = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    auto* any = reinterpret_cast<sockaddr*>(&address);
    socklen_t size = sizeof address;
    if (bind(sockets[i], any, size) != 0 || getsockname(sockets[i], any, &size) != 0) {
      throw std::system_error(errno, std::generic_category(), "no free port");
    }
    ports[i] = ntohs(address.sin_port);
  }
  for (const int used : sockets) close(used);
  return {ports[0], ports[1], ports[2], ports[3]};
}

class Demo {
 public:
  Demo(std::optional<Ports> ports, StopSignals& stop) : wantedPorts_(ports), stop_(stop) {}

  int run(std::optional<milliseconds> duration) {
    const auto begin = Clock::now();
    const milliseconds headStart = duration ? std::min(kHeadStart, *duration / 2) : kHeadStart;
    const auto timeIsUp = [&] { return duration && Clock::now() - begin >= *duration; };
    const bool ready =
        startHub() && start(sensor_, "sensor") && pause(headStart) && start(viewer_, "viewer");
    while (ready && allRun() && !timeIsUp() && !stop_.waitFor(kLook)) {
    }
    return end(ready);
  }

 private:
  bool startHub() {
    constexpr int kTries = 3;  // somebody else may take a port that was free a moment ago
    for (int i = 0; i < kTries; ++i) {
      const Ports ports = wantedPorts_ ? *wantedPorts_ : freePorts();
      arguments_ = {"--ports", std::to_string(ports.pull) + "," + std::to_string(ports.updates) +
                                   "," + std::to_string(ports.cache) + "," +
                                   std::to_string(ports.calls)};
      if (start(hub_, "hub")) return true;
      if (wantedPorts_ || hub_->running()) return false;
    }
    return false;
  }

  // Waits until it says that it is ready.
  bool start(std::unique_ptr<Child>& child, const char* role) {
    child = std::make_unique<Child>(role, arguments_);
    const auto deadline = Clock::now() + kStartPatience;
    while (child->running() && Clock::now() < deadline && !stop_.waitFor(kLook)) {
      if (const auto line = child->ready()) {
        if (child != viewer_) say(*child, *line);  // whose picture this would disturb
        return true;
      }
    }
    return false;
  }

  static void say(const Child& child, const std::string& what) {
    std::printf("%-7s process %d %s\n", child.role().c_str(), child.pid(), what.c_str());
    std::fflush(stdout);
  }

  bool pause(milliseconds time) {
    std::printf("viewer  joins in %.1f s\n", static_cast<double>(time.count()) / 1000);
    std::fflush(stdout);
    const auto end = Clock::now() + time;
    while (allRun() && Clock::now() < end) {
      if (stop_.waitFor(kLook)) return false;
    }
    return allRun();
  }

  std::vector<Child*> children() const {
    std::vector<Child*> all;
    for (Child* child : {sensor_.get(), viewer_.get(), hub_.get()}) {
      if (child != nullptr) all.push_back(child);
    }
    return all;
  }

  bool allRun() const {
    const auto all = children();
    return std::all_of(all.begin(), all.end(), [](Child* child) { return child->running(); });
  }

  // The sensor first, so that it can withdraw what it has published; the viewer hears of that and
  // ends by itself; the hub is needed up to the last.
  int end(bool ready) {
    const bool interrupted = stop_.waitFor(milliseconds(0));
    const bool complete = viewer_ != nullptr;
    bool good = ready || (complete && interrupted);
    for (Child* child : children()) {
      const bool endsByItself = child == viewer_.get() && sensor_->succeeded();
      if (!endsByItself) child->ask();
      if (!ended(*child)) child->ask();
      if (!ended(*child)) child->kill();
      ended(*child);
      good = report(*child) && good;
    }
    if (!complete && interrupted) return kInterrupted;
    return good ? 0 : 1;
  }

  static bool ended(Child& child) {
    const auto deadline = Clock::now() + kEndPatience;
    while (child.running()) {
      if (Clock::now() >= deadline) return false;
      usleep(static_cast<useconds_t>(std::chrono::microseconds(kLook).count()));
    }
    return true;
  }

  bool report(const Child& child) const {
    if (child.succeeded()) return true;
    if (&child == viewer_.get() && isLiveTerminal()) Screen::restore();
    std::fprintf(stderr, "vitals: the %s %s\n", child.role().c_str(), child.fate().c_str());
    return false;
  }

  const std::optional<Ports> wantedPorts_;
  StopSignals& stop_;
  std::vector<std::string> arguments_;  // of every role
  std::unique_ptr<Child> hub_;
  std::unique_ptr<Child> sensor_;
  std::unique_ptr<Child> viewer_;
};

}  // namespace

int runDemo(const Options& options, StopSignals& stop) {
  std::signal(SIGCHLD, SIG_DFL);  // ignored, it would hide how a child ended
  std::signal(SIGPIPE, SIG_IGN);  // the viewer dies of it, and then the others end in order
  return Demo(options.ports, stop).run(options.duration);
}

}  // namespace vitals

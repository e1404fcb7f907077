// Runs the demonstration as a user would, and does to its processes what users do.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using testing::Each;
using testing::ElementsAre;
using testing::Gt;
using testing::HasSubstr;

constexpr std::chrono::seconds kPatience{60};

// The demonstration in a process group of its own.
class RunningDemo {
 public:
  explicit RunningDemo(std::vector<std::string> arguments) {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) throw std::runtime_error("pipe");
    arguments.insert(arguments.begin(), "vitals");
    std::vector<char*> argv;
    for (std::string& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    // Orphans come to this process, not to one that may never look after them.
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    pid_ = fork();
    if (pid_ == 0) {
      setpgid(0, 0);
      dup2(ends[1], STDOUT_FILENO);
      dup2(ends[1], STDERR_FILENO);
      execv(VITALS_PROGRAM, argv.data());
      _exit(127);
    }
    setpgid(pid_, pid_);  // whoever of the two comes first
    close(ends[1]);
    output_ = ends[0];
  }
  ~RunningDemo() {
    kill(-pid_, SIGKILL);
    if (!waited_) waitpid(pid_, nullptr, 0);
    if (output_ >= 0) close(output_);
  }

  pid_t pid() const { return pid_; }
  void closeOutput() { close(std::exchange(output_, -1)); }
  const std::string& text() const { return text_; }

  /// Reads on until the output has the text; false if it ends before.
  bool readUntil(const std::string& wanted) {
    std::array<char, 4096> bytes{};
    while (text_.find(wanted) == std::string::npos) {
      const ssize_t count = read(output_, bytes.data(), bytes.size());
      if (count <= 0) return false;
      text_.append(bytes.data(), static_cast<std::size_t>(count));
    }
    return true;
  }

  /// Reads on until the viewer shows what the sensor has published.
  bool readUntilJoined() { return readUntil("viewer  joins in") && readUntil("load 1min "); }

  /// The process that runs the role, once it has said that it is ready.
  pid_t pidOf(const std::string& role) {
    std::string label = role;
    label.resize(8, ' ');
    label += "process ";
    if (!readUntil(label) || !readUntil("\n")) return -1;
    return std::stoi(text_.substr(text_.find(label) + label.size()));
  }

  /// The numbers in the summary's line of that name.
  std::vector<double> numbersOf(const std::string& name) const {
    const std::size_t begin = text_.find("\n  " + name);
    if (begin == std::string::npos) return {};
    std::istringstream words(text_.substr(begin + 1, text_.find('\n', begin + 1) - begin - 1));
    std::vector<double> numbers;
    for (std::string word; words >> word;) {
      word.erase(std::remove(word.begin(), word.end(), ','), word.end());
      if (std::isdigit(static_cast<unsigned char>(word[0])) == 0) continue;
      numbers.push_back(std::stod(word));
    }
    return numbers;
  }

  /// Reads to the end, which comes when the last process that writes has gone; then the exit
  /// status, or 256 and the signal.
  int wait() {
    readUntil("this is never said");
    int status = 0;
    waitpid(pid_, &status, 0);
    waited_ = true;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 256 + WTERMSIG(status);
  }

  /// Whether nobody is left in its process group.
  bool allGone() const {
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (kill(-pid_, 0) == 0) {
      waitpid(-pid_, nullptr, WNOHANG);  // see the constructor
      if (std::chrono::steady_clock::now() > deadline) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return errno == ESRCH;
  }

 private:
  pid_t pid_ = -1;
  int output_ = -1;
  bool waited_ = false;
  std::string text_;
};

TEST(Demo, EndsByItselfWithASaneSummary) {
  RunningDemo demo({"--seconds", "3"});
  ASSERT_EQ(demo.wait(), 0) << demo.text();
  EXPECT_TRUE(demo.allGone());
  SCOPED_TRACE(demo.text());

  const auto published = demo.numbersOf("published");  // all, passed on, suppressed
  ASSERT_EQ(published.size(), 3U);
  EXPECT_THAT(published, Each(Gt(0)));
  EXPECT_EQ(published[0], published[1] + published[2]);

  const auto delivered = demo.numbersOf("delivered");  // all, by kind of subscriber
  ASSERT_EQ(delivered.size(), 5U);
  EXPECT_THAT(delivered, Each(Gt(0)));
  EXPECT_EQ(delivered[0], delivered[1] + delivered[2] + delivered[3] + delivered[4]);

  const auto joined = demo.numbersOf("late joiner");  // received, expected, time
  ASSERT_EQ(joined.size(), 3U);
  EXPECT_THAT(joined, Each(Gt(0)));
  EXPECT_EQ(joined[0], joined[1]);

  const auto latency = demo.numbersOf("latency");  // p50, p99, values
  ASSERT_EQ(latency.size(), 3U);
  EXPECT_THAT(latency, Each(Gt(0)));

  const auto called = demo.numbersOf("called");  // right answers
  ASSERT_EQ(called.size(), 1U);
  EXPECT_GT(called[0], 1000);

  const auto roundTrip = demo.numbersOf("round trip");  // p50, p99, calls
  ASSERT_EQ(roundTrip.size(), 3U);
  EXPECT_THAT(roundTrip, Each(Gt(0)));
  EXPECT_EQ(roundTrip[2], 1000);

  EXPECT_THAT(demo.numbersOf("errors"), ElementsAre(4));
  for (const char* error :
       {"rpc_broker_error   service not found: processes - the moon\n",
        "rpc_timeout        RPC timeout\n", "rpc_service_error  no such method: reboot\n",
        "rpc_custom_error   RPC custom error: no process 4194305\n"}) {
    EXPECT_THAT(demo.text(), HasSubstr(error));
  }

  const auto withdrawn = demo.numbersOf("withdrawn");  // heard of, expected, counted by the hub
  ASSERT_EQ(withdrawn.size(), 3U);
  EXPECT_GE(withdrawn[1], joined[1]);
  EXPECT_EQ(withdrawn[0], withdrawn[1]);
  EXPECT_GT(withdrawn[2], withdrawn[1]);
}

TEST(Demo, EndsInOrderOnCtrlC) {
  RunningDemo demo({"--watch"});
  ASSERT_TRUE(demo.readUntilJoined()) << demo.text();
  ASSERT_TRUE(demo.readUntil("busiest ")) << demo.text();  // an answer has come

  ASSERT_EQ(kill(-demo.pid(), SIGINT), 0);  // the whole group, as a terminal does
  EXPECT_EQ(demo.wait(), 0) << demo.text();
  EXPECT_EQ(demo.numbersOf("withdrawn").size(), 3U) << demo.text();
  EXPECT_TRUE(demo.allGone());
}

TEST(Demo, EndsOnCtrlCBeforeTheViewerHasJoined) {
  RunningDemo demo({"--watch"});
  ASSERT_GT(demo.pidOf("hub"), 0) << demo.text();
  kill(-demo.pid(), SIGINT);
  EXPECT_EQ(demo.wait(), 130) << demo.text();
  EXPECT_TRUE(demo.allGone());
}

TEST(Demo, FailsWhenTheSensorIsKilled) {
  RunningDemo demo({"--watch"});
  const pid_t sensor = demo.pidOf("sensor");
  ASSERT_GT(sensor, 0) << demo.text();
  ASSERT_TRUE(demo.readUntilJoined()) << demo.text();
  kill(sensor, SIGKILL);
  EXPECT_EQ(demo.wait(), 1) << demo.text();
  EXPECT_THAT(demo.text(), HasSubstr("the sensor was ended: Killed"));
  EXPECT_TRUE(demo.allGone());
}

TEST(Demo, FailsWhenTheHubIsKilled) {
  RunningDemo demo({"--watch"});
  const pid_t hub = demo.pidOf("hub");
  ASSERT_TRUE(demo.readUntilJoined()) << demo.text();
  kill(hub, SIGKILL);
  EXPECT_EQ(demo.wait(), 1) << demo.text();
  EXPECT_THAT(demo.text(), HasSubstr("the hub was ended: Killed"));
  EXPECT_TRUE(demo.allGone());
}

TEST(Demo, EndsWhenNobodyReadsItsOutput) {
  RunningDemo demo({"--watch"});
  ASSERT_GT(demo.pidOf("hub"), 0) << demo.text();
  demo.closeOutput();
  EXPECT_EQ(demo.wait(), 1);
  EXPECT_TRUE(demo.allGone());
}

TEST(Demo, LeavesNobodyBehindWhenItIsKilledItself) {
  RunningDemo demo({"--watch"});
  ASSERT_TRUE(demo.readUntilJoined()) << demo.text();
  kill(demo.pid(), SIGKILL);
  EXPECT_EQ(demo.wait(), 256 + SIGKILL) << demo.text();
  EXPECT_TRUE(demo.allGone());
}

TEST(Demo, RefusesWhatItDoesNotKnow) {
  for (const std::vector<std::string>& arguments :
       std::vector<std::vector<std::string>>{{"--seconds"},
                                             {"--seconds", "0"},
                                             {"--seconds", "1x"},
                                             {"--ports", "1,2"},
                                             {"--ports", "1,2,3"},
                                             {"--ports", "1,2,3,70000"},
                                             {"hubs"},
                                             {"viewer", "--what"}}) {
    RunningDemo demo(arguments);
    EXPECT_EQ(demo.wait(), 2) << arguments[0] << demo.text();
  }
  RunningDemo help({"sensor", "--help"});
  EXPECT_EQ(help.wait(), 0);
  EXPECT_THAT(help.text(), HasSubstr("--ports P,U,C,A"));
}

}  // namespace

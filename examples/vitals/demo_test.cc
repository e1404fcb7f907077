// Runs the demonstration as a user would, and does to its processes what users do.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <regex>
#include <string>
#include <thread>
#include <vector>

namespace {

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
    close(output_);
  }

  pid_t pid() const { return pid_; }
  const std::string& text() const { return text_; }

  /// Reads on until the output matches; the match's groups, or none at the output's end.
  std::smatch readUntil(const std::string& pattern) {
    const std::regex wanted(pattern);
    std::smatch match;
    std::array<char, 4096> bytes{};
    while (!std::regex_search(text_, match, wanted)) {
      const ssize_t count = read(output_, bytes.data(), bytes.size());
      if (count <= 0) return {};
      text_.append(bytes.data(), static_cast<std::size_t>(count));
    }
    return match;
  }

  pid_t pidOf(const std::string& role) {
    const std::smatch match = readUntil(role + " +process (\\d+)[^\\n]*\\n");
    return match.empty() ? -1 : std::stoi(match[1]);
  }

  /// Reads to the end, which comes when the last process that writes has gone; then the exit
  /// status, or 256 and the signal.
  int wait() {
    readUntil("^this is never said$");
    int status = 0;
    waitpid(pid_, &status, 0);
    waited_ = true;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 256 + WTERMSIG(status);
  }

  /// Whether nobody is left in its process group.
  bool allGone() const {
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (kill(-pid_, 0) == 0) {
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

long number(const std::string& text) {
  std::string digits;
  for (const char c : text) {
    if (c != ',') digits += c;
  }
  return std::stol(digits);
}

TEST(Demo, EndsByItselfWithASaneSummary) {
  RunningDemo demo({"--seconds", "3"});
  ASSERT_EQ(demo.wait(), 0) << demo.text();
  EXPECT_TRUE(demo.allGone());
  SCOPED_TRACE(demo.text());

  std::smatch match = demo.readUntil(
      "published +([\\d,]+) values: ([\\d,]+) passed on, ([\\d,]+) unchanged and suppressed\n");
  ASSERT_FALSE(match.empty());
  EXPECT_GT(number(match[1]), 0);
  EXPECT_GT(number(match[3]), 0);
  EXPECT_EQ(number(match[1]), number(match[2]) + number(match[3]));

  match = demo.readUntil(
      "delivered +([\\d,]+) values: AllValues ([\\d,]+), prefix ([\\d,]+), NewValues ([\\d,]+), "
      "Once 1\n");
  ASSERT_FALSE(match.empty());
  for (const std::size_t group : std::vector<std::size_t>{1, 2, 3, 4})
    EXPECT_GT(number(match[group]), 0);

  match = demo.readUntil("late joiner +([\\d,]+) of ([\\d,]+) cached values at once, in ");
  ASSERT_FALSE(match.empty());
  EXPECT_GT(number(match[1]), 0);
  EXPECT_EQ(number(match[1]), number(match[2]));
  const long rows = number(match[2]);

  match =
      demo.readUntil("latency +p50 [\\d.]+ (µs|ms), p99 [\\d.]+ (µs|ms) [^\\n]* ([\\d,]+) values");
  ASSERT_FALSE(match.empty());
  EXPECT_GT(number(match[3]), 0);

  match = demo.readUntil("withdrawn +([\\d,]+) of ([\\d,]+) values");
  ASSERT_FALSE(match.empty());
  EXPECT_GE(number(match[2]), rows);
  EXPECT_EQ(number(match[1]), number(match[2]));
}

TEST(Demo, EndsInOrderOnCtrlC) {
  RunningDemo demo({"--watch"});
  ASSERT_FALSE(demo.readUntil("cpu all|memory used|load 1min").empty()) << demo.text();
  ASSERT_EQ(kill(-demo.pid(), SIGINT), 0);  // the whole group, as a terminal does
  EXPECT_EQ(demo.wait(), 0) << demo.text();
  EXPECT_FALSE(demo.readUntil("withdrawn +[\\d,]+ of [\\d,]+ values").empty()) << demo.text();
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
  ASSERT_FALSE(demo.readUntil("cpu all|memory used|load 1min").empty()) << demo.text();
  kill(sensor, SIGKILL);
  EXPECT_EQ(demo.wait(), 1) << demo.text();
  EXPECT_THAT(demo.text(), HasSubstr("the sensor was ended: Killed"));
  EXPECT_TRUE(demo.allGone());
}

TEST(Demo, FailsWhenTheHubIsKilled) {
  RunningDemo demo({"--watch"});
  const pid_t hub = demo.pidOf("hub");
  ASSERT_FALSE(demo.readUntil("cpu all|memory used|load 1min").empty()) << demo.text();
  kill(hub, SIGKILL);
  EXPECT_EQ(demo.wait(), 1) << demo.text();
  EXPECT_THAT(demo.text(), HasSubstr("the hub was ended: Killed"));
  EXPECT_TRUE(demo.allGone());
}

TEST(Demo, LeavesNobodyBehindWhenItIsKilledItself) {
  RunningDemo demo({"--watch"});
  ASSERT_FALSE(demo.readUntil("cpu all|memory used|load 1min").empty()) << demo.text();
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
                                             {"--ports", "1,2,70000"},
                                             {"hubs"},
                                             {"viewer", "--what"}}) {
    RunningDemo demo(arguments);
    EXPECT_EQ(demo.wait(), 2) << arguments[0] << demo.text();
  }
  RunningDemo help({"sensor", "--help"});
  EXPECT_EQ(help.wait(), 0);
  EXPECT_THAT(help.text(), HasSubstr("--ports P,U,C"));
}

}  // namespace

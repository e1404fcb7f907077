#ifndef TESSEL_TESTS_SUPPORT_CHILD_PROCESS_H
#define TESSEL_TESTS_SUPPORT_CHILD_PROCESS_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <initializer_list>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/deadline.h"

namespace tessel::test {

/// A program that the test starts, listens to and ends. It is killed when the scope ends.
class ChildProcess {
 public:
  ChildProcess(const std::string& program, std::initializer_list<std::string> arguments) {
    std::vector<std::string> words(arguments);
    words.insert(words.begin(), program);
    std::vector<char*> argv;
    for (std::string& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    int toChild[2];
    int fromChild[2];
    if (pipe2(toChild, O_CLOEXEC) != 0 || pipe2(fromChild, O_CLOEXEC) != 0) {
      throw std::runtime_error("no pipe");
    }
    pid_ = fork();
    if (pid_ == 0) {
      dup2(toChild[0], STDIN_FILENO);
      dup2(fromChild[1], STDOUT_FILENO);
      execv(argv[0], argv.data());
      _exit(127);
    }
    close(toChild[0]);
    close(fromChild[1]);
    input_ = toChild[1];
    output_ = fromChild[0];
  }
  ~ChildProcess() {
    if (!ended_) {
      kill();
      wait();
    }
    closeInput();
    close(output_);
  }
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  /// The next line that it prints; what there is of it when it ends or says nothing for too long.
  std::string line() {
    std::string text;
    char next = 0;
    pollfd readable = {output_, POLLIN, 0};
    while (poll(&readable, 1, static_cast<int>(std::chrono::milliseconds(kPatience).count())) > 0 &&
           read(output_, &next, 1) == 1 && next != '\n') {
      text.push_back(next);
    }
    return text;
  }
  /// Writes to its input; false when it no longer reads.
  bool send(const std::string& text) {
    std::signal(SIGPIPE, SIG_IGN);
    return write(input_, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  }
  void closeInput() {
    if (input_ >= 0) close(input_);
    input_ = -1;
  }
  pid_t pid() const { return pid_; }
  void kill() { signal(SIGKILL); }
  void signal(int number) { ::kill(pid_, number); }
  /// Its status as waitpid() gives it; killed first if it does not end within the patience.
  int wait() {
    const bool inTime = eventually([&] {
      ended_ = waitpid(pid_, &status_, WNOHANG) == pid_;
      return ended_;
    });
    if (!inTime) {
      ADD_FAILURE() << "the process does not end";
      kill();
      waitpid(pid_, &status_, 0);
      ended_ = true;
    }
    return status_;
  }

 private:
  pid_t pid_ = -1;
  int input_ = -1;
  int output_ = -1;
  int status_ = 0;
  bool ended_ = false;
};

}  // namespace tessel::test

#endif

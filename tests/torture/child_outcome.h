#ifndef TESSEL_TESTS_TORTURE_CHILD_OUTCOME_H
#define TESSEL_TESTS_TORTURE_CHILD_OUTCOME_H

#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <string>

#include "torture.h"

namespace tessel::test {

/// How a process has ended, and what it wrote to its standard error.
struct ChildOutcome {
  int status = 0;
  std::string text;

  bool exited(int with) const { return WIFEXITED(status) && WEXITSTATUS(status) == with; }
  /// As a process does that an exception ends.
  bool abortedWith(const std::string& what) const {
    return WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT &&
           text.find(what) != std::string::npos;
  }
};

/// Runs `call` in a process of its own, which ends with its answer. The caller must not have used
/// ZeroMQ yet, nor have other threads. A process that hangs is ended by a signal.
template <typename Call>
ChildOutcome inChild(const Call& call) {
  int output[2];
  require(pipe(output) == 0, "no pipe");
  const pid_t child = fork();
  if (child == 0) {
    alarm(100);
    dup2(output[1], STDERR_FILENO);
    close(output[0]);
    close(output[1]);
    std::_Exit(call());
  }
  close(output[1]);
  ChildOutcome outcome;
  char part[512];
  for (ssize_t size = 0; (size = read(output[0], part, sizeof part)) > 0;) {
    outcome.text.append(part, static_cast<std::size_t>(size));
  }
  close(output[0]);
  require(waitpid(child, &outcome.status, 0) == child, "a process is lost");
  return outcome;
}

}  // namespace tessel::test

#endif

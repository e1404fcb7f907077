#ifndef VITALS_CHILD_H
#define VITALS_CHILD_H

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace vitals {

/// A process that runs one role of this program. It never outlives its owner: not the object, which
/// ends it, and not this process, whose death the system tells it.
class Child {
 public:
  Child(const std::string& role, std::vector<std::string> arguments);
  ~Child();
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  const std::string& role() const { return role_; }
  pid_t pid() const { return pid_; }

  /// What it has said with sayReady(), once it has.
  std::optional<std::string> ready();
  bool running();
  /// Asks it to end.
  void ask();
  /// Ends it without asking.
  void kill();
  /// Whether it ended with status 0. Call it after running() said no.
  bool succeeded() const { return status_ == 0; }
  /// How it ended, for the user.
  std::string fate() const;

 private:
  const std::string role_;
  pid_t pid_ = -1;
  int readyPipe_ = -1;
  std::string readyText_;
  std::optional<int> status_;  // as waitpid() says it; none while it runs
};

}  // namespace vitals

#endif

#ifndef TESSEL_TESTS_TORTURE_FAULTS_H
#define TESSEL_TESTS_TORTURE_FAULTS_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>

namespace tessel::test {

/// What can be made to fail: the functions of ZeroMQ that the library calls, its allocations, and
/// the start of a thread. ZeroMQ's own allocations and threads are left alone.
enum FaultKind : int {
  kContext,
  kSocket,
  kClose,
  kSetOption,
  kGetOption,
  kBind,
  kUnbind,
  kConnect,
  kPoll,
  kInitSize,
  kInitData,
  kCopy,
  kSend,
  kReceive,
  kAllocation,
  kThread,
  kFaultKinds,
};

/// The `call`-th call of a kind, from 0, that fails with an error; or the first one from a place in
/// the program.
struct Fault {
  FaultKind kind = kFaultKinds;
  int error = 0;
  long call = -1;
  void* site = nullptr;
};

std::string nameOf(const Fault& fault);
/// Whence the last fault was called, as a command that shows it; and where a place is.
std::string whereFired();
std::string whereIs(void* site);
/// What the exception of it says.
std::string textOf(const Fault& fault);

/// What the processes of a run have in common: each counts into it, and the first one reads it.
struct SharedCounts {
  static constexpr std::size_t kMaxSites = 512;
  struct Site {
    std::atomic<void*> address{nullptr};  // where the library calls ZeroMQ
    std::atomic<FaultKind> kind{kFaultKinds};
    std::atomic<bool> failed{false};
  };

  std::atomic<long> calls[kFaultKinds];
  std::atomic<bool> fired;
  std::atomic<bool> onApplicationThread;
  // Where it was: offsets in the program, for addr2line.
  static constexpr int kMaxDepth = 40;
  std::uintptr_t stack[kMaxDepth];
  Site sites[kMaxSites];

  // What a process has without a fault.
  std::atomic<int> usualDescriptors;
  std::atomic<long> usualBlocks;
};
SharedCounts& sharedCounts();

/// From now on the calls count, and that one fails.
void arm(const Fault& fault);
void disarm();
/// How many blocks there are that neither ZeroMQ nor the spared have allocated.
long blocksOut();

/// Marks what a thread does in its life as the application's: the exceptions go to it.
void thisIsAnApplicationThread();

/// In its scope the calling thread is not the application's: a destructor, which must not throw.
class EndsTheProcess {
 public:
  EndsTheProcess();
  ~EndsTheProcess();
  EndsTheProcess(const EndsTheProcess&) = delete;
  EndsTheProcess& operator=(const EndsTheProcess&) = delete;
};

/// In its scope nothing fails: the code of the test.
class Spared {
 public:
  Spared();
  ~Spared();
  Spared(const Spared&) = delete;
  Spared& operator=(const Spared&) = delete;
};

}  // namespace tessel::test

#endif

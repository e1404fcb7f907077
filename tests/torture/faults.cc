// Stands in for the functions of ZeroMQ, for the allocation and for pthread_create() of a program
// that links it.

#include "faults.h"

#include <execinfo.h>
#include <pthread.h>
#include <sys/mman.h>
#include <zmq.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <system_error>

#include "support/stand_in.h"

namespace tessel::test {
namespace {

Fault armedFault;
std::atomic<bool> armed{false};
std::atomic<long> blocks{0};

thread_local int spared = 0;
thread_local int insideZmq = 0;
thread_local bool ofZmq = false;          // a thread that ZeroMQ has started
thread_local bool ofApplication = false;  // its exceptions can be caught

SharedCounts::Site* siteAt(void* address) {
  for (SharedCounts::Site& site : sharedCounts().sites) {
    void* known = site.address;
    if (known == nullptr && site.address.compare_exchange_strong(known, address)) return &site;
    if (known == address) return &site;
  }
  return nullptr;
}

// As addr2line wants it; 0 outside the program.
std::uintptr_t offsetOf(void* address) {
  Dl_info program{};
  Dl_info at{};
  dladdr(reinterpret_cast<void*>(&offsetOf), &program);
  if (dladdr(address, &at) == 0 || at.dli_fbase != program.dli_fbase) return 0;
  return reinterpret_cast<std::uintptr_t>(address) -
         reinterpret_cast<std::uintptr_t>(program.dli_fbase);
}

void noteStack() {
  void* stack[SharedCounts::kMaxDepth] = {};
  const int depth = backtrace(stack, SharedCounts::kMaxDepth);
  for (int i = 0; i < SharedCounts::kMaxDepth; ++i) {
    sharedCounts().stack[i] = i < depth ? offsetOf(stack[i]) : 0;
  }
}

std::string asText(std::uintptr_t offset) {
  char text[32];
  std::snprintf(text, sizeof text, " %#zx", static_cast<std::size_t>(offset));
  return text;
}

bool isArmed(FaultKind kind, long call, void* site) {
  if (armedFault.site == nullptr) return kind == armedFault.kind && call == armedFault.call;
  return site == armedFault.site && !sharedCounts().fired;
}

constexpr int kAnyError = 0;

bool fails(FaultKind kind, void* site, int possible = kAnyError) {
  if (!armed || spared > 0 || insideZmq > 0 || ofZmq) return false;
  // What a program comes to by the fault only is not a place for one of its own.
  const bool counts = site != nullptr && !sharedCounts().fired;
  SharedCounts::Site* const at = counts ? siteAt(site) : nullptr;
  const long call = sharedCounts().calls[kind].fetch_add(1);
  if (at != nullptr) at->kind = kind;
  if (!isArmed(kind, call, site)) return false;
  if (possible != kAnyError && possible != armedFault.error) return false;
  if (at != nullptr) at->failed = true;
  sharedCounts().onApplicationThread = ofApplication;
  sharedCounts().fired = true;
  {
    const Spared tracing;  // the first use of backtrace() allocates
    noteStack();
  }
  errno = armedFault.error;
  return true;
}

class InsideZmq {
 public:
  InsideZmq() { ++insideZmq; }
  ~InsideZmq() { --insideZmq; }
  InsideZmq(const InsideZmq&) = delete;
  InsideZmq& operator=(const InsideZmq&) = delete;
};

template <typename Function, typename... Arguments>
auto callReal(const char* name, Function standIn, Arguments... arguments) {
  const InsideZmq inside;
  return real(name, standIn)(arguments...);
}

// In front of every block: whether it counts. As large as the strictest alignment.
struct alignas(std::max_align_t) BlockHead {
  bool counts;
};

struct Start {
  void* (*run)(void*);
  void* argument;
  bool ofZmq;
};

void* runThread(void* started) {
  Start* const start = static_cast<Start*>(started);
  const Start copy = *start;
  std::free(start);
  ofZmq = copy.ofZmq;
  return copy.run(copy.argument);
}

}  // namespace

SharedCounts& sharedCounts() {
  static SharedCounts* const counts = static_cast<SharedCounts*>(mmap(
      nullptr, sizeof(SharedCounts), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  return *counts;
}

void arm(const Fault& fault) {
  armedFault = fault;
  sharedCounts().fired = false;
  for (std::atomic<long>& calls : sharedCounts().calls) calls = 0;
  armed = true;
}
void disarm() { armed = false; }
long blocksOut() { return blocks; }
void thisIsAnApplicationThread() { ofApplication = true; }
EndsTheProcess::EndsTheProcess() { ofApplication = false; }
EndsTheProcess::~EndsTheProcess() { ofApplication = true; }
Spared::Spared() { ++spared; }
Spared::~Spared() { --spared; }

std::string nameOf(const Fault& fault) {
  static const char* const names[kFaultKinds] = {
      "zmq_ctx_new",    "zmq_socket",        "zmq_close",         "zmq_setsockopt",
      "zmq_getsockopt", "zmq_bind",          "zmq_unbind",        "zmq_connect",
      "zmq_poll",       "zmq_msg_init_size", "zmq_msg_init_data", "zmq_msg_copy",
      "zmq_msg_send",   "zmq_msg_recv",      "an allocation",     "pthread_create"};
  const std::string call =
      fault.site == nullptr ? "call " + std::to_string(fault.call) : "the first call at a place";
  return call + " of " + names[fault.kind] + " (" + textOf(fault) + ")";
}

std::string whereFired() {
  std::string command = "addr2line -Cfpe PROGRAM";
  for (const std::uintptr_t offset : sharedCounts().stack) {
    if (offset != 0) command += asText(offset);
  }
  return command;
}

std::string whereIs(void* site) { return "addr2line -Cfpie PROGRAM" + asText(offsetOf(site)); }

std::string textOf(const Fault& fault) {
  if (fault.kind == kAllocation) return std::bad_alloc().what();
  if (fault.kind == kThread) return std::generic_category().message(fault.error);
  return zmq_strerror(fault.error);
}

}  // namespace tessel::test

using namespace tessel::test;  // NOLINT(google-build-using-namespace): what follows is C

#define CALL_SITE __builtin_return_address(0)

extern "C" {

void* zmq_ctx_new() {
  if (fails(kContext, CALL_SITE)) return nullptr;
  return callReal("zmq_ctx_new", &zmq_ctx_new);
}
void* zmq_socket(void* context, int type) {
  if (fails(kSocket, CALL_SITE)) return nullptr;
  return callReal("zmq_socket", &zmq_socket, context, type);
}
// Closes all the same: nothing could be done with a socket that cannot be closed.
int zmq_close(void* socket) {
  const bool failing = fails(kClose, CALL_SITE);
  const int result = callReal("zmq_close", &zmq_close, socket);
  if (failing) errno = ENOTSOCK;
  return failing ? -1 : result;
}
int zmq_setsockopt(void* socket, int option, const void* value, size_t size) {
  if (fails(kSetOption, CALL_SITE)) return -1;
  return callReal("zmq_setsockopt", &zmq_setsockopt, socket, option, value, size);
}
int zmq_getsockopt(void* socket, int option, void* value, size_t* size) {
  if (fails(kGetOption, CALL_SITE)) return -1;
  return callReal("zmq_getsockopt", &zmq_getsockopt, socket, option, value, size);
}
// ZeroMQ binds a name that nobody else knows unless a signal interrupts it.
int zmq_bind(void* socket, const char* endpoint) {
  constexpr char ownName[] = "inproc://tessel/waiting";
  const bool own = std::strncmp(endpoint, ownName, sizeof ownName - 1) == 0;
  if (fails(kBind, CALL_SITE, own ? EINTR : kAnyError)) return -1;
  return callReal("zmq_bind", &zmq_bind, socket, endpoint);
}
int zmq_unbind(void* socket, const char* endpoint) {
  if (fails(kUnbind, CALL_SITE)) return -1;
  return callReal("zmq_unbind", &zmq_unbind, socket, endpoint);
}
int zmq_connect(void* socket, const char* endpoint) {
  if (fails(kConnect, CALL_SITE)) return -1;
  return callReal("zmq_connect", &zmq_connect, socket, endpoint);
}
int zmq_poll(zmq_pollitem_t* items, int count, long timeout) {
  if (fails(kPoll, CALL_SITE)) return -1;
  return callReal("zmq_poll", &zmq_poll, items, count, timeout);
}
int zmq_msg_init_size(zmq_msg_t* message, size_t size) {
  if (fails(kInitSize, CALL_SITE)) return -1;
  return callReal("zmq_msg_init_size", &zmq_msg_init_size, message, size);
}
int zmq_msg_init_data(zmq_msg_t* message, void* data, size_t size, zmq_free_fn* release,
                      void* hint) {
  if (fails(kInitData, CALL_SITE)) return -1;
  return callReal("zmq_msg_init_data", &zmq_msg_init_data, message, data, size, release, hint);
}
int zmq_msg_copy(zmq_msg_t* target, zmq_msg_t* source) {
  if (fails(kCopy, CALL_SITE)) return -1;
  return callReal("zmq_msg_copy", &zmq_msg_copy, target, source);
}
int zmq_msg_send(zmq_msg_t* message, void* socket, int flags) {
  if (fails(kSend, CALL_SITE)) return -1;
  return callReal("zmq_msg_send", &zmq_msg_send, message, socket, flags);
}
int zmq_msg_recv(zmq_msg_t* message, void* socket, int flags) {
  if (fails(kReceive, CALL_SITE)) return -1;
  return callReal("zmq_msg_recv", &zmq_msg_recv, message, socket, flags);
}

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*run)(void*),
                   void* argument) noexcept {
  if (fails(kThread, nullptr)) return errno;
  static const auto create = real("pthread_create", &pthread_create);
  auto* const start = static_cast<Start*>(std::malloc(sizeof(Start)));
  *start = {run, argument, insideZmq > 0};
  return create(thread, attributes, runThread, start);
}

}  // extern "C"

// Not inlined, as g++ would take what it then sees, new with free(), for a mistake.
[[gnu::noinline]] void* operator new(std::size_t size) {
  if (fails(kAllocation, nullptr)) throw std::bad_alloc();
  void* const memory = std::malloc(sizeof(BlockHead) + size);
  if (memory == nullptr) throw std::bad_alloc();
  const bool counts = insideZmq == 0 && !ofZmq && spared == 0;
  new (memory) BlockHead{counts};
  if (counts) ++blocks;
  return static_cast<char*>(memory) + sizeof(BlockHead);
}
[[gnu::noinline]] void operator delete(void* memory) noexcept {
  if (memory == nullptr) return;
  void* const block = static_cast<char*>(memory) - sizeof(BlockHead);
  if (static_cast<BlockHead*>(block)->counts) --blocks;
  std::free(block);
}
// All other forms but those for stricter alignments, so that a sanitizer's do not get mixed in.
void* operator new[](std::size_t size) { return operator new(size); }
void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
  try {
    return operator new(size);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}
void* operator new[](std::size_t size, const std::nothrow_t& tag) noexcept {
  return operator new(size, tag);
}
void operator delete(void* memory, std::size_t /*size*/) noexcept { operator delete(memory); }
void operator delete[](void* memory) noexcept { operator delete(memory); }
void operator delete[](void* memory, std::size_t /*size*/) noexcept { operator delete(memory); }
void operator delete(void* memory, const std::nothrow_t& /*tag*/) noexcept {
  operator delete(memory);
}
void operator delete[](void* memory, const std::nothrow_t& /*tag*/) noexcept {
  operator delete(memory);
}

#ifndef TESSEL_TESTS_SUPPORT_FAILING_ZMQ_CALLS_H
#define TESSEL_TESTS_SUPPORT_FAILING_ZMQ_CALLS_H

#include <zmq.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <string>
#include <thread>

#include "support/stand_in.h"

// Stands in for functions of libzmq, for the one source of a program.

namespace tessel::test {

/// The calls that fail while it is armed: those of one function, on sockets of one type, on every
/// thread but the test's own.
struct Failure {
  const char* function = "";
  int socketType = -1;  // -1: whatever is polled
  int error = 0;
};
inline Failure failure;
inline std::atomic<bool> armed{false};
inline std::atomic<int> failed{0};             // calls
inline std::atomic<bool> onTestThread{false};  // on that one only, instead
inline const std::thread::id testThread = std::this_thread::get_id();

inline int typeOf(void* socket) {
  int type = -1;
  size_t size = sizeof type;
  zmq_getsockopt(socket, ZMQ_TYPE, &type, &size);
  return type;
}

inline bool fails(const char* function, void* socket) {
  if (!armed || failure.function != std::string(function)) return false;
  if ((std::this_thread::get_id() == testThread) != onTestThread) return false;
  if (socket != nullptr && typeOf(socket) != failure.socketType) return false;
  ++failed;
  errno = failure.error;
  return true;
}

inline void arm(const Failure& chosen) {
  failure = chosen;
  armed = true;
}

}  // namespace tessel::test

extern "C" {

int zmq_poll(zmq_pollitem_t* items, int count, long timeout) {
  if (tessel::test::fails("zmq_poll", nullptr)) return -1;
  return tessel::test::real("zmq_poll", &zmq_poll)(items, count, timeout);
}
int zmq_setsockopt(void* socket, int option, const void* value, size_t size) {
  if (tessel::test::fails("zmq_setsockopt", socket)) return -1;
  return tessel::test::real("zmq_setsockopt", &zmq_setsockopt)(socket, option, value, size);
}
int zmq_msg_send(zmq_msg_t* message, void* socket, int flags) {
  if (tessel::test::fails("zmq_msg_send", socket)) return -1;
  return tessel::test::real("zmq_msg_send", &zmq_msg_send)(message, socket, flags);
}
int zmq_msg_recv(zmq_msg_t* message, void* socket, int flags) {
  if (tessel::test::fails("zmq_msg_recv", socket)) return -1;
  return tessel::test::real("zmq_msg_recv", &zmq_msg_recv)(message, socket, flags);
}

}  // extern "C"

#endif

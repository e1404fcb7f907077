#ifndef TESSEL_TESTS_SUPPORT_RESOURCES_H
#define TESSEL_TESTS_SUPPORT_RESOURCES_H

#include <sys/resource.h>
#include <zmq.h>

#include <filesystem>
#include <iterator>
#include <vector>

#include "transport/zmq_context.h"

namespace tessel::test {

/// How many descriptors this process has open.
inline int openDescriptors() {
  const std::filesystem::directory_iterator open("/proc/self/fd");
  return static_cast<int>(std::distance(begin(open), end(open))) - 1;  // less the iterator's own
}

/// Each socket has descriptors; the context is to run out of sockets before the process of those.
inline void raiseDescriptorLimit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
}

/// How many sockets the library's context still has to give, found by taking them all: nobody else
/// may need one meanwhile. ZeroMQ closes in the background, so compare with a deadline.
inline int freeSockets() {
  std::vector<void*> taken;
  while (void* socket = zmq_socket(ZmqContext::handle(), ZMQ_PAIR)) taken.push_back(socket);
  for (void* socket : taken) zmq_close(socket);
  return static_cast<int>(taken.size());
}

}  // namespace tessel::test

#endif

#ifndef TESSEL_SRC_TRANSPORT_POLL_SET_H
#define TESSEL_SRC_TRANSPORT_POLL_SET_H

#include <zmq.h>

#include <cstddef>
#include <initializer_list>
#include <vector>

namespace tessel {

/// Socket handles in a fixed order, waited on together for something to read.
class PollSet {
 public:
  PollSet(std::initializer_list<void*> handles);

  /// For a socket that was made anew.
  void replace(std::size_t index, void* handle) { items_[index].socket = handle; }
  /// Waits without a time-out until one is readable; a signal handler does not end the wait.
  /// Throws std::runtime_error with ZeroMQ's text when the poll fails.
  void wait();
  /// What the last wait() found.
  bool readable(std::size_t index) const { return (items_[index].revents & ZMQ_POLLIN) != 0; }

 private:
  std::vector<zmq_pollitem_t> items_;
};

}  // namespace tessel

#endif

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
  void replace(std::size_t index, void* handle);
  /// Waits without a time-out until one is readable; a signal handler does not end the wait.
  /// Throws std::runtime_error with ZeroMQ's text when the poll fails.
  void wait();
  /// The same for a caller who knows that all are empty: by a receive that has just found nothing,
  /// or from the last wait, if the socket was not used meanwhile. If one is not empty, this may
  /// sleep for ever: what was there before does not wake it. A socket that is never readable, such
  /// as a PUB, counts as empty. Does not ask them once more before it sleeps, which takes two
  /// system calls for each.
  void waitFoundEmpty();
  /// What the last wait() or waitFoundEmpty() found.
  bool readable(std::size_t index) const { return readable_[index]; }

 private:
  bool look();

  std::vector<void*> handles_;
  // What wakes each socket's owner: it tells that something has happened to the socket since its
  // state was last asked for, and only the socket itself knows whether that was a message.
  std::vector<zmq_pollitem_t> signals_;
  std::vector<bool> readable_;
};

}  // namespace tessel

#endif

#include "transport/poll_set.h"

#include <cerrno>

#include "transport/zmq_error.h"

namespace tessel {

PollSet::PollSet(std::initializer_list<void*> handles) {
  items_.reserve(handles.size());
  for (void* handle : handles) items_.push_back(zmq_pollitem_t{handle, 0, ZMQ_POLLIN, 0});
}

void PollSet::wait() {
  while (zmq_poll(items_.data(), static_cast<int>(items_.size()), -1) < 0) {
    if (zmq_errno() != EINTR) throwZmqError();
  }
}

}  // namespace tessel

#include "transport/poll_set.h"

#include <cerrno>

#include "transport/zmq_error.h"

namespace tessel {
namespace {

template <typename Value>
Value optionOf(void* handle, int option) {
  Value value{};
  std::size_t size = sizeof value;
  while (zmq_getsockopt(handle, option, &value, &size) != 0) {
    if (zmq_errno() != EINTR) throwZmqError();
  }
  return value;
}

using SignalHandle = decltype(zmq_pollitem_t::fd);

}  // namespace

PollSet::PollSet(std::initializer_list<void*> handles)
    : handles_(handles.size()),
      signals_(handles.size(), zmq_pollitem_t{nullptr, 0, ZMQ_POLLIN, 0}),
      readable_(handles.size()) {
  std::size_t index = 0;
  for (void* handle : handles) replace(index++, handle);
}

void PollSet::replace(std::size_t index, void* handle) {
  handles_[index] = handle;
  signals_[index].fd = optionOf<SignalHandle>(handle, ZMQ_FD);
}

// Not a poll of the sockets themselves: that asks the state of each before it sleeps and, with two
// system calls each, once more when it wakes, while the message waits.
void PollSet::wait() {
  for (zmq_pollitem_t& signal : signals_) signal.revents = ZMQ_POLLIN;
  if (!look()) waitFoundEmpty();
}

// To find a socket empty is to have taken all that it was signalled: what comes later is signalled
// anew.
void PollSet::waitFoundEmpty() {
  do {
    while (zmq_poll(signals_.data(), static_cast<int>(signals_.size()), -1) < 0) {
      if (zmq_errno() != EINTR) throwZmqError();
    }
  } while (!look());
}

bool PollSet::look() {
  bool any = false;
  for (std::size_t i = 0; i < handles_.size(); ++i) {
    readable_[i] =
        signals_[i].revents != 0 && (optionOf<int>(handles_[i], ZMQ_EVENTS) & ZMQ_POLLIN) != 0;
    any = any || readable_[i];
  }
  return any;
}

}  // namespace tessel

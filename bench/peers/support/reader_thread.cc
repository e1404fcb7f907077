#include "peers/support/reader_thread.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdint>
#include <stdexcept>

namespace tessel::bench {
namespace {

void watch(int poll, int handle, std::size_t index) {
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.u64 = index;
  if (epoll_ctl(poll, EPOLL_CTL_ADD, handle, &event) != 0) {
    throw std::runtime_error("a connection cannot be watched");
  }
}

}  // namespace

ReaderThread::ReaderThread(const std::vector<int>& connections,
                           const std::function<void(std::size_t)>& read)
    : read_(read),
      poll_(epoll_create1(EPOLL_CLOEXEC)),
      stop_(eventfd(0, EFD_CLOEXEC)),
      stopIndex_(connections.size()) {
  for (std::size_t i = 0; i < connections.size(); ++i) watch(poll_, connections[i], i);
  watch(poll_, stop_, stopIndex_);
  thread_ = std::thread([this] { run(); });
}

ReaderThread::~ReaderThread() {
  eventfd_write(stop_, 1);
  thread_.join();
  close(stop_);
  close(poll_);
}

void ReaderThread::run() {
  epoll_event events[128];
  for (;;) {
    const int count = epoll_wait(poll_, events, 128, -1);
    for (int i = 0; i < count; ++i) {
      if (events[i].data.u64 == stopIndex_) return;
      read_(events[i].data.u64);
    }
  }
}

}  // namespace tessel::bench

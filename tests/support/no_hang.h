#ifndef TESSEL_TESTS_SUPPORT_NO_HANG_H
#define TESSEL_TESTS_SUPPORT_NO_HANG_H

#include <cstdio>
#include <cstdlib>
#include <future>
#include <thread>

#include "support/deadline.h"

namespace tessel::test {

/// Runs `call` on a thread of its own and waits for it. A call that hangs ends the process, since
/// its thread can neither be joined nor left behind.
template <typename Call>
void withoutHanging(const char* what, const Call& call) {
  std::promise<void> done;
  std::thread thread([&] {
    call();
    done.set_value();
  });
  if (done.get_future().wait_for(kPatience) != std::future_status::ready) {
    std::fprintf(stderr, "%s hangs\n", what);
    std::fflush(nullptr);
    std::_Exit(1);
  }
  thread.join();
}

}  // namespace tessel::test

#endif

#ifndef TESSEL_SRC_TRANSPORT_DEADLOCK_H
#define TESSEL_SRC_TRANSPORT_DEADLOCK_H

#include <system_error>

namespace tessel {

/// For a stop that would wait for the thread that it is called on.
[[noreturn]] inline void throwDeadlock() {
  throw std::system_error(std::make_error_code(std::errc::resource_deadlock_would_occur));
}

}  // namespace tessel

#endif

#ifndef TESSEL_TESTS_SUPPORT_SYSTEM_ERRORS_H
#define TESSEL_TESTS_SUPPORT_SYSTEM_ERRORS_H

#include <system_error>

namespace tessel::test {

/// The code of the std::system_error that the action throws; none if it throws nothing.
template <typename Action>
std::error_code systemErrorOf(const Action& action) {
  try {
    action();
  } catch (const std::system_error& error) {
    return error.code();
  }
  return {};
}

/// Whether the action is refused since it would wait for itself.
template <typename Action>
bool wouldWaitForItself(const Action& action) {
  return systemErrorOf(action) == std::errc::resource_deadlock_would_occur;
}

}  // namespace tessel::test

#endif

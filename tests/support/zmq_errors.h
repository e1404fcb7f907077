#ifndef TESSEL_TESTS_SUPPORT_ZMQ_ERRORS_H
#define TESSEL_TESTS_SUPPORT_ZMQ_ERRORS_H

#include <gtest/gtest.h>
#include <zmq.h>

#include <stdexcept>
#include <string>
#include <typeinfo>

namespace tessel::test {

/// What `call` threw: the text of a std::runtime_error of exactly that type, or what else happened.
template <typename Call>
std::string zmqErrorOf(const Call& call) {
  try {
    call();
  } catch (const std::runtime_error& error) {
    return typeid(error) == typeid(std::runtime_error) ? error.what() : "a class derived from it";
  } catch (...) {
    return "not a std::runtime_error";
  }
  return "nothing thrown";
}

}  // namespace tessel::test

/// That the statement throws std::runtime_error, no class derived from it, with ZeroMQ's own text
/// for `error`.
#define EXPECT_ZMQ_ERROR(statement, error) \
  EXPECT_EQ(::tessel::test::zmqErrorOf([&] { statement; }), zmq_strerror(error))

#endif

#ifndef TESSEL_TESTS_SUPPORT_TEXT_OF_H
#define TESSEL_TESTS_SUPPORT_TEXT_OF_H

#include <string>
#include <typeinfo>

namespace tessel::test {

/// The text of the exception that `call` throws, which is exactly an Error and nothing derived.
template <typename Error, typename Call>
std::string textOf(const Call& call) {
  try {
    call();
  } catch (const Error& error) {
    return typeid(error) == typeid(Error) ? error.what()
                                          : std::string("of type ") + typeid(error).name();
  }
  return "nothing thrown";
}

}  // namespace tessel::test

#endif

#ifndef VITALS_PROVOCATIONS_H
#define VITALS_PROVOCATIONS_H

#include <functional>
#include <string>
#include <vector>

namespace vitals {

/// What a call threw.
struct CaughtError {
  std::string kind;            ///< The class as which it was caught.
  std::string text;            ///< what(), and behind it the bytes of a custom error.
  bool alsoAsRpcError = true;  ///< The base of them all catches it too.
};
bool operator==(const CaughtError& left, const CaughtError& right);

/// Makes the call and catches what it throws. If that is nothing, the kind is "nothing".
CaughtError catchFrom(const std::function<void()>& call);

/// A call that must fail, and how.
struct Provocation {
  std::function<void()> call;
  CaughtError expected;
};

/// One for each kind of error, by calls of the sensor's service that anybody might make by mistake.
std::vector<Provocation> provocations(const std::string& endpoint);

}  // namespace vitals

#endif

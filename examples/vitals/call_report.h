#ifndef VITALS_CALL_REPORT_H
#define VITALS_CALL_REPORT_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "process.h"
#include "provocations.h"

namespace vitals {

/// What the viewer has called for so far, and what it got.
struct CallReport {
  std::size_t right = 0;  ///< Calls that had the right answer; provoked errors are counted apart.
  Processes busiest;      ///< The last answers.
  Processes largest;
  std::vector<CaughtError> errors;  ///< Provoked, and caught as what they are.
  std::size_t timed = 0;            ///< Calls whose time was taken.
  std::int64_t p50 = 0;             ///< From the call to the answer, in microseconds.
  std::int64_t p99 = 0;
  std::string fault;  ///< What went wrong, if anything; no more calls were made then.
};

}  // namespace vitals

#endif

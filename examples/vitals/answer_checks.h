#ifndef VITALS_ANSWER_CHECKS_H
#define VITALS_ANSWER_CHECKS_H

#include <cstddef>
#include <stdexcept>
#include <string>

#include "process.h"
#include "process_client.h"

namespace vitals {

struct WrongAnswer : std::runtime_error {
  explicit WrongAnswer(const std::string& what) : std::runtime_error("wrong answer: " + what) {}
};

// They throw WrongAnswer.

/// In order, nobody twice, no more than were asked for.
void checkTop(const Processes& top, Measure measure, std::size_t count);
/// Of whom it is known what the answer has to say: the process that runs.
void checkThisProcess(const Process& process);

}  // namespace vitals

#endif

#ifndef VITALS_PROCESS_READER_H
#define VITALS_PROCESS_READER_H

#include <optional>
#include <string>

#include "process.h"

namespace vitals {

/// Reads in /proc which processes there are. Any number of threads may read at once.
class ProcessReader {
 public:
  explicit ProcessReader(std::string folder = "/proc") : folder_(std::move(folder)) {}
  Processes all() const;
  std::optional<Process> one(int id) const;

 private:
  std::string folder_;
};

}  // namespace vitals

#endif

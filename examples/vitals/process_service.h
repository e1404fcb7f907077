#ifndef VITALS_PROCESS_SERVICE_H
#define VITALS_PROCESS_SERVICE_H

#include <tessel/tessel.h>

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "process.h"
#include "process_reader.h"

namespace vitals {

// Its names, and those of its methods.
constexpr char kProcessService[] = "processes";
constexpr char kThisMachine[] = "this machine";  ///< The instance.
constexpr char kTopMethod[] = "top";             ///< "cpu 5", "memory 5": the first five by that.
constexpr char kProcessMethod[] = "process";     ///< "ID": that one.
constexpr char kUsageMethod[] = "usage";  ///< "ID MS": how much of a core it takes from now on.

/// Answers what the processes of this machine do. It is called by several threads at once.
///
/// An id that nobody has is reported as rpc_custom_error with an UnknownProcess as its bytes, a
/// question that makes no sense as an exception of the standard library.
class ProcessService : public tessel::Service {
 public:
  explicit ProcessService(ProcessReader reader = ProcessReader());

  /// Looks at all processes; to be called about once a second. Shares of the processor are those
  /// between the last two looks. `time` is in nanoseconds.
  void look(std::int64_t time);

  void callMethod(const std::string& method, const void* data, std::size_t size,
                  std::unique_ptr<std::uint8_t[]>& out, std::size_t& outSize) override;

 private:
  std::string answer(const std::string& method, const std::string& argument) const;
  std::string top(const std::string& argument) const;
  std::string process(const std::string& argument) const;
  std::string usage(const std::string& argument) const;
  Process find(int id) const;

  const ProcessReader reader_;
  mutable std::mutex mutex_;     // guards all that follows
  std::map<int, Process> seen_;  // at the last look, by id
  std::int64_t lastLook_ = 0;
};

}  // namespace vitals

#endif

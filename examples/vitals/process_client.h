#ifndef VITALS_PROCESS_CLIENT_H
#define VITALS_PROCESS_CLIENT_H

#include <tessel/tessel.h>

#include <chrono>
#include <cstddef>
#include <string>

#include "process.h"
#include "process_service.h"

namespace vitals {

enum class Measure { Cpu, Memory };

/// Calls a ProcessService, wherever it is. What fails is thrown as tessel throws it; an answer that
/// makes no sense as std::runtime_error.
class ProcessClient {
 public:
  ProcessClient(const std::string& endpoint, std::chrono::milliseconds patience,
                const std::string& machine = kThisMachine)
      : client_(endpoint, patience), machine_(machine) {}

  /// The first ones by that measure, the highest first.
  Processes top(Measure measure, std::size_t count);
  Process process(int id);
  /// `cpu` of the process during the time that follows; the answer comes when it is over.
  Process usage(int id, std::chrono::milliseconds time);

  std::string call(const std::string& method, const std::string& argument);

 private:
  Processes ask(const std::string& method, const std::string& argument);
  Process askForOne(const std::string& method, const std::string& argument);

  tessel::RpcClient client_;
  const std::string machine_;
};

}  // namespace vitals

#endif

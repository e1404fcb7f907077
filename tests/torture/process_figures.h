#ifndef TESSEL_TESTS_TORTURE_PROCESS_FIGURES_H
#define TESSEL_TESTS_TORTURE_PROCESS_FIGURES_H

#include <malloc.h>
#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "support/sanitizers.h"

namespace tessel::test {

/// A sanitizer keeps what was freed, and more: then the memory of a process tells nothing.
constexpr bool kMemoryTells = !kAddressSanitizer && !kThreadSanitizer;

/// Memory in the machine's pages that is the process's own, in bytes; 0 when it is gone. Files that
/// it maps do not count.
inline std::int64_t privateMemory(const std::string& process = "self") {
  std::ifstream status("/proc/" + process + "/status");
  std::string word;
  while (status >> word) {
    std::int64_t kilobytes = 0;
    if (word == "RssAnon:" && status >> kilobytes) return kilobytes * 1024;
  }
  return 0;
}
inline std::int64_t privateMemory(pid_t process) { return privateMemory(std::to_string(process)); }

/// Bytes that the program has from malloc().
inline std::int64_t heapInUse() { return static_cast<std::int64_t>(mallinfo2().uordblks); }

inline int filesIn(const std::string& folder) {
  const std::filesystem::directory_iterator files(folder);
  return static_cast<int>(std::distance(begin(files), end(files)));
}

}  // namespace tessel::test

#endif

#ifndef VITALS_PROCESS_H
#define VITALS_PROCESS_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace vitals {

/// A process of the machine.
struct Process {
  int id = 0;
  std::uint64_t started = 0;  ///< In ticks since the machine was started; ids are used again.
  std::uint64_t ticks = 0;    ///< Of processor time that it has used.
  double cpu = 0;             ///< Percent of one core, in the last second that was looked at.
  double memory = 0;          ///< In bytes, of what is in memory.
  std::string name;
};
using Processes = std::vector<Process>;

/// Of the text of /proc/ID/stat; none if it makes no sense.
std::optional<Process> parseProcess(const std::string& stat);

/// The bytes that travel: a line of text each.
std::string encode(const Processes& processes);
/// None if any line makes no sense.
std::optional<Processes> decodeProcesses(const std::string& bytes);

/// What the service throws with its error when there is no such process.
struct UnknownProcess {
  int id = 0;
  std::size_t known = 0;  ///< How many others there are.
};
std::string encode(const UnknownProcess& unknown);
std::optional<UnknownProcess> decodeUnknownProcess(const void* data, std::size_t size);

}  // namespace vitals

#endif

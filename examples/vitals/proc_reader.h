#ifndef VITALS_PROC_READER_H
#define VITALS_PROC_READER_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "reading.h"

namespace vitals {

/// One vital sign and what it is published under.
struct Vital {
  std::string topic;
  std::string tag;
  Reading reading;
};
using Vitals = std::vector<Vital>;

// What the files in /proc say. Each of these takes the text of one file, and of a text that is
// empty or makes no sense what can be made out, if anything.

/// Counts since the machine was started; only their growth tells something.
struct CpuTimes {
  std::string name;  ///< "all", "core0", "core1" ...
  std::uint64_t busy = 0;
  std::uint64_t total = 0;
};
std::vector<CpuTimes> parseCpuTimes(const std::string& stat);

struct ByteCounts {
  std::string name;  ///< Of the interface or the disk.
  std::uint64_t in = 0;
  std::uint64_t out = 0;
};
/// Interfaces that ever carried something.
std::vector<ByteCounts> parseInterfaces(const std::string& netDev);
/// Disks, not their partitions, that were ever used.
std::vector<ByteCounts> parseDisks(const std::string& diskstats);

Vitals parseMemory(const std::string& meminfo);
/// A load of one a core is the most that does not make anybody wait. 0 cores: it is not known.
Vitals parseLoad(const std::string& loadavg, std::size_t cores);
Vitals parseUptime(const std::string& uptime);

/// Reads all vital signs of this machine. A file that is not there is no error: containers hide
/// some, and machines without disks are machines too.
class ProcReader {
 public:
  explicit ProcReader(std::string folder = "/proc");
  /// Shares and rates are those since the last read; the first one only has the rest.
  Vitals read(std::int64_t time);

 private:
  std::size_t readCpu(Vitals& vitals);  // returns how many cores there are
  void readCounters(Vitals& vitals, const std::string& topic, const std::vector<ByteCounts>& counts,
                    const char* inTag, const char* outTag, double seconds);
  std::string text(const char* file) const;

  std::string folder_;
  std::int64_t lastTime_ = 0;
  std::map<std::string, CpuTimes> lastCpu_;
  std::map<std::string, ByteCounts> lastCounts_;  // by topic and name
};

}  // namespace vitals

#endif

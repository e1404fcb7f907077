#include "proc_reader.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <fstream>
#include <sstream>

namespace vitals {
namespace {

// A colon separates topic and tag; "eth0:1" is an interface name.
std::string tagFor(std::string name) {
  std::replace(name.begin(), name.end(), ':', '.');
  return name;
}

bool endsInDigit(const std::string& name) {
  return !name.empty() && std::isdigit(static_cast<unsigned char>(name.back())) != 0;
}

// "sda1" of "sda", "nvme0n1p2" of "nvme0n1"; but "loop10" is no part of "loop1".
bool isPartition(const std::string& name, const std::string& disk) {
  if (name.size() <= disk.size() || name.compare(0, disk.size(), disk) != 0) return false;
  std::string number = name.substr(disk.size());
  if (endsInDigit(disk)) {
    if (number[0] != 'p') return false;
    number.erase(0, 1);
  }
  return !number.empty() && number.find_first_not_of("0123456789") == std::string::npos;
}

// What grew, or 0 when the counter began anew.
double growth(std::uint64_t before, std::uint64_t after) {
  return after > before ? static_cast<double>(after - before) : 0;
}

}  // namespace

std::vector<CpuTimes> parseCpuTimes(const std::string& stat) {
  std::vector<CpuTimes> cpus;
  std::istringstream lines(stat);
  for (std::string line; std::getline(lines, line);) {
    std::istringstream fields(line);
    std::string name;
    fields >> name;
    if (name.compare(0, 3, "cpu") != 0) continue;
    CpuTimes cpu;
    cpu.name = name == "cpu" ? "all" : "core" + name.substr(3);
    // user, nice, system, idle, waiting for input or output, interrupts, soft interrupts, stolen;
    // what follows is part of the first two.
    int field = 0;
    for (std::uint64_t ticks = 0; field < 8 && fields >> ticks; ++field) {
      cpu.total += ticks;
      if (field != 3 && field != 4) cpu.busy += ticks;
    }
    if (field >= 4) cpus.push_back(cpu);
  }
  return cpus;
}

std::vector<ByteCounts> parseInterfaces(const std::string& netDev) {
  std::vector<ByteCounts> interfaces;
  std::istringstream lines(netDev);
  for (std::string line; std::getline(lines, line);) {
    const std::size_t colon = line.rfind(':');
    if (colon == std::string::npos) continue;  // the heading
    ByteCounts counts;
    std::istringstream(line.substr(0, colon)) >> counts.name;
    std::istringstream fields(line.substr(colon + 1));
    std::uint64_t skipped = 0;
    fields >> counts.in;
    for (int i = 0; i < 7; ++i) fields >> skipped;
    fields >> counts.out;
    if (fields && counts.in + counts.out > 0) interfaces.push_back(counts);
  }
  return interfaces;
}

std::vector<ByteCounts> parseDisks(const std::string& diskstats) {
  constexpr std::uint64_t kSectorSize = 512;  // whatever the disk's own is
  std::vector<ByteCounts> disks;
  std::istringstream lines(diskstats);
  for (std::string line; std::getline(lines, line);) {
    std::istringstream fields(line);
    ByteCounts counts;
    std::uint64_t skipped = 0;
    fields >> skipped >> skipped >> counts.name;
    fields >> skipped >> skipped >> counts.in >> skipped;  // reads, merged, sectors, ms
    fields >> skipped >> skipped >> counts.out;            // writes, merged, sectors
    if (!fields || counts.in + counts.out == 0) continue;
    counts.in *= kSectorSize;
    counts.out *= kSectorSize;
    const auto holdsIt = [&](const ByteCounts& disk) {
      return isPartition(counts.name, disk.name);
    };
    if (std::none_of(disks.begin(), disks.end(), holdsIt)) disks.push_back(counts);
  }
  return disks;
}

Vitals parseMemory(const std::string& meminfo) {
  std::map<std::string, double> bytes;
  std::istringstream lines(meminfo);
  for (std::string line; std::getline(lines, line);) {
    std::istringstream fields(line);
    std::string name;
    double kilobytes = 0;
    if (fields >> name >> kilobytes) bytes[name] = kilobytes * 1024;
  }
  const double total = bytes["MemTotal:"];
  if (total <= 0) return {};
  const double cached = bytes["Buffers:"] + bytes["Cached:"];
  const double available =  // which old kernels do not tell
      bytes.count("MemAvailable:") != 0 ? bytes["MemAvailable:"] : bytes["MemFree:"] + cached;
  Vitals vitals{{"memory", "used", {Unit::Bytes, total - available, total, 0}},
                {"memory", "cached", {Unit::Bytes, cached, total, 0}}};
  const double swap = bytes["SwapTotal:"];
  if (swap > 0) {
    vitals.push_back({"memory", "swap", {Unit::Bytes, swap - bytes["SwapFree:"], swap, 0}});
  }
  return vitals;
}

Vitals parseLoad(const std::string& loadavg, std::size_t cores) {
  double one = 0, five = 0, fifteen = 0, running = 0, tasks = 0;
  char slash = 0;
  std::istringstream fields(loadavg);
  if (!(fields >> one >> five >> fifteen)) return {};
  const auto limit = static_cast<double>(cores);
  Vitals vitals{{"load", "1min", {Unit::Load, one, limit, 0}},
                {"load", "5min", {Unit::Load, five, limit, 0}},
                {"load", "15min", {Unit::Load, fifteen, limit, 0}}};
  if (fields >> running >> slash >> tasks) {
    vitals.push_back({"tasks", "running", {Unit::Count, running, 0, 0}});
    vitals.push_back({"tasks", "all", {Unit::Count, tasks, 0, 0}});
  }
  return vitals;
}

Vitals parseUptime(const std::string& uptime) {
  double seconds = 0;
  if (!(std::istringstream(uptime) >> seconds)) return {};
  return {{"machine", "uptime", {Unit::Seconds, std::floor(seconds), 0, 0}}};
}

ProcReader::ProcReader(std::string folder) : folder_(std::move(folder)) {}

Vitals ProcReader::read(std::int64_t time) {
  const double seconds = static_cast<double>(time - lastTime_) / 1e9;
  lastTime_ = time;
  Vitals vitals;
  const std::size_t cores = readCpu(vitals);
  const auto add = [&](const Vitals& more) {
    vitals.insert(vitals.end(), more.begin(), more.end());
  };
  add(parseMemory(text("meminfo")));
  add(parseLoad(text("loadavg"), cores));
  readCounters(vitals, "net", parseInterfaces(text("net/dev")), ".in", ".out", seconds);
  readCounters(vitals, "disk", parseDisks(text("diskstats")), ".read", ".write", seconds);
  add(parseUptime(text("uptime")));
  return vitals;
}

std::size_t ProcReader::readCpu(Vitals& vitals) {
  std::map<std::string, CpuTimes> current;
  for (const CpuTimes& cpu : parseCpuTimes(text("stat"))) {
    current[cpu.name] = cpu;
    const auto before = lastCpu_.find(cpu.name);
    if (before == lastCpu_.end()) continue;
    const double total = growth(before->second.total, cpu.total);
    const double busy = growth(before->second.busy, cpu.busy);
    const double percent = total > 0 ? std::round(std::min(busy / total, 1.0) * 100) : 0;
    vitals.push_back({"cpu", tagFor(cpu.name), {Unit::Percent, percent, 100, 0}});
  }
  lastCpu_.swap(current);
  return lastCpu_.size() - lastCpu_.count("all");
}

void ProcReader::readCounters(Vitals& vitals, const std::string& topic,
                              const std::vector<ByteCounts>& counts, const char* inTag,
                              const char* outTag, double seconds) {
  for (const ByteCounts& now : counts) {
    const auto known = lastCounts_.find(topic + now.name);
    if (known == lastCounts_.end()) {
      lastCounts_.emplace(topic + now.name, now);
      continue;
    }
    ByteCounts& before = known->second;
    const auto rate = [&](std::uint64_t first, std::uint64_t last) {
      return Reading{Unit::BytesPerSecond, std::round(growth(first, last) / seconds), 0, 0};
    };
    vitals.push_back({topic, tagFor(now.name + inTag), rate(before.in, now.in)});
    vitals.push_back({topic, tagFor(now.name + outTag), rate(before.out, now.out)});
    before = now;
  }
}

std::string ProcReader::text(const char* file) const {
  std::ifstream input(folder_ + "/" + file);
  std::ostringstream content;
  content << input.rdbuf();
  return content.str();
}

}  // namespace vitals

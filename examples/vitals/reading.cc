#include "reading.h"

#include <array>
#include <sstream>

namespace vitals {
namespace {

// In the order of Unit.
constexpr std::array<const char*, 6> kUnitNames{"percent", "bytes", "bytes/s",
                                                "load",    "count", "seconds"};

std::optional<Unit> unitNamed(const std::string& name) {
  for (std::size_t i = 0; i < kUnitNames.size(); ++i) {
    if (name == kUnitNames[i]) return static_cast<Unit>(i);
  }
  return std::nullopt;
}

}  // namespace

bool sameAmount(const Reading& left, const Reading& right) {
  return left.unit == right.unit && left.amount == right.amount && left.limit == right.limit;
}

std::string encode(const Reading& reading) {
  std::ostringstream text;
  text.precision(15);
  text << kUnitNames[static_cast<std::size_t>(reading.unit)] << ' ' << reading.amount << ' '
       << reading.limit << ' ' << reading.since;
  return text.str();
}

std::optional<Reading> decodeReading(const void* data, std::size_t size) {
  std::istringstream text(std::string(static_cast<const char*>(data), size));
  std::string unit;
  Reading reading;
  if (!(text >> unit >> reading.amount >> reading.limit >> reading.since)) return std::nullopt;
  const auto known = unitNamed(unit);
  if (!known) return std::nullopt;
  reading.unit = *known;
  return reading;
}

}  // namespace vitals

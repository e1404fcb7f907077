#include "format.h"

#include <array>
#include <cstdio>

namespace vitals {
namespace {

struct Scale {
  double divisor;
  const char* unit;
};

Scale byteScale(double bytes) {
  constexpr std::array<Scale, 5> kScales{
      {{1, "B"}, {1e3, "kB"}, {1e6, "MB"}, {1e9, "GB"}, {1e12, "TB"}}};
  Scale chosen = kScales[0];
  for (const Scale& scale : kScales) {
    if (bytes >= scale.divisor * 0.9995) chosen = scale;  // 999.9 kB is better said as 1.0 MB
  }
  return chosen;
}

std::string decimals(double number, int places) {
  std::array<char, 64> text{};
  std::snprintf(text.data(), text.size(), "%.*f", places, number);
  return text.data();
}

// Three digits, but never less than the whole number.
std::string scaled(double bytes, const Scale& scale) {
  const double number = bytes / scale.divisor;
  return decimals(number, scale.divisor > 1 && number < 99.95 ? 1 : 0);
}

std::string formatBytes(double bytes) {
  const Scale scale = byteScale(bytes);
  return scaled(bytes, scale) + " " + scale.unit;
}

std::string formatSeconds(double seconds) {
  const auto all = static_cast<long long>(seconds);
  std::array<char, 64> text{};
  std::snprintf(text.data(), text.size(), "%02lld:%02lld:%02lld", all / 3600 % 24, all / 60 % 60,
                all % 60);
  return (all >= 86400 ? std::to_string(all / 86400) + " d " : "") + text.data();
}

}  // namespace

std::string format(const Reading& reading) {
  switch (reading.unit) {
    case Unit::Percent:
      return decimals(reading.amount, 0) + " %";
    case Unit::Bytes: {
      if (reading.limit <= 0) return formatBytes(reading.amount);
      const Scale scale = byteScale(reading.limit);
      return scaled(reading.amount, scale) + " of " + formatBytes(reading.limit);
    }
    case Unit::BytesPerSecond:
      return formatBytes(reading.amount) + "/s";
    case Unit::Load:
      return decimals(reading.amount, 2);
    case Unit::Count:
      return formatCount(static_cast<std::uint64_t>(reading.amount));
    case Unit::Seconds:
      return formatSeconds(reading.amount);
  }
  return "";
}

std::string formatCount(std::uint64_t count) {
  std::string text = std::to_string(count);
  for (std::size_t place = text.size(); place > 3;) text.insert(place -= 3, ",");
  return text;
}

std::string formatMicroseconds(std::int64_t microseconds, bool unicode) {
  const auto time = static_cast<double>(microseconds);
  if (time < 1000) return decimals(time, 0) + (unicode ? " µs" : " us");
  if (time < 999950) return decimals(time / 1e3, 1) + " ms";
  return decimals(time / 1e6, 1) + " s";
}

}  // namespace vitals

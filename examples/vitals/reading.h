#ifndef VITALS_READING_H
#define VITALS_READING_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace vitals {

enum class Unit { Percent, Bytes, BytesPerSecond, Load, Count, Seconds };

/// What a vital sign is now: the value that the sensor publishes.
struct Reading {
  Unit unit = Unit::Count;
  double amount = 0;
  double limit = 0;        ///< The most that the amount can be; 0 if there is no such thing.
  std::int64_t since = 0;  ///< now() when the sensor first published it.
};

/// Whether they differ in no more than their age.
bool sameAmount(const Reading& left, const Reading& right);

/// The bytes that travel: a short line of text, so that any program can read them.
std::string encode(const Reading& reading);
std::optional<Reading> decodeReading(const void* data, std::size_t size);

}  // namespace vitals

#endif

#ifndef VITALS_FORMAT_H
#define VITALS_FORMAT_H

#include <cstdint>
#include <string>

#include "reading.h"

namespace vitals {

/// "37 %", "1.2 of 24.7 GB", "4.1 kB/s", "2 d 03:12:07".
std::string format(const Reading& reading);

/// "1,234,567".
std::string formatCount(std::uint64_t count);

/// "420 µs", "3.1 ms", "1.2 s"; "us" where the terminal has no µ.
std::string formatMicroseconds(std::int64_t microseconds, bool unicode = true);

}  // namespace vitals

#endif

#ifndef VITALS_PORTS_H
#define VITALS_PORTS_H

#include <string>

namespace vitals {

/// Where the hub listens, on this machine only.
struct Ports {
  int pull = 9010;     ///< The sensor publishes here.
  int updates = 9011;  ///< Live values.
  int cache = 9012;    ///< Cached values, and live ones from then on.
  int calls = 9020;    ///< Questions to the sensor, and its answers.
};

inline std::string endpoint(int port) { return "tcp://127.0.0.1:" + std::to_string(port); }

}  // namespace vitals

#endif

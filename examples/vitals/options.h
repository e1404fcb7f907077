#ifndef VITALS_OPTIONS_H
#define VITALS_OPTIONS_H

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "ports.h"
#include "ready.h"

namespace vitals {

enum class Role { Demo, Hub, Sensor, Viewer, Help };

struct Options {
  Role role = Role::Demo;
  std::optional<Ports> ports;                         ///< None: the demonstration finds free ones.
  std::optional<std::chrono::milliseconds> duration;  ///< None: until it is told to end.
  int supervisor = kNobody;                           ///< Who started the role; see sayReady().
};

extern const char kHelp[];

/// Throws std::invalid_argument with a text for the user.
Options parseOptions(const std::vector<std::string>& arguments);

}  // namespace vitals

#endif

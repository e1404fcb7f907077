#include <cstdio>
#include <exception>
#include <stdexcept>

#include "demo.h"
#include "hub.h"
#include "options.h"
#include "sensor.h"
#include "stop_signals.h"
#include "viewer.h"

namespace {

const char* nameOf(vitals::Role role) {
  switch (role) {
    case vitals::Role::Hub:
      return "vitals hub";
    case vitals::Role::Sensor:
      return "vitals sensor";
    case vitals::Role::Viewer:
      return "vitals viewer";
    default:
      return "vitals";
  }
}

int run(const vitals::Options& options) {
  vitals::StopSignals stop;
  switch (options.role) {
    case vitals::Role::Hub:
      return vitals::runHub(options, stop);
    case vitals::Role::Sensor:
      return vitals::runSensor(options, stop);
    case vitals::Role::Viewer:
      return vitals::runViewer(options, stop);
    case vitals::Role::Demo:
      return vitals::runDemo(options, stop);
    case vitals::Role::Help:
      break;
  }
  std::fputs(vitals::kHelp, stdout);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  vitals::Options options;
  try {
    options = vitals::parseOptions({argv + 1, argv + argc});
  } catch (const std::invalid_argument& error) {
    std::fprintf(stderr, "vitals: %s\n", error.what());
    return 2;
  }
  try {
    return run(options);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s: %s\n", nameOf(options.role), error.what());
    return 1;
  }
}

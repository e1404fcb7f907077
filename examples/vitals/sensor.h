#ifndef VITALS_SENSOR_H
#define VITALS_SENSOR_H

#include "options.h"
#include "stop_signals.h"

namespace vitals {

/// The process that publishes this machine's vital signs and answers what its processes do. Returns
/// the exit status.
int runSensor(const Options& options, StopSignals& stop);

}  // namespace vitals

#endif

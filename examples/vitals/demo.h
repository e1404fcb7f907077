#ifndef VITALS_DEMO_H
#define VITALS_DEMO_H

#include "options.h"
#include "stop_signals.h"

namespace vitals {

/// Starts hub, sensor and viewer as processes of their own, and ends them in order. Uses nothing of
/// the library itself. Returns the exit status.
int runDemo(const Options& options, StopSignals& stop);

}  // namespace vitals

#endif

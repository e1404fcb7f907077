#ifndef VITALS_VIEWER_H
#define VITALS_VIEWER_H

#include "options.h"
#include "stop_signals.h"

namespace vitals {

/// The process that shows what the sensor publishes, until that ends, the time is over or it is
/// told to end; then it prints a summary. Returns the exit status: 1 if it missed anything.
int runViewer(const Options& options, StopSignals& stop);

}  // namespace vitals

#endif

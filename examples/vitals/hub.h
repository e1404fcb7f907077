#ifndef VITALS_HUB_H
#define VITALS_HUB_H

#include "options.h"
#include "stop_signals.h"

namespace vitals {

/// The process that owns the brokers: one for values, one for calls. Returns the exit status.
int runHub(const Options& options, StopSignals& stop);

}  // namespace vitals

#endif

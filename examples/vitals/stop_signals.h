#ifndef VITALS_STOP_SIGNALS_H
#define VITALS_STOP_SIGNALS_H

#include <chrono>

namespace vitals {

/// The wish to end, expressed by SIGINT, SIGTERM or SIGHUP. Make it before any thread is started:
/// the signals are blocked from then on and only looked for in waitFor().
///
/// A signal that is ignored when the program starts stays ignored. So does Ctrl-C for the processes
/// that a supervisor has started: it alone decides in which order they end.
class StopSignals {
 public:
  StopSignals();
  ~StopSignals();
  StopSignals(const StopSignals&) = delete;
  StopSignals& operator=(const StopSignals&) = delete;

  /// Waits; true at once if the program is to end.
  bool waitFor(std::chrono::milliseconds time);

 private:
  int signals_;  // readable when one has come, which nobody ever reads
};

}  // namespace vitals

#endif

#include "stop_signals.h"

#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <system_error>

namespace vitals {

StopSignals::StopSignals() {
  sigset_t wanted;
  sigemptyset(&wanted);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    struct sigaction action {};
    sigaction(signal, nullptr, &action);
    if (action.sa_handler != SIG_IGN) sigaddset(&wanted, signal);
  }
  pthread_sigmask(SIG_BLOCK, &wanted, nullptr);
  signals_ = signalfd(-1, &wanted, SFD_CLOEXEC);
  if (signals_ < 0) throw std::system_error(errno, std::generic_category(), "signalfd");
}

StopSignals::~StopSignals() { close(signals_); }

bool StopSignals::waitFor(std::chrono::milliseconds time) {
  pollfd item{signals_, POLLIN, 0};
  return poll(&item, 1, static_cast<int>(time.count())) > 0;
}

}  // namespace vitals

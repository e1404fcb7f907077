#ifndef TESSEL_SRC_TRANSPORT_ZMQ_ERROR_H
#define TESSEL_SRC_TRANSPORT_ZMQ_ERROR_H

namespace tessel {

/// Throws std::runtime_error with ZeroMQ's text for `error`: the one translation of its failures.
[[noreturn]] void throwZmqError(int error);

/// The same for the calling thread's last ZeroMQ error.
[[noreturn]] void throwZmqError();

}  // namespace tessel

#endif

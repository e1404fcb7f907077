#include "transport/zmq_error.h"

#include <zmq.h>

#include <stdexcept>

namespace tessel {

void throwZmqError(int error) { throw std::runtime_error(zmq_strerror(error)); }

void throwZmqError() { throwZmqError(zmq_errno()); }

}  // namespace tessel

// Stands in for the sockets of ZeroMQ in programs that link it. Frames are ZeroMQ's own.

#include "wire.h"

#include <zmq.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace tessel::fuzz {
namespace {

struct Socket {
  int type;
  int receiveTimeout = -1;  // as of a real one: for ever
};

bool readable(void* socket) {
  return socket != nullptr && wire().pending() &&
         static_cast<Socket*>(socket)->type == wire().socketType;
}

// Nothing will come any more.
[[noreturn]] void endInsteadOfWaiting() {
  std::fputs("waits for ever\n", stderr);
  std::abort();
}

}  // namespace

Wire& wire() {
  static Wire& only = *new Wire;
  return only;
}

}  // namespace tessel::fuzz

using tessel::fuzz::endInsteadOfWaiting;
using tessel::fuzz::readable;
using tessel::fuzz::Socket;
using tessel::fuzz::wire;

extern "C" {

void* zmq_socket(void* /*context*/, int type) { return new Socket{type}; }

int zmq_close(void* socket) {
  if (readable(socket)) wire().incoming.clear();  // gone with it
  delete static_cast<Socket*>(socket);
  return 0;
}

int zmq_setsockopt(void* socket, int option, const void* value, size_t /*size*/) {
  if (option == ZMQ_RCVTIMEO) {
    static_cast<Socket*>(socket)->receiveTimeout = *static_cast<const int*>(value);
  }
  return 0;
}
int zmq_getsockopt(void* socket, int option, void* value, size_t* size) {
  std::memset(value, 0, *size);
  if (option == ZMQ_EVENTS && readable(socket)) *static_cast<int*>(value) = ZMQ_POLLIN;
  return 0;
}
int zmq_bind(void* /*socket*/, const char* /*endpoint*/) { return 0; }
int zmq_unbind(void* /*socket*/, const char* /*endpoint*/) { return 0; }
int zmq_connect(void* /*socket*/, const char* /*endpoint*/) { return 0; }

int zmq_poll(zmq_pollitem_t* items, int count, long timeout) {
  int ready = 0;
  for (int i = 0; i < count; ++i) {
    // A descriptor is signalled for whatever is there, as if it had just come.
    const bool is = (items[i].events & ZMQ_POLLOUT) != 0 || readable(items[i].socket) ||
                    (items[i].socket == nullptr && wire().pending());
    items[i].revents = is ? items[i].events : short{0};
    if (is) ++ready;
  }
  if (ready == 0 && timeout < 0) endInsteadOfWaiting();
  return ready;
}

int zmq_msg_recv(zmq_msg_t* message, void* socket, int flags) {
  if (!readable(socket)) {
    const bool waits = (flags & ZMQ_DONTWAIT) == 0;
    if (waits && static_cast<Socket*>(socket)->receiveTimeout < 0) endInsteadOfWaiting();
    errno = EAGAIN;
    return -1;
  }
  const tessel::fuzz::Frames& frames = wire().incoming[wire().message];
  const std::string& frame = frames[wire().frame];
  zmq_msg_close(message);
  zmq_msg_init_size(message, frame.size());
  std::memcpy(zmq_msg_data(message), frame.data(), frame.size());
  wire().more = ++wire().frame < frames.size();
  if (!wire().more) {
    ++wire().message;
    wire().frame = 0;
  }
  return static_cast<int>(frame.size());
}

// Asked of the frame that has just come, always.
int zmq_msg_more(const zmq_msg_t* /*message*/) { return wire().more ? 1 : 0; }

int zmq_msg_send(zmq_msg_t* message, void* /*socket*/, int flags) {
  const std::size_t size = zmq_msg_size(message);
  if (!wire().sending) wire().sent.emplace_back();
  wire().sent.back().emplace_back(static_cast<const char*>(zmq_msg_data(message)), size);
  wire().sending = (flags & ZMQ_SNDMORE) != 0;
  zmq_msg_close(message);
  zmq_msg_init(message);
  return static_cast<int>(size);
}

}  // extern "C"

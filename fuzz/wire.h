#ifndef TESSEL_FUZZ_WIRE_H
#define TESSEL_FUZZ_WIRE_H

#include <cstddef>
#include <string>
#include <vector>

namespace tessel::fuzz {

using Frames = std::vector<std::string>;

/// What the stand-ins for ZeroMQ's sockets (wire.cc) read from and write to. Nothing waits, and
/// nothing goes through a queue: one thread does everything, a hundred thousand times a second.
struct Wire {
  /// Lets sockets of the type receive the messages.
  void feed(int type, const std::vector<Frames>& messages) {
    socketType = type;
    incoming = messages;
    message = 0;
    frame = 0;
  }
  bool pending() const { return message < incoming.size(); }

  int socketType = -1;
  std::vector<Frames> incoming;
  std::size_t message = 0;  // the next to be received, and of it the frame
  std::size_t frame = 0;
  bool more = false;         // after the frame that was received last
  std::vector<Frames> sent;  // by sockets of any type
  bool sending = false;      // the last of them goes on
};

Wire& wire();

}  // namespace tessel::fuzz

#endif

#ifndef TESSEL_FUZZ_MESSAGE_H
#define TESSEL_FUZZ_MESSAGE_H

#include <zmq.h>

#include "messages/message_base.h"
#include "target.h"

namespace tessel::fuzz {

inline const int kSocketTypes[] = {ZMQ_PULL, ZMQ_ROUTER, ZMQ_DEALER, ZMQ_REQ};

/// Reads the messages one after the other as objects of one class, and checks of each that it is
/// either gone whole or sent on as it came. Those of another type stay in the socket behind their
/// header.
template <typename Message>
void receiveAndSendOn(const std::vector<Frames>& messages) {
  for (const int socketType : kSocketTypes) {
    const bool enveloped = socketType != ZMQ_REQ;
    ZmqSocket socket(socketType);
    wire().feed(socketType, messages);
    while (wire().pending()) {
      const std::size_t at = wire().message;
      const Frames& frames = wire().incoming[at];
      Message message;
      wire().sent.clear();
      if (message.receive(socket)) {
        message.send(socket);
        require(wire().sent == std::vector<Frames>{frames}, "a message is sent on as it came");
      } else if (wire().message == at) {
        const std::size_t type = wire().frame - 1;
        require(type > 0 && frames[type].size() == 1 && frames[type - 1] == "RS02" &&
                    frames[type][0] != static_cast<char>(Message().type()),
                "only the body of another type is left in the socket");
        require(!enveloped || frames[type - 2].empty(), "a delimiter comes first");
        socket.discardPending();
      }
      require(wire().message == at + 1 && wire().frame == 0, "one message is read");
    }
  }
}

}  // namespace tessel::fuzz

#endif

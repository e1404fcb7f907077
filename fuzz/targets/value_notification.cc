#include "messages/value_notification.h"

#include <zmq.h>

#include "target.h"

namespace tessel::fuzz {
namespace {

TESSEL_FUZZ_TARGET(value_notification) {
  ZmqSocket socket(ZMQ_SUB);
  wire().feed(ZMQ_SUB, messages);
  for (const Frames& frames : messages) {
    ReceivedNotification value;
    require(receiveNotification(socket, value, ZMQ_DONTWAIT), "whatever comes is read");
    require(value.key == frames[0], "the first frame is the key");
    require(value.value.toString() == (frames.size() > 1 ? frames[1] : ""), "the second the value");
    const std::string word = frames.size() > 2 ? frames[2] : "";
    require(value.replayed() == (!word.empty() && (word[0] & 1) != 0), "the first bit: replayed");
    require(value.withdrawn() == (!word.empty() && (word[0] & 2) != 0), "the second: withdrawn");
    if (frames.size() == 3 && word.size() == 8) {
      wire().sent.clear();
      ValueNotification(value.key, std::move(value.value), value.flags).send(socket);
      require(wire().sent == std::vector<Frames>{frames}, "one of good shape goes on as it came");
    }
  }
  require(!wire().pending(), "a message is read to its end");
}

}  // namespace
}  // namespace tessel::fuzz

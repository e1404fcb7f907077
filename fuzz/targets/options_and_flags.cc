#include <zmq.h>

#include "messages/message_publish.h"
#include "messages/message_unpublish.h"
#include "target.h"

namespace tessel::fuzz {
namespace {

// A word with the bytes that there are, least significant first.
std::uint64_t wordOf(const std::string& bytes) {
  std::uint64_t word = 0;
  for (std::size_t i = 0; i < bytes.size() && i < 8; ++i) {
    word |= std::uint64_t{static_cast<unsigned char>(bytes[i])} << (8 * i);
  }
  return word;
}

template <typename Message>
void receiveOptions(Frames frames, const std::string& options) {
  frames.push_back(options);
  ZmqSocket socket(ZMQ_PULL);
  wire().feed(ZMQ_PULL, {frames});
  Message message;
  require(message.receive(socket), "options may have any size");
  require(message.options() == wordOf(options), "they are the first eight bytes");
  for (std::uint64_t mask = 1; mask != 0; mask <<= 1U) {
    require(message.hasOption(mask) == ((wordOf(options) & mask) != 0), "each bit is an option");
  }
}

TESSEL_FUZZ_TARGET(options_and_flags) {
  for (const std::string& bytes : messages.front()) {
    const ZmqFrame frame(bytes);
    require(frame.littleEndian64() == wordOf(bytes), "missing bytes are zero");
    require(frame.firstByte() == (wordOf(bytes) & 0xFFU), "so is a missing first byte");
    require(frame.firstByteAsBool() == (frame.firstByte() != 0), "anything but zero is true");
    require(ZmqFrame::ofLittleEndian64(wordOf(bytes)).littleEndian64() == wordOf(bytes),
            "and back");
    receiveOptions<MessagePublish>({"", "RS02", "\x03", "t", "g", "v"}, bytes);
    receiveOptions<MessageUnpublish>({"", "RS02", "\x04", "t", "g"}, bytes);
  }
}

}  // namespace
}  // namespace tessel::fuzz

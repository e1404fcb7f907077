#include "messages/message_header.h"

#include "message.h"

namespace tessel::fuzz {
namespace {

// The envelope, delimiter, signature and type again, as they must have been sent.
Frames framesOf(const MessageHeader& header, bool enveloped) {
  Frames frames;
  for (const ZmqFrame& frame : header.envelope) frames.push_back(frame.toString());
  if (enveloped) frames.emplace_back();
  frames.emplace_back(kProtocolSignature);
  frames.push_back(header.typeFrame.toString());
  return frames;
}

TESSEL_FUZZ_TARGET(message_header) {
  for (const int socketType : kSocketTypes) {
    ZmqSocket socket(socketType);
    wire().feed(socketType, messages);
    while (wire().pending()) {
      const std::size_t at = wire().message;
      const Frames& frames = wire().incoming[at];
      MessageHeader header;
      const HeaderRead read = readMessageHeader(socket, header, ZMQ_DONTWAIT);
      require(read != HeaderRead::kNothing, "what is there is read");
      if (read == HeaderRead::kRead) {
        const Frames expected = framesOf(header, socketType != ZMQ_REQ);
        require(wire().message == at && wire().frame == expected.size() &&
                    std::equal(expected.begin(), expected.end(), frames.begin()),
                "a header is what was sent");
        require(header.type == static_cast<unsigned char>(frames[expected.size() - 1][0]),
                "its type is its byte");
        socket.discardPending();
      }
      require(wire().message == at + 1 && wire().frame == 0, "one message is read");
    }
    MessageHeader header;
    require(readMessageHeader(socket, header, ZMQ_DONTWAIT) == HeaderRead::kNothing, "no more");
  }
}

}  // namespace
}  // namespace tessel::fuzz

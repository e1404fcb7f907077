#include "messages/message_header.h"

#include <cstring>
#include <utility>

namespace tessel {
namespace {

bool isSignature(const ZmqFrame& frame) {
  return frame.size() == kProtocolSignature.size() &&
         std::memcmp(frame.data(), kProtocolSignature.data(), frame.size()) == 0;
}

// Of a reply on its way back: who sent it, and the client.
constexpr std::size_t kUsualEnvelope = 2;

bool hasEnvelope(int socketType) { return socketType != ZMQ_REQ && socketType != ZMQ_REP; }

// Reads the frames of one header and knows whether the message goes on, so that one which ends too
// early is never mistaken for the beginning of the next.
class HeaderReader {
 public:
  HeaderReader(ZmqSocket& socket, int flags) : socket_(socket), flags_(flags) {}

  bool begun() const { return begun_; }
  bool messageGoesOn() const { return begun_ && socket_.receivingMore(); }

  bool next(ZmqFrame& frame) {
    if (begun_ && !messageGoesOn()) return false;
    if (!socket_.receive(frame, begun_ ? 0 : flags_)) return false;
    begun_ = true;
    return true;
  }

 private:
  ZmqSocket& socket_;
  const int flags_;
  bool begun_ = false;
};

bool readEnvelope(HeaderReader& reader, std::vector<ZmqFrame>& envelope) {
  ZmqFrame frame;
  while (reader.next(frame)) {
    if (frame.size() == 0) return true;
    if (envelope.empty()) envelope.reserve(kUsualEnvelope);
    envelope.push_back(std::move(frame));
  }
  return false;
}

bool readFrames(HeaderReader& reader, int socketType, MessageHeader& header) {
  if (hasEnvelope(socketType) && !readEnvelope(reader, header.envelope)) return false;
  ZmqFrame signature;
  return reader.next(signature) && reader.next(header.typeFrame) && reader.messageGoesOn() &&
         isSignature(signature) && header.typeFrame.size() == 1;
}

}  // namespace

HeaderRead readMessageHeader(ZmqSocket& socket, MessageHeader& header, int flags) {
  HeaderReader reader(socket, flags);
  if (!readFrames(reader, socket.type(), header)) {
    if (!reader.begun()) return HeaderRead::kNothing;
    if (reader.messageGoesOn()) socket.discardPending();
    return HeaderRead::kMalformed;
  }
  header.type = header.typeFrame.firstByte();
  header.received = true;
  return HeaderRead::kRead;
}

}  // namespace tessel

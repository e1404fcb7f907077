#include "messages/message_base.h"

#include <stdexcept>
#include <utility>

#include "transport/zmq_error.h"

namespace tessel {
namespace {

// Only the first frame of a message can find the queue full; that one goes by sendFirst(). If the
// in-process peer goes between two frames, ZeroMQ drops the message and says so once at most.
void sendFurther(ZmqSocket& socket, ZmqFrame& frame, int flags) {
  if (!socket.send(frame, flags) && !socket.peerGone()) throwZmqError();
}

}  // namespace

MessageBase::MessageBase(std::int32_t type) : expectedType_(type), header_(type) {}

MessageBase::MessageBase(std::int32_t type, MessageHeader&& header)
    : expectedType_(type), header_(std::move(header)) {
  if (header_.type != type) throw std::logic_error("invalid header for message type");
}

MessageBase::~MessageBase() = default;

std::vector<std::uint8_t> MessageBase::senderIdentity() const {
  return header_.envelope.empty() ? std::vector<std::uint8_t>() : header_.envelope.back().toBytes();
}

void MessageBase::insertEnvelopeFront(ZmqFrame frame) {
  header_.envelope.insert(header_.envelope.begin(), std::move(frame));
}

void MessageBase::removeEnvelopeFront() {
  if (!header_.envelope.empty()) header_.envelope.erase(header_.envelope.begin());
}

bool MessageBase::receive(ZmqSocket& socket) {
  if (!header_.received && readMessageHeader(socket, header_) != HeaderRead::kRead) return false;
  if (header_.type != expectedType_) return false;
  return receiveBody(socket);
}

void MessageBase::send(ZmqSocket& socket) { sendWhole(socket, WhenFull::kWait); }

bool MessageBase::sendUnlessAbandoned(ZmqSocket& socket) {
  return sendWhole(socket, WhenFull::kGiveUpIfAbandoned);
}

bool MessageBase::sendWhole(ZmqSocket& socket, WhenFull whenFull) {
  bool first = true;
  const auto sendHeaderFrame = [&](ZmqFrame& frame) {
    if (!first) {
      sendFurther(socket, frame, ZMQ_SNDMORE);
      return true;
    }
    first = false;
    return socket.sendFirst(frame, ZMQ_SNDMORE, whenFull);
  };
  if (socket.type() != ZMQ_REQ) {  // a REQ socket makes its own delimiter
    for (ZmqFrame& frame : header_.envelope) {
      if (!sendHeaderFrame(frame)) return false;
    }
    ZmqFrame delimiter;
    if (!sendHeaderFrame(delimiter)) return false;
  }
  ZmqFrame signature(kProtocolSignature.data(), kProtocolSignature.size());
  if (!sendHeaderFrame(signature)) return false;
  sendHeaderFrame(header_.typeFrame);
  sendBody(socket);
  return true;
}

bool MessageBase::receiveFrames(ZmqSocket& socket, std::initializer_list<ZmqFrame*> frames) {
  std::size_t left = frames.size();
  for (ZmqFrame* frame : frames) {
    if (!socket.receive(*frame, 0)) return false;
    if (--left > 0 && !socket.receivingMore()) return false;
  }
  if (!socket.receivingMore()) return true;
  socket.discardPending();
  return false;
}

void MessageBase::sendFrames(ZmqSocket& socket, std::initializer_list<ZmqFrame*> frames) {
  std::size_t left = frames.size();
  for (ZmqFrame* frame : frames) sendFurther(socket, *frame, --left > 0 ? ZMQ_SNDMORE : 0);
}

}  // namespace tessel

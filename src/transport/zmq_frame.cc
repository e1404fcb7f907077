#include "transport/zmq_frame.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "transport/zmq_error.h"

namespace tessel {
namespace {

template <typename Buffer>
void releaseBuffer(void* /*data*/, void* buffer) {
  delete static_cast<Buffer*>(buffer);
}

void releaseArray(void* /*data*/, void* array) { delete[] static_cast<std::uint8_t*>(array); }

}  // namespace

ZmqFrame::ZmqFrame() { zmq_msg_init(&message_); }

ZmqFrame::ZmqFrame(Uninitialised /*tag*/, std::size_t size) {
  if (zmq_msg_init_size(&message_, size) != 0) throwZmqError();
}

ZmqFrame ZmqFrame::ofSize(std::size_t size) { return ZmqFrame(Uninitialised{}, size); }

ZmqFrame::ZmqFrame(std::uint8_t value) : ZmqFrame(&value, 1) {}

ZmqFrame::ZmqFrame(std::int8_t value) : ZmqFrame(&value, 1) {}

ZmqFrame::ZmqFrame(bool value) : ZmqFrame(static_cast<std::uint8_t>(value)) {}

ZmqFrame::ZmqFrame(const void* data, std::size_t size) : ZmqFrame(Uninitialised{}, size) {
  if (size != 0) std::memcpy(zmq_msg_data(&message_), data, size);
}

ZmqFrame::ZmqFrame(const std::string& text) : ZmqFrame(text.data(), text.size()) {}

ZmqFrame::ZmqFrame(const std::vector<std::uint8_t>& bytes) : ZmqFrame(bytes.data(), bytes.size()) {}

ZmqFrame::ZmqFrame(const std::unique_ptr<std::uint8_t[]>& bytes, std::size_t size)
    : ZmqFrame(bytes.get(), size) {}

ZmqFrame ZmqFrame::copyOf(const ZmqFrame& other) { return ZmqFrame(other.data(), other.size()); }

template <typename Buffer>
void ZmqFrame::takeOver(std::unique_ptr<Buffer> buffer) {
  if (zmq_msg_init_data(&message_, buffer->data(), buffer->size(), releaseBuffer<Buffer>,
                        buffer.get()) != 0) {
    throwZmqError();
  }
  static_cast<void>(buffer.release());  // freed by releaseBuffer from here on
}

ZmqFrame::ZmqFrame(std::string&& text) { takeOver(std::make_unique<std::string>(std::move(text))); }

ZmqFrame::ZmqFrame(std::vector<std::uint8_t>&& bytes) {
  takeOver(std::make_unique<std::vector<std::uint8_t>>(std::move(bytes)));
}

ZmqFrame::ZmqFrame(std::unique_ptr<std::uint8_t[]>&& bytes, std::size_t size) {
  if (zmq_msg_init_data(&message_, bytes.get(), size, releaseArray, bytes.get()) != 0) {
    throwZmqError();
  }
  static_cast<void>(bytes.release());
}

// An initialised message can always be moved, so neither of these can fail.
ZmqFrame::ZmqFrame(ZmqFrame&& other) noexcept {
  zmq_msg_init(&message_);
  zmq_msg_move(&message_, &other.message_);
}

ZmqFrame& ZmqFrame::operator=(ZmqFrame&& other) noexcept {
  if (this != &other) zmq_msg_move(&message_, &other.message_);
  return *this;
}

ZmqFrame::~ZmqFrame() { zmq_msg_close(&message_); }

ZmqFrame ZmqFrame::share() {
  ZmqFrame frame;
  if (zmq_msg_copy(&frame.message_, &message_) != 0) throwZmqError();
  return frame;
}

std::uint8_t ZmqFrame::firstByte() const { return size() == 0 ? std::uint8_t{0} : bytes()[0]; }

std::uint64_t ZmqFrame::littleEndian64() const {
  const std::size_t present = std::min<std::size_t>(size(), sizeof(std::uint64_t));
  const std::uint8_t* const first = bytes();
  std::uint64_t value = 0;
  for (std::size_t i = present; i-- > 0;) value = value << 8U | first[i];
  return value;
}

ZmqFrame ZmqFrame::ofLittleEndian64(std::uint64_t value) {
  std::uint8_t bytes[sizeof value];
  for (std::uint8_t& byte : bytes) {
    byte = static_cast<std::uint8_t>(value & 0xFFU);
    value >>= 8U;
  }
  return ZmqFrame(bytes, sizeof bytes);
}

std::vector<std::uint8_t> ZmqFrame::toBytes() const {
  return std::vector<std::uint8_t>(bytes(), bytes() + size());
}

std::string ZmqFrame::toString() const {
  return std::string(static_cast<const char*>(data()), size());
}

}  // namespace tessel

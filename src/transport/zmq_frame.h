#ifndef TESSEL_SRC_TRANSPORT_ZMQ_FRAME_H
#define TESSEL_SRC_TRANSPORT_ZMQ_FRAME_H

#include <zmq.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace tessel {

/// One owned part of a message. Moving is cheap and leaves an empty frame behind; copying is always
/// spelled out, as copyOf() (own bytes) or share() (the same bytes, counted by ZeroMQ).
/// Every operation that makes a frame throws std::runtime_error when ZeroMQ cannot.
class ZmqFrame {
 public:
  ZmqFrame();
  /// `size` bytes, not initialised.
  static ZmqFrame ofSize(std::size_t size);

  explicit ZmqFrame(std::uint8_t value);
  explicit ZmqFrame(std::int8_t value);
  explicit ZmqFrame(bool value);

  /// Copies of the bytes. A null pointer goes with size 0.
  ZmqFrame(const void* data, std::size_t size);
  explicit ZmqFrame(const std::string& text);
  explicit ZmqFrame(const std::vector<std::uint8_t>& bytes);
  ZmqFrame(const std::unique_ptr<std::uint8_t[]>& bytes, std::size_t size);
  static ZmqFrame copyOf(const ZmqFrame& other);

  /// Frames that take the buffer over where it lies; ZeroMQ frees it, perhaps on another thread.
  explicit ZmqFrame(std::string&& text);
  explicit ZmqFrame(std::vector<std::uint8_t>&& bytes);
  ZmqFrame(std::unique_ptr<std::uint8_t[]>&& bytes, std::size_t size);

  ZmqFrame(ZmqFrame&& other) noexcept;
  ZmqFrame& operator=(ZmqFrame&& other) noexcept;
  ZmqFrame(const ZmqFrame&) = delete;
  ZmqFrame& operator=(const ZmqFrame&) = delete;
  ~ZmqFrame();

  /// A second frame over the same bytes; neither may be written to afterwards.
  ZmqFrame share();

  void* data() { return zmq_msg_data(&message_); }
  const void* data() const { return zmq_msg_data(raw()); }
  std::size_t size() const { return zmq_msg_size(&message_); }
  /// Whether further frames of the same message follow (set by a receive).
  bool more() const { return zmq_msg_more(&message_) != 0; }

  /// The first byte, 0 when there is none: a peer may send less than it should.
  std::uint8_t firstByte() const;
  bool firstByteAsBool() const { return firstByte() != 0; }
  /// The first eight bytes, least significant first; missing ones are 0.
  std::uint64_t littleEndian64() const;
  static ZmqFrame ofLittleEndian64(std::uint64_t value);

  std::vector<std::uint8_t> toBytes() const;
  std::string toString() const;

  zmq_msg_t* raw() { return &message_; }

 private:
  // ZeroMQ's readers take a pointer to non-const although they do not write.
  zmq_msg_t* raw() const { return const_cast<zmq_msg_t*>(&message_); }
  const std::uint8_t* bytes() const { return static_cast<const std::uint8_t*>(data()); }
  struct Uninitialised {};
  ZmqFrame(Uninitialised tag, std::size_t size);
  template <typename Buffer>
  void takeOver(std::unique_ptr<Buffer> buffer);

  zmq_msg_t message_;
};

}  // namespace tessel

#endif

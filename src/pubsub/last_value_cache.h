#ifndef TESSEL_SRC_PUBSUB_LAST_VALUE_CACHE_H
#define TESSEL_SRC_PUBSUB_LAST_VALUE_CACHE_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "transport/zmq_frame.h"

namespace tessel {

/// A value as the cache keeps it: a copy of the bytes, or the frame that they came in, when it is
/// large. A small frame keeps the whole buffer alive that it was received into.
class KeptValue {
 public:
  const void* data() const { return frame_ == nullptr ? bytes_.data() : frame_->data(); }
  std::size_t size() const { return frame_ == nullptr ? bytes_.size() : frame_->size(); }
  /// A frame to send; a large one is over the same bytes.
  ZmqFrame toFrame() const { return frame_ == nullptr ? ZmqFrame(bytes_) : frame_->share(); }
  /// Bytes held for it.
  std::size_t capacity() const { return frame_ == nullptr ? bytes_.capacity() : frame_->size(); }

  void assign(ZmqFrame& value);

 private:
  std::vector<std::uint8_t> bytes_;
  // Not in the value itself: it would double what small ones take.
  std::unique_ptr<ZmqFrame> frame_;
};

/// The last value of each key.
class LastValueCache {
 public:
  LastValueCache();

  /// Keeps the value, which stays as it is and must not be written to any more; false, and nothing
  /// changes, when its bytes equal those already kept.
  bool store(const std::string& key, ZmqFrame& value);
  /// Null when the key is not kept. Valid until the next change.
  const KeptValue* find(const std::string& key) const;
  /// Whether the key was there.
  bool erase(const std::string& key);
  void clear();
  std::size_t size() const { return values_.size(); }

  /// Calls `call(key)` for each key, in no particular order.
  template <typename Call>
  void forEachKey(const Call& call) const {
    for (const auto& entry : values_) call(entry.first);
  }

 private:
  std::unordered_map<std::string, KeptValue> values_;
};

}  // namespace tessel

#endif

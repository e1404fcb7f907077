#ifndef TESSEL_SRC_PUBSUB_LAST_VALUE_CACHE_H
#define TESSEL_SRC_PUBSUB_LAST_VALUE_CACHE_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

#include "transport/zmq_frame.h"

namespace tessel {

/// A key with its value: a copy of the bytes, or the frame that they came in, when it is large. A
/// small frame keeps the whole buffer alive that it was received into.
///
/// All in one block of memory, since there may be very many: the bytes of the key lie behind the
/// object, and those of a copied value behind them.
class KeptValue {
 public:
  KeptValue(const KeptValue&) = delete;
  KeptValue& operator=(const KeptValue&) = delete;

  std::string_view key() const { return {bytesBehind(), keySize_}; }
  const void* data() const { return frame_ == nullptr ? copy() : frame_->data(); }
  std::size_t size() const { return frame_ == nullptr ? copySize_ : frame_->size(); }
  /// Bytes held for the value.
  std::size_t capacity() const { return frame_ == nullptr ? copyCapacity_ : frame_->size(); }
  /// A frame to send; a large one is over the same bytes.
  ZmqFrame toFrame() const {
    return frame_ == nullptr ? ZmqFrame(copy(), copySize_) : frame_->share();
  }

 private:
  friend class LastValueCache;
  struct Release {
    void operator()(KeptValue* kept) const noexcept;
  };
  using Link = std::unique_ptr<KeptValue, Release>;

  static Link make(std::uint32_t hash, std::string_view key, ZmqFrame& value,
                   std::string_view bytes);
  KeptValue(std::uint32_t hash, std::string_view key, std::size_t capacity) noexcept;
  ~KeptValue() = default;

  bool isOf(std::uint32_t hash, std::string_view key) const {
    return hash_ == hash && this->key() == key;
  }
  std::string_view bytes() const { return {static_cast<const char*>(data()), size()}; }
  /// Whether there is room for a value, and not far more than it needs: what was large once need
  /// not stay so.
  bool fits(std::size_t size) const;
  /// Takes a value that fits, given with its bytes.
  void assign(ZmqFrame& value, std::string_view bytes);

  const char* bytesBehind() const { return reinterpret_cast<const char*>(this + 1); }
  char* bytesBehind() { return reinterpret_cast<char*>(this + 1); }
  const char* copy() const { return bytesBehind() + keySize_; }
  char* copy() { return bytesBehind() + keySize_; }

  Link next_;  // in the same bucket
  // Not in the object itself: it would take more than many a small value does.
  std::unique_ptr<ZmqFrame> frame_;
  const std::size_t keySize_;
  const std::uint32_t hash_;
  std::uint16_t copySize_ = 0;
  const std::uint16_t copyCapacity_;
};

/// The last value of each key. A hash table of its own: those of the standard library either take
/// blocks of their own for what is in them, or cannot be searched by a key that is in none.
class LastValueCache {
 public:
  LastValueCache() : buckets_(kInitialBuckets) {}
  ~LastValueCache() { clear(); }
  LastValueCache(const LastValueCache&) = delete;
  LastValueCache& operator=(const LastValueCache&) = delete;

  /// Keeps the value, which stays as it is and must not be written to any more; false, and nothing
  /// changes, when its bytes equal those already kept.
  bool store(std::string_view key, ZmqFrame& value);
  /// Null when the key is not kept. Valid until the next change.
  const KeptValue* find(std::string_view key) const;
  /// Whether the key was there.
  bool erase(std::string_view key);
  void clear() noexcept;
  std::size_t size() const { return size_; }

  /// Calls `call(key)` for each key, in no particular order.
  template <typename Call>
  void forEachKey(const Call& call) const {
    for (const Link& first : buckets_) {
      for (const KeptValue* kept = first.get(); kept != nullptr; kept = kept->next_.get()) {
        call(kept->key());
      }
    }
  }

 private:
  using Link = KeptValue::Link;

  static constexpr std::size_t kInitialBuckets = 8;

  static Link& bucketOf(std::uint32_t hash, std::vector<Link>& buckets);
  static void putFirst(Link kept, std::vector<Link>& buckets);
  static void dropFirst(Link& first) noexcept;
  /// What owns the value of the key; where there is none, the null at the end of its bucket.
  Link& linkTo(std::uint32_t hash, std::string_view key);
  void insert(Link kept);
  void grow();

  std::vector<Link> buckets_;  // a power of two of them, and no fewer than values
  std::size_t size_ = 0;
};

}  // namespace tessel

#endif

#ifndef TESSEL_SRC_PUBSUB_LAST_VALUE_CACHE_H
#define TESSEL_SRC_PUBSUB_LAST_VALUE_CACHE_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

namespace tessel {

/// The last value of each key. The bytes are copies: a frame that was received keeps the whole
/// buffer alive that it was received into.
class LastValueCache {
 public:
  using Value = std::vector<std::uint8_t>;

  LastValueCache();

  /// Keeps a copy of the bytes; false, and nothing changes, when they equal those already kept.
  bool store(const std::string& key, const void* data, std::size_t size);
  /// Null when the key is not kept. Valid until the next change.
  const Value* find(const std::string& key) const;
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
  std::unordered_map<std::string, Value> values_;
};

}  // namespace tessel

#endif

#include "pubsub/last_value_cache.h"

#include <cstring>

namespace tessel {
namespace {

constexpr std::size_t kInitialBuckets = 8;

bool equal(const LastValueCache::Value& kept, const void* data, std::size_t size) {
  return kept.size() == size && (size == 0 || std::memcmp(kept.data(), data, size) == 0);
}

}  // namespace

LastValueCache::LastValueCache() { clear(); }

bool LastValueCache::store(const std::string& key, const void* data, std::size_t size) {
  const auto* bytes = static_cast<const std::uint8_t*>(data);
  const auto entry = values_.find(key);
  if (entry == values_.end()) {
    values_.emplace(key, Value(bytes, bytes + size));
    return true;
  }
  Value& kept = entry->second;
  if (equal(kept, data, size)) return false;
  if (size < kept.capacity() / 4) kept = Value();  // what was large once need not stay so
  kept.assign(bytes, bytes + size);
  return true;
}

const LastValueCache::Value* LastValueCache::find(const std::string& key) const {
  const auto entry = values_.find(key);
  return entry == values_.end() ? nullptr : &entry->second;
}

bool LastValueCache::erase(const std::string& key) { return values_.erase(key) != 0; }

void LastValueCache::clear() {
  values_ = std::unordered_map<std::string, Value>(kInitialBuckets);
  values_.max_load_factor(1.0F);
}

}  // namespace tessel

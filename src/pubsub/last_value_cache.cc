#include "pubsub/last_value_cache.h"

#include <cstring>
#include <utility>

namespace tessel {
namespace {

constexpr std::size_t kInitialBuckets = 8;

// ZeroMQ receives into buffers of 8192 bytes, which the frames that fit in share. What is larger
// has memory of its own, which costs no more to keep than a copy and saves making it.
constexpr std::size_t kKeepFrameFrom = 8193;

bool equal(const KeptValue& kept, const ZmqFrame& value) {
  return kept.size() == value.size() &&
         (kept.size() == 0 || std::memcmp(kept.data(), value.data(), kept.size()) == 0);
}

}  // namespace

void KeptValue::assign(ZmqFrame& value) {
  const std::size_t size = value.size();
  if (size >= kKeepFrameFrom) {
    if (frame_ == nullptr) frame_ = std::make_unique<ZmqFrame>();
    *frame_ = value.share();
    bytes_ = {};
    return;
  }
  if (size < bytes_.capacity() / 4) bytes_ = {};  // what was large once need not stay so
  const auto* bytes = static_cast<const std::uint8_t*>(value.data());
  bytes_.assign(bytes, bytes + size);
  frame_.reset();
}

LastValueCache::LastValueCache() { clear(); }

bool LastValueCache::store(const std::string& key, ZmqFrame& value) {
  const auto entry = values_.find(key);
  if (entry == values_.end()) {
    KeptValue kept;
    kept.assign(value);
    values_.emplace(key, std::move(kept));
    return true;
  }
  if (equal(entry->second, value)) return false;
  entry->second.assign(value);
  return true;
}

const KeptValue* LastValueCache::find(const std::string& key) const {
  const auto entry = values_.find(key);
  return entry == values_.end() ? nullptr : &entry->second;
}

bool LastValueCache::erase(const std::string& key) { return values_.erase(key) != 0; }

void LastValueCache::clear() {
  values_.clear();  // also when there is no memory for the few buckets of the beginning
  values_ = std::unordered_map<std::string, KeptValue>(kInitialBuckets);
  values_.max_load_factor(1.0F);
}

}  // namespace tessel

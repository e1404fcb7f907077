#include "pubsub/last_value_cache.h"

#include <algorithm>
#include <functional>
#include <limits>
#include <new>
#include <utility>

namespace tessel {
namespace {

// ZeroMQ receives into buffers of 8192 bytes, which the frames that fit in share. What is larger
// has memory of its own, which costs no more to keep than a copy and saves making it.
constexpr std::size_t kKeepFrameFrom = 8193;
static_assert(kKeepFrameFrom <= std::numeric_limits<std::uint16_t>::max(), "or sizes do not fit");

/// Bytes that are copied of a value.
std::size_t copySizeOf(std::size_t size) { return size < kKeepFrameFrom ? size : 0; }

std::uint32_t hashOf(std::string_view key) {
  return static_cast<std::uint32_t>(std::hash<std::string_view>()(key));
}

}  // namespace

KeptValue::KeptValue(std::uint32_t hash, std::string_view key, std::size_t capacity) noexcept
    : keySize_(key.size()), hash_(hash), copyCapacity_(static_cast<std::uint16_t>(capacity)) {
  std::copy(key.begin(), key.end(), bytesBehind());
}

void KeptValue::Release::operator()(KeptValue* kept) const noexcept {
  kept->~KeptValue();
  ::operator delete(kept);
}

KeptValue::Link KeptValue::make(std::uint32_t hash, std::string_view key, ZmqFrame& value,
                                std::string_view bytes) {
  const std::size_t capacity = copySizeOf(bytes.size());
  void* const block = ::operator new(sizeof(KeptValue) + key.size() + capacity);
  Link kept(new (block) KeptValue(hash, key, capacity));
  kept->assign(value, bytes);
  return kept;
}

bool KeptValue::fits(std::size_t size) const {
  const std::size_t needed = copySizeOf(size);
  return needed <= copyCapacity_ && needed >= copyCapacity_ / 4U;
}

void KeptValue::assign(ZmqFrame& value, std::string_view bytes) {
  if (bytes.size() >= kKeepFrameFrom) {
    ZmqFrame shared = value.share();
    if (frame_ == nullptr) frame_ = std::make_unique<ZmqFrame>();
    *frame_ = std::move(shared);
    return;
  }
  std::copy(bytes.begin(), bytes.end(), copy());
  copySize_ = static_cast<std::uint16_t>(bytes.size());
  frame_.reset();
}

bool LastValueCache::store(std::string_view key, ZmqFrame& value) {
  const std::uint32_t hash = hashOf(key);
  const std::string_view bytes(static_cast<const char*>(value.data()), value.size());
  Link& kept = linkTo(hash, key);
  if (kept == nullptr) {
    insert(KeptValue::make(hash, key, value, bytes));
  } else if (kept->bytes() == bytes) {
    return false;
  } else if (kept->fits(bytes.size())) {
    kept->assign(value, bytes);
  } else {
    Link other = KeptValue::make(hash, key, value, bytes);
    other->next_ = std::move(kept->next_);
    kept = std::move(other);
  }
  return true;
}

const KeptValue* LastValueCache::find(std::string_view key) const {
  return const_cast<LastValueCache*>(this)->linkTo(hashOf(key), key).get();
}

bool LastValueCache::erase(std::string_view key) {
  Link& kept = linkTo(hashOf(key), key);
  if (kept == nullptr) return false;
  dropFirst(kept);
  --size_;
  return true;
}

// One after the other: those of a bucket, which may be many if somebody makes keys to that end,
// would otherwise go within each other's destructors. Succeeds without memory, too.
void LastValueCache::clear() noexcept {
  for (Link& first : buckets_) {
    while (first != nullptr) dropFirst(first);
  }
  size_ = 0;
  buckets_.resize(kInitialBuckets);
  buckets_.shrink_to_fit();
}

KeptValue::Link& LastValueCache::bucketOf(std::uint32_t hash, std::vector<Link>& buckets) {
  return buckets[hash & (buckets.size() - 1)];
}

void LastValueCache::putFirst(Link kept, std::vector<Link>& buckets) {
  Link& first = bucketOf(kept->hash_, buckets);
  kept->next_ = std::move(first);
  first = std::move(kept);
}

// The rest comes out first: nothing may be moved from what is released meanwhile.
void LastValueCache::dropFirst(Link& first) noexcept {
  Link rest = std::move(first->next_);
  first = std::move(rest);
}

KeptValue::Link& LastValueCache::linkTo(std::uint32_t hash, std::string_view key) {
  Link* link = &bucketOf(hash, buckets_);
  while (*link != nullptr && !(*link)->isOf(hash, key)) link = &(*link)->next_;
  return *link;
}

void LastValueCache::insert(Link kept) {
  if (size_ == buckets_.size()) grow();
  putFirst(std::move(kept), buckets_);
  ++size_;
}

void LastValueCache::grow() {
  std::vector<Link> wider(2 * buckets_.size());
  for (Link& first : buckets_) {
    while (first != nullptr) {
      Link rest = std::move(first->next_);
      putFirst(std::move(first), wider);
      first = std::move(rest);
    }
  }
  buckets_ = std::move(wider);
}

}  // namespace tessel

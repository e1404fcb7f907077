// What the cache does with memory, and without. In a program of its own, since it stands in for the
// allocation.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "pubsub/last_value_cache.h"
#include "support/failing_allocations.h"

namespace tessel::test {
namespace {

const std::string kKey = "a topic of some length:a tag";

bool store(LastValueCache& cache, const std::string& key, const std::string& value) {
  ZmqFrame frame(value);
  return cache.store(key, frame);
}

std::string kept(const LastValueCache& cache, const std::string& key) {
  const KeptValue* const value = cache.find(key);
  return value == nullptr ? "(absent)" : value->toFrame().toString();
}

TEST(LastValueCacheMemory, IsOneBlockForAKeyAndItsValue) {
  LastValueCache cache;
  const long before = allocationsOut;
  store(cache, kKey, std::string(100, 'x'));
  EXPECT_EQ(allocationsOut, before + 1);
  store(cache, kKey, std::string(8192, 'x'));
  EXPECT_EQ(allocationsOut, before + 1);
  store(cache, kKey, "");
  EXPECT_EQ(allocationsOut, before + 1);
  cache.erase(kKey);
  EXPECT_EQ(allocationsOut, before);
}

TEST(LastValueCacheMemory, IsNotTakenForAValueOfTheSameSize) {
  LastValueCache cache;
  for (const std::size_t size : {0U, 1U, 100U, 8192U, 8193U, 100000U}) {
    SCOPED_TRACE(size);
    store(cache, kKey, std::string(size, 'x'));
    ZmqFrame other(std::string(size, 'y'));
    EXPECT_FALSE(runsOutOfMemory(0, [&] { cache.store(kKey, other); }));
    EXPECT_EQ(kept(cache, kKey), std::string(size, 'y'));
  }
}

TEST(LastValueCacheMemory, IsNotTakenForAValueThatIsSomewhatSmaller) {
  LastValueCache cache;
  store(cache, kKey, std::string(100, 'x'));
  for (const std::size_t size : {99U, 25U, 100U}) {
    SCOPED_TRACE(size);
    ZmqFrame other(std::string(size, 'y'));
    EXPECT_FALSE(runsOutOfMemory(0, [&] { cache.store(kKey, other); }));
    EXPECT_EQ(kept(cache, kKey), std::string(size, 'y'));
  }
}

TEST(LastValueCacheMemory, IsAllGivenBack) {
  const long before = allocationsOut;
  {
    LastValueCache cache;
    const long empty = allocationsOut;
    for (int round = 0; round < 2; ++round) {
      for (int i = 0; i < 1000; ++i) store(cache, std::to_string(i), std::string(9000, 'x'));
      cache.clear();
      EXPECT_EQ(allocationsOut, empty);
    }
    store(cache, kKey, "value");
  }
  EXPECT_EQ(allocationsOut, before);
}

// Whatever is stored, over whatever is kept: another one of its size, larger or smaller, nothing.
TEST(LastValueCacheMemory, LeavesAllAsItWasWhenItRunsOut) {
  const std::string values[] = {"", "small", std::string(8192, 'x'), std::string(8193, 'y')};
  for (const std::string& first : values) {
    for (const std::string& second : values) {
      SCOPED_TRACE(std::to_string(first.size()) + ", " + std::to_string(second.size()));
      if (first == second) continue;
      LastValueCache cache;
      store(cache, kKey, first);
      ZmqFrame value(second);
      int allocations = 0;
      while (runsOutOfMemory(allocations, [&] { cache.store(kKey, value); })) {
        ASSERT_LT(++allocations, 10);
        EXPECT_EQ(cache.size(), 1U);
        EXPECT_EQ(kept(cache, kKey), first);
      }
      EXPECT_EQ(kept(cache, kKey), second);
    }
  }
}

TEST(LastValueCacheMemory, LeavesAllAsItWasWhenANewKeyDoesNotFitAnyMore) {
  LastValueCache cache;
  int failures = 0;
  for (int i = 0; i < 100; ++i) {  // every size of the table up to that
    const std::string key = std::to_string(i);
    ZmqFrame value(std::string(9000, 'x'));
    int allocations = 0;
    while (runsOutOfMemory(allocations, [&] { cache.store(key, value); })) {
      ASSERT_LT(++allocations, 10);
      ++failures;
      ASSERT_EQ(cache.size(), static_cast<std::size_t>(i));
      EXPECT_EQ(cache.find(key), nullptr);
      for (int j = 0; j < i; ++j) EXPECT_NE(cache.find(std::to_string(j)), nullptr);
    }
  }
  EXPECT_EQ(failures, 100 * 2 + 4);  // the block and the owner of its frame; growing at 8, ... 64
}

TEST(LastValueCacheMemory, IsNotNeededToClear) {
  LastValueCache cache;
  for (int i = 0; i < 100; ++i) store(cache, std::to_string(i), "value");
  EXPECT_FALSE(runsOutOfMemory(0, [&] { cache.clear(); }));
  EXPECT_EQ(cache.size(), 0U);
  EXPECT_EQ(cache.find("1"), nullptr);
  EXPECT_TRUE(store(cache, "1", "value"));
}

// Also that of the table, which was wide.
TEST(LastValueCacheMemory, IsAsMuchAfterAClearAsAtFirst) {
  const long before = bytesOut;
  LastValueCache cache;
  const long atFirst = bytesOut - before;
  for (int i = 0; i < 1000; ++i) store(cache, std::to_string(i), "value");
  EXPECT_GT(bytesOut - before, 1000 * static_cast<long>(sizeof(void*)));
  cache.clear();
  EXPECT_LT(bytesOut - before, 2 * atFirst);
}

/// Keys of one bucket, while there are no more than `buckets` of them, a power of two.
std::vector<std::string> keysOfOneBucket(std::size_t buckets) {
  std::vector<std::string> keys;
  for (int i = 0; keys.size() < buckets; ++i) {
    std::string key = std::to_string(i);
    if (std::hash<std::string_view>()(key) % buckets == 0) keys.push_back(std::move(key));
  }
  return keys;
}

// Within each other's destructors they would go at ever lower places of the stack, each by a call
// at least, which takes 16 bytes.
TEST(LastValueCacheMemory, IsGivenBackOneAfterTheOtherWithinABucket) {
  const std::vector<std::string> keys = keysOfOneBucket(512);
  auto cache = std::make_unique<LastValueCache>();
  for (const bool clears : {true, false}) {
    for (const std::string& key : keys) store(*cache, key, "value");
    std::vector<std::string_view> inOrder;
    cache->forEachKey([&](std::string_view key) { inOrder.push_back(key); });
    ASSERT_EQ(inOrder.size(), keys.size());
    // In one bucket the newest come first, since the table has grown.
    EXPECT_TRUE(std::equal(keys.rbegin(), keys.rbegin() + 256, inOrder.begin()));
    const long out = allocationsOut;
    givenBackFrom = StackRange();
    if (clears) {
      cache->clear();
    } else {
      cache.reset();
    }
    const std::uintptr_t stack = givenBackFrom.size();
    EXPECT_LE(allocationsOut, out - static_cast<long>(keys.size()));
    EXPECT_LT(stack, 16 * keys.size() / 2);
  }
}

}  // namespace
}  // namespace tessel::test

#include "pubsub/last_value_cache.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

namespace tessel {
namespace {

using testing::UnorderedElementsAre;

bool store(LastValueCache& cache, const std::string& key, const std::string& value) {
  ZmqFrame frame(value);
  return cache.store(key, frame);
}

std::string kept(const LastValueCache& cache, const std::string& key) {
  const KeptValue* value = cache.find(key);
  return value == nullptr ? "(absent)" : value->toFrame().toString();
}

std::vector<std::string> keys(const LastValueCache& cache) {
  std::vector<std::string> found;
  cache.forEachKey([&](std::string_view key) { found.emplace_back(key); });
  return found;
}

TEST(LastValueCache, IsEmptyAtFirst) {
  const LastValueCache cache;
  EXPECT_EQ(cache.size(), 0U);
  EXPECT_EQ(cache.find("a:b"), nullptr);
  EXPECT_TRUE(keys(cache).empty());
}

TEST(LastValueCache, KeepsTheLastValueOfEachKey) {
  LastValueCache cache;
  EXPECT_TRUE(store(cache, "a:b", "one"));
  EXPECT_TRUE(store(cache, "a:c", "two"));
  EXPECT_TRUE(store(cache, "a:b", "three"));
  EXPECT_EQ(kept(cache, "a:b"), "three");
  EXPECT_EQ(kept(cache, "a:c"), "two");
  EXPECT_EQ(cache.size(), 2U);
}

// A small frame may lie in a buffer with others, which would stay with it.
TEST(LastValueCache, CopiesSmallValuesAndSharesLargeOnes) {
  LastValueCache cache;
  for (const std::size_t size : {0U, 1U, 100U, 8192U, 8193U, 100000U}) {
    SCOPED_TRACE(size);
    ZmqFrame frame(std::string(size, 'x'));
    EXPECT_TRUE(cache.store("a:b", frame));
    EXPECT_EQ(frame.size(), size);  // still there, to be sent
    EXPECT_EQ(kept(cache, "a:b"), std::string(size, 'x'));
    EXPECT_EQ(cache.find("a:b")->data() == frame.data(), size > 8192);
    EXPECT_FALSE(store(cache, "a:b", std::string(size, 'x')));
  }
}

TEST(LastValueCache, KeepsALargeValueWhenItsFrameHasGone) {
  LastValueCache cache;
  const std::string value(100000, 'x');
  store(cache, "a:b", value);
  ZmqFrame first = cache.find("a:b")->toFrame();
  EXPECT_EQ(first.data(), cache.find("a:b")->data());
  EXPECT_TRUE(store(cache, "a:b", std::string(100000, 'y')));
  EXPECT_EQ(first.toString(), value);
  EXPECT_EQ(kept(cache, "a:b"), std::string(100000, 'y'));
}

TEST(LastValueCache, DoesNotKeepTheMemoryOfALargeValueForASmallOne) {
  LastValueCache cache;
  for (const std::size_t large : {1U << 20U, 8193U, 8192U, 100U}) {
    SCOPED_TRACE(large);
    store(cache, "a:b", std::string(large, 'x'));
    EXPECT_EQ(cache.find("a:b")->capacity(), large);
    store(cache, "a:b", "small");
    EXPECT_EQ(kept(cache, "a:b"), "small");
    EXPECT_LT(cache.find("a:b")->capacity(), 20U);
  }
}

TEST(LastValueCache, DoesNotKeepTheMemoryOfASmallValueBesideALargeOne) {
  LastValueCache cache;
  store(cache, "a:b", std::string(8192, 'x'));
  store(cache, "a:b", std::string(8193, 'y'));
  EXPECT_EQ(kept(cache, "a:b"), std::string(8193, 'y'));
  EXPECT_EQ(cache.find("a:b")->capacity(), 8193U);
}

TEST(LastValueCache, KnowsARepeatByItsBytes) {
  LastValueCache cache;
  store(cache, "a:b", std::string("a\0b", 3));
  EXPECT_FALSE(store(cache, "a:b", std::string("a\0b", 3)));
  EXPECT_FALSE(store(cache, "a:b", std::string("a\0b", 3)));
  EXPECT_TRUE(store(cache, "a:b", std::string("a\0c", 3)));  // differs behind the NUL
  EXPECT_TRUE(store(cache, "a:b", std::string("a\0", 2)));   // is shorter
  EXPECT_TRUE(store(cache, "a:b", std::string("a\0c", 3)));  // is longer
  EXPECT_TRUE(store(cache, "a:b", std::string("b\0c", 3)));  // differs at once
  EXPECT_EQ(kept(cache, "a:b"), std::string("b\0c", 3));
}

TEST(LastValueCache, KeepsAnEmptyValueAsAValue) {
  LastValueCache cache;
  EXPECT_TRUE(store(cache, "a:b", ""));
  EXPECT_FALSE(store(cache, "a:b", ""));
  ASSERT_NE(cache.find("a:b"), nullptr);
  EXPECT_EQ(cache.find("a:b")->size(), 0U);
  EXPECT_TRUE(store(cache, "a:b", "x"));
  EXPECT_TRUE(store(cache, "a:b", ""));
  EXPECT_EQ(cache.find("a:b")->size(), 0U);
}

TEST(LastValueCache, TellsKeysApartByAllTheirBytes) {
  LastValueCache cache;
  store(cache, "", "empty");
  store(cache, ":", "colon");
  store(cache, "a:b", "short");
  store(cache, std::string("a:b\0", 4), "long");
  EXPECT_EQ(kept(cache, ""), "empty");
  EXPECT_EQ(kept(cache, ":"), "colon");
  EXPECT_EQ(kept(cache, "a:b"), "short");
  EXPECT_EQ(kept(cache, std::string("a:b\0", 4)), "long");
  EXPECT_EQ(kept(cache, "a:"), "(absent)");
}

/// Two keys that only their bytes tell apart: as much of their hashes as the cache uses is equal.
std::pair<std::string, std::string> keysOfEqualHash() {
  std::unordered_map<std::uint32_t, std::string> keyOf;
  for (int i = 0; i < 1000000; ++i) {
    const std::string key = std::to_string(i);
    const auto hash = static_cast<std::uint32_t>(std::hash<std::string_view>()(key));
    const auto entry = keyOf.emplace(hash, key);
    if (!entry.second) return {entry.first->second, key};
  }
  return {};
}

TEST(LastValueCache, TellsKeysOfEqualHashApart) {
  const auto [one, other] = keysOfEqualHash();
  ASSERT_NE(one, other);
  for (const auto& [first, second] : {std::pair(one, other), std::pair(other, one)}) {
    LastValueCache cache;
    EXPECT_TRUE(store(cache, first, "1"));
    EXPECT_EQ(kept(cache, second), "(absent)");
    EXPECT_FALSE(cache.erase(second));
    EXPECT_TRUE(store(cache, second, "1"));  // no repeat
    EXPECT_THAT(keys(cache), UnorderedElementsAre(first, second));
    EXPECT_TRUE(store(cache, first, "a longer value"));
    EXPECT_TRUE(store(cache, second, "2"));
    EXPECT_EQ(kept(cache, first), "a longer value");
    EXPECT_EQ(kept(cache, second), "2");
    EXPECT_TRUE(cache.erase(first));
    EXPECT_EQ(kept(cache, first), "(absent)");
    EXPECT_EQ(kept(cache, second), "2");
    EXPECT_FALSE(cache.erase(first));
    EXPECT_TRUE(cache.erase(second));
    EXPECT_EQ(cache.size(), 0U);
  }
}

TEST(LastValueCache, ErasesOneKeyAndSaysWhetherItWasThere) {
  LastValueCache cache;
  store(cache, "a:b", "one");
  store(cache, "a:c", "two");
  EXPECT_TRUE(cache.erase("a:b"));
  EXPECT_FALSE(cache.erase("a:b"));
  EXPECT_FALSE(cache.erase("never"));
  EXPECT_EQ(cache.find("a:b"), nullptr);
  EXPECT_EQ(kept(cache, "a:c"), "two");
  EXPECT_TRUE(store(cache, "a:b", "one"));  // no repeat: it had been forgotten
}

TEST(LastValueCache, NamesEachKeyOnce) {
  LastValueCache cache;
  store(cache, "a:b", "one");
  store(cache, "a:c", "two");
  store(cache, "a:b", "three");
  EXPECT_THAT(keys(cache), UnorderedElementsAre("a:b", "a:c"));
}

TEST(LastValueCache, ForgetsEverythingWhenCleared) {
  LastValueCache cache;
  for (int i = 0; i < 1000; ++i) store(cache, std::to_string(i), "value");
  EXPECT_EQ(cache.size(), 1000U);
  cache.clear();
  EXPECT_EQ(cache.size(), 0U);
  EXPECT_EQ(cache.find("1"), nullptr);
  EXPECT_TRUE(store(cache, "1", "value"));
  EXPECT_EQ(kept(cache, "1"), "value");
}

TEST(LastValueCache, CanBeFilledAgainAfterItWasCleared) {
  LastValueCache cache;
  for (int round = 0; round < 3; ++round) {
    for (int i = 0; i < 1000; ++i) EXPECT_TRUE(store(cache, std::to_string(i), "value"));
    cache.clear();
    cache.clear();
    EXPECT_TRUE(keys(cache).empty());
  }
}

// Against a table of the standard library, with keys enough to grow and to meet in a bucket.
TEST(LastValueCache, DoesWhatAMapDoes) {
  LastValueCache cache;
  std::map<std::string, std::string> expected;
  std::mt19937 random(1);
  const auto oneOf = [&](std::uint32_t count) { return random() % count; };
  for (int i = 0; i < 50000; ++i) {
    const std::string key = std::to_string(oneOf(2000));
    if (oneOf(4) == 0) {
      EXPECT_EQ(cache.erase(key), expected.erase(key) != 0);
    } else {
      const std::string value(oneOf(8) == 0 ? 8000 + oneOf(400) : oneOf(20), oneOf(2) ? 'x' : 'y');
      const auto before = expected.find(key);
      EXPECT_EQ(store(cache, key, value), before == expected.end() || before->second != value);
      expected[key] = value;
    }
    EXPECT_EQ(cache.size(), expected.size());
    const std::string other = std::to_string(oneOf(2000));
    const auto there = expected.find(other);
    EXPECT_EQ(kept(cache, other), there == expected.end() ? "(absent)" : there->second);
  }
  std::vector<std::string> expectedKeys;
  for (const auto& entry : expected) expectedKeys.push_back(entry.first);
  std::vector<std::string> found = keys(cache);
  std::sort(found.begin(), found.end());
  EXPECT_EQ(found, expectedKeys);
}

}  // namespace
}  // namespace tessel

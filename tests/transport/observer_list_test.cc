#include "transport/observer_list.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "support/calling_allocator.h"
#include "support/counting_allocator.h"
#include "support/deadline.h"
#include "support/no_hang.h"

namespace tessel::test {
namespace {

class Observer {
 public:
  explicit Observer(std::string name = "") : name_(std::move(name)) {}
  ~Observer() {
    if (atEnd) atEnd();
  }
  Observer(const Observer&) = delete;
  Observer& operator=(const Observer&) = delete;
  const std::string& name() const { return name_; }

  std::function<void()> atEnd;

 private:
  std::string name_;
};

using List = ObserverList<Observer>;

// The names of those called, in order.
std::string called(List& list) {
  std::string names;
  list.notify([&](const Observer& observer) { names += observer.name(); });
  return names;
}

TEST(ObserverList, CallsInOrderOfAttachment) {
  List list;
  EXPECT_EQ(called(list), "");
  const auto a = std::make_shared<Observer>("a");
  const auto b = std::make_shared<Observer>("b");
  const auto c = std::make_shared<Observer>("c");
  list.attach(b);
  list.attach(c);
  list.attach(a);
  EXPECT_EQ(called(list), "bca");
  EXPECT_EQ(called(list), "bca");
}

TEST(ObserverList, HoldsWeaklyAndLeavesOutThoseThatAreGone) {
  List list;
  auto a = std::make_shared<Observer>("a");
  auto b = std::make_shared<Observer>("b");
  const auto c = std::make_shared<Observer>("c");
  list.attach(a);
  list.attach(b);
  list.attach(c);
  EXPECT_EQ(b.use_count(), 1);
  b.reset();
  EXPECT_EQ(called(list), "ac");
  a.reset();
  list.attach(std::make_shared<Observer>("gone at once"));
  EXPECT_EQ(called(list), "c");
}

TEST(ObserverList, KeepsNobodyAliveAfterAPassOrASnapshot) {
  List list;
  const auto observer = std::make_shared<Observer>();
  list.attach(observer);
  EXPECT_EQ(observer.use_count(), 1);
  called(list);
  EXPECT_EQ(observer.use_count(), 1);
  list.snapshot();
  EXPECT_EQ(observer.use_count(), 1);
}

// An entry is a weak reference, which keeps the memory of the object: whoever walks along the list
// lets go of it.
TEST(ObserverList, DoesNotKeepTheMemoryOfThoseThatAreGone) {
  const std::function<void(List&)> walks[] = {
      [](List& list) { called(list); },
      [](List& list) { list.snapshot(); },
      [](List& list) { list.detach(nullptr); },
      [](List& list) { list.detach(std::make_shared<Observer>("never attached")); },
      [](List& list) { const List::Entries released = list.takeAll(); },
  };
  for (const auto& walk : walks) {
    int blocks = 0;
    List list;  // whose weak references hold blocks until its end
    const CountingAllocator<Observer> counting(blocks);
    const auto before = std::allocate_shared<Observer>(counting);
    auto gone = std::allocate_shared<Observer>(counting);
    const auto behind = std::allocate_shared<Observer>(counting);
    for (const auto& observer : {before, gone, gone, behind}) list.attach(observer);
    gone.reset();
    EXPECT_EQ(blocks, 3);
    walk(list);
    EXPECT_EQ(blocks, 2);
  }
}

// With the last weak reference goes what the application gave its shared_ptr besides.
TEST(ObserverList, MayBeCalledByWhatIsFreedWithAnObserver) {
  const auto other = std::make_shared<Observer>("other");
  const std::function<void(List&)> walks[] = {
      [](List& list) { called(list); },
      [](List& list) { list.snapshot(); },
      [](List& list) { list.detach(nullptr); },
      [&](List& list) { list.attach(other); },
      [](List& list) { const List::Entries released = list.takeAll(); },
  };
  for (const auto& walk : walks) {
    List list;
    int calls = 0;
    const std::function<void()> callList = [&] {
      ++calls;
      list.attach(other);
      called(list);
      list.detach(other);
    };
    auto first = callingWhenFreed<Observer>(callList, "first");
    auto second = callingWhenFreed<Observer>(callList, "second");
    for (const auto& observer : {first, second, first}) list.attach(observer);
    first.reset();
    second.reset();
    withoutHanging("walking along the list", [&] { walk(list); });
    EXPECT_EQ(calls, 2);
    const List::Entries rest = list.takeAll();
    for (const auto& entry : rest) EXPECT_EQ(entry.lock(), other);
  }
}

TEST(ObserverList, CallsOneTwiceThatWasAttachedTwice) {
  List list;
  const auto a = std::make_shared<Observer>("a");
  const auto b = std::make_shared<Observer>("b");
  list.attach(a);
  list.attach(b);
  list.attach(a);
  EXPECT_EQ(called(list), "aba");
  list.detach(a);  // every time it is there
  EXPECT_EQ(called(list), "b");
}

TEST(ObserverList, DetachLeavesTheOthersInOrder) {
  List list;
  const auto a = std::make_shared<Observer>("a");
  const auto b = std::make_shared<Observer>("b");
  const auto c = std::make_shared<Observer>("c");
  for (const auto& observer : {a, b, c}) list.attach(observer);
  list.detach(b);
  EXPECT_EQ(called(list), "ac");
  list.detach(b);
  list.detach(std::make_shared<Observer>("never attached"));
  EXPECT_EQ(called(list), "ac");
  list.attach(b);
  EXPECT_EQ(called(list), "acb");
}

TEST(ObserverList, NullDoesNothing) {
  List list;
  const auto a = std::make_shared<Observer>("a");
  list.attach(a);
  list.attach(nullptr);
  list.detach(nullptr);
  EXPECT_EQ(called(list), "a");
}

TEST(ObserverList, TakingAllDetachesThem) {
  List list;
  const auto a = std::make_shared<Observer>("a");
  list.attach(a);
  list.attach(a);
  EXPECT_EQ(list.takeAll().size(), 2U);
  EXPECT_EQ(called(list), "");
  list.attach(a);
  EXPECT_EQ(called(list), "a");
}

TEST(ObserverList, ASnapshotHoldsThoseThatAreAliveInOrder) {
  List list;
  auto a = std::make_shared<Observer>("a");
  const auto b = std::make_shared<Observer>("b");
  const auto c = std::make_shared<Observer>("c");
  for (const auto& observer : {b, a, c, b}) list.attach(observer);
  a.reset();
  const auto snapshot = list.snapshot();
  EXPECT_EQ(snapshot, (std::vector<std::shared_ptr<Observer>>{b, c, b}));
  EXPECT_EQ(list.takeAll().size(), 3U);  // not locked
  EXPECT_EQ(list.snapshot().size(), 0U);
}

TEST(ObserverList, WhatACallThrowsPassesAndTheListStaysUsable) {
  List list;
  const auto a = std::make_shared<Observer>("a");
  list.attach(a);
  EXPECT_THROW(list.notify([](const Observer&) { throw std::runtime_error("no"); }),
               std::runtime_error);
  EXPECT_EQ(a.use_count(), 1);
  EXPECT_EQ(called(list), "a");
}

TEST(ObserverList, AttachingFromAnotherThreadWaitsUntilThePassIsOver) {
  List list;
  const auto a = std::make_shared<Observer>("a");
  const auto b = std::make_shared<Observer>("b");
  list.attach(a);
  std::atomic<bool> attached{false};
  std::atomic<bool> begun{false};
  bool attachedMeanwhile = false;
  std::thread other;
  list.notify([&](const Observer&) {
    other = std::thread([&] {
      begun = true;
      list.attach(b);
      attached = true;
    });
    while (!begun) std::this_thread::yield();
    // Long enough for an attach that does not wait to be seen.
    attachedMeanwhile = eventually([&] { return attached.load(); }, std::chrono::milliseconds(50));
  });
  other.join();
  EXPECT_FALSE(attachedMeanwhile);
  EXPECT_EQ(called(list), "ab");
}

TEST(ObserverList, OneWhoseLastOwnerGoesDuringThePassMayDetachInItsDestructor) {
  List list;
  const auto other = std::make_shared<Observer>("b");
  auto last = std::make_shared<Observer>("a");
  bool destroyed = false;
  last->atEnd = [&] {
    list.detach(other);
    destroyed = true;
  };
  list.attach(last);
  list.attach(other);
  std::string names;
  list.notify([&](const Observer& observer) {
    last.reset();  // the list's own reference is now the last
    names += observer.name();
  });
  EXPECT_EQ(names, "ab");
  EXPECT_TRUE(destroyed);
  EXPECT_EQ(called(list), "");
}

TEST(ObserverList, OneWhoseLastOwnerGoesWhileItIsLookedAtMayUseTheListInItsDestructor) {
  // A detach() looks at those in front first and holds them while it walks along the others, so
  // that it is mostly the one who lets go last.
  List list;
  constexpr std::size_t kInFront = 20;
  std::atomic<std::size_t> destroyed{0};
  std::vector<std::shared_ptr<Observer>> inFront;
  for (std::size_t i = 0; i < kInFront; ++i) {
    inFront.push_back(std::make_shared<Observer>());
    inFront.back()->atEnd = [&] {
      list.detach(nullptr);
      ++destroyed;
    };
    list.attach(inFront.back());
  }
  std::vector<std::shared_ptr<Observer>> others(1000);
  for (auto& other : others) list.attach(other = std::make_shared<Observer>());

  const auto stranger = std::make_shared<Observer>();
  std::atomic<bool> stop{false};
  std::atomic<int> passes{0};
  std::thread detaching([&] {
    for (; !stop; ++passes) list.detach(stranger);
  });
  for (auto& observer : inFront) {
    const int before = passes;
    EXPECT_TRUE(eventually([&] { return passes.load() != before; }));
    observer.reset();
  }
  EXPECT_TRUE(eventually([&] { return destroyed.load() == kInFront; }));
  stop = true;
  detaching.join();
}

TEST(ObserverList, MayBeUsedByManyThreads) {
  List list;
  std::atomic<int> calls{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 3; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 200; ++i) {
        const auto own = std::make_shared<Observer>();
        list.attach(own);
        list.notify([&](const Observer& observer) { calls += observer.name().empty() ? 1 : 0; });
        if (i % 3 == 0) list.detach(own);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_GE(calls.load(), 600);
  EXPECT_EQ(called(list), "");
}

}  // namespace
}  // namespace tessel::test

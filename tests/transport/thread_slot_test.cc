#include "transport/thread_slot.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace tessel::test {
namespace {

std::atomic<int> freed{0};
std::atomic<void*> lastFreed{nullptr};
std::atomic<std::thread::id> freedOn{};

#if defined(_WIN32)
void __stdcall release(void* pointer) {
#else
void release(void* pointer) {
#endif
  ++freed;
  lastFreed = pointer;
  freedOn = std::this_thread::get_id();
}

ThreadSlot& slot() {
  static ThreadSlot& made = *new ThreadSlot(release);
  return made;
}

TEST(ThreadSlot, IsEmptyInEveryThread) {
  int value = 0;
  EXPECT_EQ(slot().get(), nullptr);
  slot().set(&value);
  std::thread([] { EXPECT_EQ(slot().get(), nullptr); }).join();
  EXPECT_EQ(slot().get(), &value);
  slot().set(nullptr);
  EXPECT_EQ(slot().get(), nullptr);
}

TEST(ThreadSlot, FreesItsPointerOnTheThreadThatEnds) {
  freed = 0;
  int value = 0;
  std::thread::id id;
  std::thread([&] {
    id = std::this_thread::get_id();
    slot().set(&value);
  }).join();
  EXPECT_EQ(freed.load(), 1);
  EXPECT_EQ(lastFreed.load(), &value);
  EXPECT_EQ(freedOn.load(), id);
}

TEST(ThreadSlot, FreesNothingOnAThreadThatSetNothing) {
  freed = 0;
  std::thread([] { EXPECT_EQ(slot().get(), nullptr); }).join();
  std::thread([] {
    int value = 0;
    slot().set(&value);
    slot().set(nullptr);
  }).join();
  EXPECT_EQ(freed.load(), 0);
}

TEST(ThreadSlot, SlotsDoNotMeet) {
  static ThreadSlot& other = *new ThreadSlot(release);
  int value = 0;
  slot().set(&value);
  EXPECT_EQ(other.get(), nullptr);
  slot().set(nullptr);
}

}  // namespace
}  // namespace tessel::test

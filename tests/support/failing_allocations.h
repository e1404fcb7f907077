#ifndef TESSEL_TESTS_SUPPORT_FAILING_ALLOCATIONS_H
#define TESSEL_TESTS_SUPPORT_FAILING_ALLOCATIONS_H

#include <malloc.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <new>
#include <utility>

// Stands in for the allocation of the program: for one source of it, and for those who want to see
// what happens without memory.

namespace tessel::test {

/// How many more allocations of this thread succeed; -1 for all.
inline thread_local int allocationsLeft = -1;
/// How many allocations of this thread have succeeded and were not given back by it.
inline thread_local long allocationsOut = 0;
/// How many bytes these are, with what the allocation adds.
inline thread_local long bytesOut = 0;

/// Where on its stack a thread has given memory back, from the lowest address to the highest.
struct StackRange {
  std::uintptr_t lowest = UINTPTR_MAX;
  std::uintptr_t highest = 0;

  std::uintptr_t size() const { return highest < lowest ? 0 : highest - lowest; }
};
inline thread_local StackRange givenBackFrom;

/// Runs `call` with only so many allocations to come; whether they were too few.
template <typename Call>
bool runsOutOfMemory(int allocations, const Call& call) {
  allocationsLeft = allocations;
  bool ranOut = false;
  try {
    call();
  } catch (const std::bad_alloc&) {
    ranOut = true;
  }
  allocationsLeft = -1;
  return ranOut;
}

/// A function of ZeroMQ, which gets all the memory that it needs: without, it ends the process.
template <typename Call>
auto withMemory(const Call& call) {
  const int left = std::exchange(allocationsLeft, -1);
  const auto result = call();
  allocationsLeft = left;
  return result;
}

}  // namespace tessel::test

// Not inlined, as g++ would take what it then sees, new with free(), for a mistake.
[[gnu::noinline]] void* operator new(std::size_t size) {
  using tessel::test::allocationsLeft;
  if (allocationsLeft == 0) throw std::bad_alloc();
  if (allocationsLeft > 0) --allocationsLeft;
  void* const memory = std::malloc(size == 0 ? 1 : size);
  if (memory == nullptr) throw std::bad_alloc();
  ++tessel::test::allocationsOut;
  tessel::test::bytesOut += static_cast<long>(::malloc_usable_size(memory));
  return memory;
}
[[gnu::noinline]] void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
  try {
    return operator new(size);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}
[[gnu::noinline]] void operator delete(void* memory) noexcept {
  if (memory != nullptr) {
    --tessel::test::allocationsOut;
    tessel::test::bytesOut -= static_cast<long>(::malloc_usable_size(memory));
  }
  using tessel::test::givenBackFrom;
  const auto here = reinterpret_cast<std::uintptr_t>(__builtin_frame_address(0));
  givenBackFrom.lowest = std::min(givenBackFrom.lowest, here);
  givenBackFrom.highest = std::max(givenBackFrom.highest, here);
  std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, std::size_t /*size*/) noexcept {
  operator delete(memory);
}

#endif

#ifndef TESSEL_TESTS_SUPPORT_COUNTING_ALLOCATOR_H
#define TESSEL_TESTS_SUPPORT_COUNTING_ALLOCATOR_H

#include <cstddef>
#include <memory>

namespace tessel::test {

/// Counts the blocks that it has out. An object made with it by allocate_shared has one until its
/// last weak reference has gone.
template <typename T>
struct CountingAllocator {
  using value_type = T;
  explicit CountingAllocator(int& count) : blocks(&count) {}
  template <typename U>
  CountingAllocator(const CountingAllocator<U>& other) : blocks(other.blocks) {}  // NOLINT
  T* allocate(std::size_t n) {
    ++*blocks;
    return std::allocator<T>().allocate(n);
  }
  void deallocate(T* block, std::size_t n) {
    --*blocks;
    std::allocator<T>().deallocate(block, n);
  }
  int* blocks;
};
template <typename T, typename U>
bool operator==(const CountingAllocator<T>& a, const CountingAllocator<U>& b) {
  return a.blocks == b.blocks;
}
template <typename T, typename U>
bool operator!=(const CountingAllocator<T>& a, const CountingAllocator<U>& b) {
  return !(a == b);
}

}  // namespace tessel::test

#endif

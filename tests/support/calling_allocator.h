#ifndef TESSEL_TESTS_SUPPORT_CALLING_ALLOCATOR_H
#define TESSEL_TESTS_SUPPORT_CALLING_ALLOCATOR_H

#include <cstddef>
#include <functional>
#include <memory>
#include <new>
#include <utility>

namespace tessel::test {

/// Calls back when the memory is given back: of an object that a shared_ptr owns, when the last
/// weak reference goes.
template <typename T>
struct CallingAllocator {
  using value_type = T;
  explicit CallingAllocator(const std::function<void()>* toCall) : call(toCall) {}
  template <typename U>
  CallingAllocator(const CallingAllocator<U>& other) : call(other.call) {}
  T* allocate(std::size_t count) { return static_cast<T*>(::operator new(count * sizeof(T))); }
  void deallocate(T* memory, std::size_t /*count*/) {
    (*call)();
    ::operator delete(memory);
  }
  template <typename U>
  bool operator==(const CallingAllocator<U>& other) const {
    return call == other.call;
  }
  template <typename U>
  bool operator!=(const CallingAllocator<U>& other) const {
    return call != other.call;
  }
  const std::function<void()>* call;
};

/// An object that does so; `call` has to live longer.
template <typename T, typename... Arguments>
std::shared_ptr<T> callingWhenFreed(const std::function<void()>& call, Arguments&&... arguments) {
  return std::allocate_shared<T>(CallingAllocator<T>(&call), std::forward<Arguments>(arguments)...);
}

}  // namespace tessel::test

#endif

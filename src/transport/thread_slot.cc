#include "transport/thread_slot.h"

#include <cerrno>
#include <system_error>

#if defined(_WIN32)
#ifndef NOMINMAX
#define NOMINMAX
#endif
#include <windows.h>
#else
#include <pthread.h>
#endif

namespace tessel {

#if defined(_WIN32)

ThreadSlot::ThreadSlot(Free free) : key_(FlsAlloc(free)) {
  if (key_ == FLS_OUT_OF_INDEXES) {
    throw std::system_error(static_cast<int>(GetLastError()), std::system_category());
  }
}

void* ThreadSlot::get() const { return FlsGetValue(key_); }

void ThreadSlot::set(void* pointer) {
  if (FlsSetValue(key_, pointer) == 0) {
    throw std::system_error(static_cast<int>(GetLastError()), std::system_category());
  }
}

#else

ThreadSlot::ThreadSlot(Free free) {
  pthread_key_t key{};
  const int error = pthread_key_create(&key, free);
  if (error != 0) throw std::system_error(error, std::generic_category());
  key_ = key;
}

void* ThreadSlot::get() const { return pthread_getspecific(static_cast<pthread_key_t>(key_)); }

void ThreadSlot::set(void* pointer) {
  const int error = pthread_setspecific(static_cast<pthread_key_t>(key_), pointer);
  if (error != 0) throw std::system_error(error, std::generic_category());
}

#endif

}  // namespace tessel

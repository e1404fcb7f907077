#ifndef TESSEL_SRC_TRANSPORT_THREAD_SLOT_H
#define TESSEL_SRC_TRANSPORT_THREAD_SLOT_H

namespace tessel {

/// A pointer of each thread's own, with a function that frees it on that thread when the thread
/// ends.
///
/// A slot of the system rather than a thread_local object: the system frees it after every
/// thread_local object of the application is gone, so one whose destructor still publishes finds
/// its sockets; and g++ for Windows frees thread_local storage before it runs the destructors.
/// Slots are never given back. The main thread's pointer may stay at the end of the process.
class ThreadSlot {
 public:
#if defined(_WIN32)
  using Free = void(__stdcall*)(void*);
#else
  using Free = void (*)(void*);
#endif

  /// Throws std::system_error when the system has no slot left.
  explicit ThreadSlot(Free free);
  ThreadSlot(const ThreadSlot&) = delete;
  ThreadSlot& operator=(const ThreadSlot&) = delete;

  void* get() const;
  /// Throws std::system_error when there is no memory to keep the pointer.
  void set(void* pointer);

 private:
  unsigned long key_ = 0;
};

}  // namespace tessel

#endif

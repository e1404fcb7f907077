#include "transport/seeded_rand.h"

#include <cstdlib>
#include <random>

#if defined(_WIN32)
#include <cerrno>
#include <thread>
#elif defined(__GLIBC__)
#include "transport/mutex.h"
#endif

namespace tessel {

#if defined(_WIN32)

// There rand() is a matter of each thread.
void withSeededRand(const std::function<void()>& call) {
  int error = 0;
  std::thread thread([&] {
    std::srand(std::random_device()());
    call();
    error = errno;
  });
  thread.join();
  errno = error;
}

#elif defined(__GLIBC__)

namespace {

// The C library keeps the address of a state that is replaced, so two threads must not do so at
// once.
Mutex stateMutex;
char state[128] TESSEL_GUARDED_BY(stateMutex);

}  // namespace

void withSeededRand(const std::function<void()>& call) {
  const unsigned seed = std::random_device()();
  const Lock lock(stateMutex);
  char* const replaced = initstate(seed, state, sizeof state);
  call();
  setstate(replaced);
}

#else

// There the state cannot be put back. A sequence that the application began with a seed of its own
// goes on differently.
void withSeededRand(const std::function<void()>& call) {
  std::srand(std::random_device()());
  call();
}

#endif

}  // namespace tessel

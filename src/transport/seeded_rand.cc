#include "transport/seeded_rand.h"

#include <chrono>
#include <cstdlib>
#include <exception>
#include <random>

#if defined(__GLIBC__)
#include "transport/mutex.h"
#endif

namespace tessel {
namespace {

unsigned anySeed() noexcept {
  try {
    return std::random_device()();
  } catch (const std::exception&) {  // it may want a descriptor
    return static_cast<unsigned>(std::chrono::system_clock::now().time_since_epoch().count());
  }
}

#if defined(__GLIBC__)

// Threads one after the other, since the C library goes by the address of a state.
Mutex stateMutex;
alignas(long) char state[128] TESSEL_GUARDED_BY(stateMutex);

// While it exists, rand() has a state of its own.
class ReplacedState {
 public:
  explicit ReplacedState(unsigned seed) TESSEL_REQUIRES(stateMutex)
      : applications_(initstate(seed, state, sizeof state)) {}
  ~ReplacedState() { setstate(applications_); }
  ReplacedState(const ReplacedState&) = delete;
  ReplacedState& operator=(const ReplacedState&) = delete;

 private:
  char* const applications_;
};

#endif

}  // namespace

#if defined(__GLIBC__)

void withSeededRand(const std::function<void()>& call) {
  const unsigned seed = anySeed();
  const Lock lock(stateMutex);
  const ReplacedState replaced(seed);
  call();
}

#else

// On Windows a thread made for it would leave the application's sequence alone, but could not be
// waited for where a DLL makes a broker while it is loaded.
void withSeededRand(const std::function<void()>& call) {
  std::srand(anySeed());
  call();
}

#endif

}  // namespace tessel

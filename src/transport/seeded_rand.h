#ifndef TESSEL_SRC_TRANSPORT_SEEDED_RAND_H
#define TESSEL_SRC_TRANSPORT_SEEDED_RAND_H

#include <functional>

namespace tessel {

/// Runs `call` while rand() of the C library goes by a random seed of 32 bits, so that another
/// process gets the same numbers by accident only, and gives the application's sequence back
/// afterwards; where the C library cannot do that, the sequence goes on differently, on Windows
/// that of the calling thread only. Any thread; errno is that of `call`. What another thread does
/// meanwhile by srand(), initstate() or setstate() is lost.
///
/// ZeroMQ takes from rand() where a ROUTER begins to count the identities of its peers, and seeds
/// it nowhere, so that they are the same in every process: an answer that is late, to a caller of a
/// master that has gone, would find somebody else of that name at the next master.
void withSeededRand(const std::function<void()>& call);

}  // namespace tessel

#endif

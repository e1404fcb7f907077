#ifndef TESSEL_BENCH_PEERS_SUPPORT_PEER_CALLS_H
#define TESSEL_BENCH_PEERS_SUPPORT_PEER_CALLS_H

#include <cstddef>
#include <string>

#include "support/call_loads.h"

namespace tessel::bench {

/// As many as the library has; for a peer that answers on threads of its own.
constexpr std::size_t kWorkers = 4;

/// What is measured of every peer. Its calls by TCP stand beside those of the library to a master,
/// its quickest road within the process beside the local one.
template <typename Tcp, typename Local>
void addPeerCalls(const std::string& peer) {
  for (const std::size_t threads : {1U, 4U}) {
    addCalls<Tcp>("master", {Transport::kTcp, threads, kSmallCall, kCalls}, "/" + peer);
    addCalls<Local>("local", {Transport::kInproc, threads, kSmallCall, kLocalCalls}, "/" + peer);
  }
}

}  // namespace tessel::bench

#endif

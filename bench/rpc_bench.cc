// The road of a call and of its answer, by way of a master, of a slave behind it, and within the
// process; against bare libzmq.

#include <cstddef>
#include <string>

#include "support/call_loads.h"
#include "support/calls.h"
#include "support/measure.h"
#include "support/roads.h"

namespace tessel::bench {
namespace {

template <typename Road, typename Twin>
void addBoth(const std::string& road, const CallLoad& load) {
  addCalls<Road>(road, load, "/tessel");
  addCalls<Twin>(road, load, "/raw");
}

void registerAll() {
  for (const Transport transport : {Transport::kTcp, Transport::kInproc}) {
    addCalls<RawRep>("rep", {transport, 1, kSmallCall, kCalls}, "");
    addBoth<TesselMaster, RawMaster>("master", {transport, 1, kSmallCall, kCalls});
    addBoth<TesselMaster, RawMaster>("master", {transport, 4, kSmallCall, kCalls});
    addBoth<TesselMaster, RawMaster>("master", {transport, 1, 65536, kCalls});
    addBoth<TesselSlave, RawSlave>("slave", {transport, 1, kSmallCall, kCalls});
    addBoth<TesselSlave, RawSlave>("slave", {transport, 4, kSmallCall, kCalls});
  }
  // The twin is the fastest that there is with sockets.
  addCalls<TesselLocal>("local", {Transport::kInproc, 1, kSmallCall, kLocalCalls}, "/tessel");
  addCalls<RawMaster>("local", {Transport::kInproc, 1, kSmallCall, kCalls}, "/raw");
  addCalls<TesselLocal>("local", {Transport::kInproc, 4, kSmallCall, kLocalCalls}, "/tessel");
  addCalls<RawMaster>("local", {Transport::kInproc, 4, kSmallCall, kCalls}, "/raw");
}

}  // namespace
}  // namespace tessel::bench

int main(int argc, char** argv) {
  tessel::bench::registerAll();
  return tessel::bench::runBenchmarks(argc, argv);
}

#ifndef TESSEL_TESTS_TORTURE_NODE_PROCESS_H
#define TESSEL_TESTS_TORTURE_NODE_PROCESS_H

#include <cstdint>
#include <initializer_list>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "support/child_process.h"
#include "torture.h"

namespace tessel::test {

/// A node (see node.cc) and the figures that it is asked for.
class Node {
 public:
  enum OfPublish { kSent };
  // The silence and the way, in milliseconds, are the longest since it was asked last.
  enum OfDispatch {
    kValues,
    kRepeated,
    kDisordered,
    kOverlapping,
    kSilence,
    kWay,
    kLastIncarnation
  };
  // The lateness, in milliseconds, behind the time-out, is the longest since it was asked last.
  enum OfCall { kAnswered, kTimedOut, kNotFound, kWrong, kLateness };
  using Figures = std::vector<std::int64_t>;

  Node(std::initializer_list<std::string> arguments) : Node(TESSEL_NODE, arguments, "ready") {}
  Node(const std::string& program, std::initializer_list<std::string> arguments,
       const std::string& ready)
      : process(program, arguments) {
    require(process.line() == ready, "a process does not come up");
  }

  Figures ask() {
    if (!process.send("\n")) violated("a process has ended by itself");
    std::istringstream line(process.line());
    Figures figures;
    for (std::int64_t figure = 0; line >> figure;) figures.push_back(figure);
    if (figures.empty()) violated("a process does not answer");
    return figures;
  }
  std::int64_t ask(int figure) { return ask().at(static_cast<std::size_t>(figure)); }
  void kill() {
    process.kill();
    require(WIFSIGNALED(process.wait()), "a process has ended by itself");
  }

  ChildProcess process;
};
using NodeHandle = std::unique_ptr<Node>;

inline NodeHandle startNode(std::initializer_list<std::string> arguments) {
  return std::make_unique<Node>(arguments);
}
inline NodeHandle startPubsubBroker(const std::string& pull, const std::string& updates,
                                    const std::string& cache) {
  return std::make_unique<Node>(TESSEL_PUBSUB_PROCESS,
                                std::initializer_list<std::string>{"broker", pull, updates, cache},
                                "started");
}
inline NodeHandle startMaster(const std::string& endpoint) {
  return std::make_unique<Node>(TESSEL_RPC_HELPER_PROCESS,
                                std::initializer_list<std::string>{"master", endpoint}, "ready");
}
/// With a service of the name.
inline NodeHandle startSlave(const std::string& endpoint, const std::string& name) {
  return std::make_unique<Node>(TESSEL_RPC_HELPER_PROCESS,
                                std::initializer_list<std::string>{"slave", endpoint, name, name},
                                "ready");
}

}  // namespace tessel::test

#endif

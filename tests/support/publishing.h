#ifndef TESSEL_TESTS_SUPPORT_PUBLISHING_H
#define TESSEL_TESTS_SUPPORT_PUBLISHING_H

#include <gtest/gtest.h>
#include <tessel/publisher.h>
#include <zmq.h>

#include <string>

#include "support/broker_peers.h"
#include "support/endpoints.h"
#include "support/raw_peer.h"

namespace tessel::test {

inline void publish(const Publisher& publisher, const std::string& value) {
  publisher.publish(value.data(), value.size());
}

/// A broker's receiving end.
class Receiver : public RawPeer {
 public:
  explicit Receiver(const std::string& at = uniqueInproc()) : RawPeer(ZMQ_PULL), endpoint(at) {
    bind(endpoint);
  }
  /// That nothing has come: a marker sent now is the next message. By a publisher on this thread,
  /// so it goes through the socket that anything else went through.
  void expectNothing() {
    publish(Publisher({endpoint}, "marker", "m"), "");
    EXPECT_EQ(receive(), publication("marker", "m", "", 1));
  }
  const std::string endpoint;
};

}  // namespace tessel::test

#endif

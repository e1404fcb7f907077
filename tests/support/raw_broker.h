#ifndef TESSEL_TESTS_SUPPORT_RAW_BROKER_H
#define TESSEL_TESTS_SUPPORT_RAW_BROKER_H

#include <algorithm>
#include <string>
#include <vector>

#include "support/endpoints.h"
#include "support/raw_peer.h"

namespace tessel::test {

/// What a broker reads when somebody subscribes, and unsubscribes.
inline Frames subscribed(const std::string& key) { return {"\x01" + key}; }
inline Frames unsubscribed(const std::string& key) { return {std::string(1, '\0') + key}; }

/// Flags of a notification.
constexpr unsigned long long kLiveFlag = 0;
constexpr unsigned long long kReplayFlag = 1;
constexpr unsigned long long kDeletedFlag = 2;

inline Frames valueMessage(const std::string& key, const std::string& value,
                           unsigned long long flags = kLiveFlag) {
  return {key, value, word(flags)};
}

/// The sending side of a broker as two bare sockets: it sees every subscription as it stands on the
/// wire and sends what a test wants. A message reaches only those whose subscription was read
/// before. One thread at a time.
class RawBroker {
 public:
  explicit RawBroker(const std::string& updatesAt = uniqueInproc(),
                     const std::string& cacheAt = uniqueInproc())
      : updatesEndpoint(updatesAt), cacheEndpoint(cacheAt) {
    updates.set(ZMQ_XPUB_VERBOSE, 1);  // repeated subscriptions too
    cache.set(ZMQ_XPUB_VERBOSE, 1);
    updates.bind(updatesEndpoint);
    cache.bind(cacheEndpoint);
  }

  const std::string updatesEndpoint;
  const std::string cacheEndpoint;
  RawPeer updates{ZMQ_XPUB};
  RawPeer cache{ZMQ_XPUB};
};

/// The next `count` messages of one frame each, sorted: for those that come in no fixed order.
inline std::vector<std::string> sortedFrames(RawPeer& peer, std::size_t count) {
  std::vector<std::string> frames;
  while (frames.size() < count) {
    const Frames message = peer.receive();
    if (message.size() != 1) break;
    frames.push_back(message.front());
  }
  std::sort(frames.begin(), frames.end());
  return frames;
}

}  // namespace tessel::test

#endif

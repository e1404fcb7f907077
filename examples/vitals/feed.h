#ifndef VITALS_FEED_H
#define VITALS_FEED_H

#include <tessel/tessel.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "board.h"
#include "hub_statistics.h"
#include "ports.h"

namespace vitals {

/// Everything that the viewer subscribes to. What it hears it writes on the board.
class Feed {
 public:
  Feed(const Ports& ports, Board& board);

  const HubWatch& hub() const { return *hub_; }
  /// Asks for the sensor's list of keys, and then for the value of each of them.
  void join();
  /// now() when the sensor withdrew its list of keys, the last thing it does; 0 before.
  std::int64_t sensorEnded() const { return sensorEnded_; }

 private:
  // Callbacks, on a thread of the dispatcher. They are of different values and so never overlap.
  void onFirstKeys(const Keys& keys);
  void onKeys(const Keys& keys);
  void onNoKeys();

  void follow(const Keys& keys);

  Board& board_;
  const std::shared_ptr<HubWatch> hub_;
  std::shared_ptr<tessel::Subscriber> firstKeys_;
  std::shared_ptr<tessel::Subscriber> keys_;
  std::map<std::string, std::shared_ptr<tessel::Subscriber>> rows_;         // by key
  std::map<std::string, std::shared_ptr<tessel::MultiSubscriber>> topics_;  // by topic
  std::atomic<std::int64_t> sensorEnded_{0};
  tessel::MessageDispatcher dispatcher_;  // last: it stops before anything it calls goes
};

}  // namespace vitals

#endif

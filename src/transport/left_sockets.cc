#include "transport/left_sockets.h"

#include <algorithm>
#include <new>
#include <utility>

namespace tessel {

LeftSockets& LeftSockets::instance() {
  static LeftSockets& sockets = *new LeftSockets;  // outlives every thread
  return sockets;
}

void LeftSockets::take(Socket socket) noexcept {
  const Lock lock(mutex_);
  if (sockets_.size() >= kMost) sockets_.pop_front();
  try {
    sockets_.push_back(std::move(socket));
  } catch (const std::bad_alloc&) {  // then it is closed
    return;
  }
  // Whoever has bound meanwhile may have looked here too early.
  if (!sockets_.back().mapped().waitsForBinder()) sockets_.pop_back();
}

void LeftSockets::closeConnected() {
  const Lock lock(mutex_);
  const auto isConnected = [](const Socket& socket) { return !socket.mapped().waitsForBinder(); };
  sockets_.erase(std::remove_if(sockets_.begin(), sockets_.end(), isConnected), sockets_.end());
}

}  // namespace tessel

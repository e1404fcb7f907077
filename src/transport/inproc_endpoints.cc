#include "transport/inproc_endpoints.h"

#include <algorithm>

namespace tessel {

InprocEndpoints& InprocEndpoints::instance() {
  static InprocEndpoints& endpoints = *new InprocEndpoints;  // outlives every thread
  return endpoints;
}

bool InprocEndpoints::isInproc(const std::string& endpoint) {
  return endpoint.size() > 9 && endpoint.compare(0, 9, "inproc://") == 0;
}

std::unique_ptr<InprocEndpoints::Connection> InprocEndpoints::connect(
    const std::string& endpoint, const std::function<void(const std::string&)>& connect,
    std::function<void()> onClosed) {
  // Before the lock: if this throws, it takes itself off the books, and for that it takes the lock.
  std::unique_ptr<Connection> connection(new Connection(endpoint, std::move(onClosed)));
  const Lock lock(mutex_);
  Endpoint& entry = endpoints_[endpoint];
  entry.connections.push_back(connection.get());
  if (entry.bound) {
    connect(endpoint);
  } else {
    connection->waitingName_ = "inproc://tessel/waiting" + std::to_string(nextWaitingName_++);
    connect(connection->waitingName_);
  }
  return connection;
}

bool InprocEndpoints::bind(const std::string& endpoint,
                           const std::function<bool(const std::string&)>& bind) {
  const Lock lock(mutex_);
  Endpoint& entry = endpoints_[endpoint];
  if (!bind(endpoint)) {
    dropIfUnused(endpoint);
    return false;
  }
  entry.bound = true;
  for (Connection* connection : entry.connections) {
    // Nobody else knows the name, so that it is free.
    if (!connection->waitingName_.empty()) bind(connection->waitingName_);
    connection->waitingName_.clear();
  }
  return true;
}

void InprocEndpoints::unbind(const std::string& endpoint, const std::function<void()>& unbind) {
  const Lock lock(mutex_);
  unbind();
  const auto entry = endpoints_.find(endpoint);
  if (entry == endpoints_.end()) return;
  const Endpoint closed = std::move(entry->second);
  endpoints_.erase(entry);
  for (Connection* connection : closed.connections) {
    connection->closed_.store(true, std::memory_order_release);
    if (connection->onClosed_) connection->onClosed_();
  }
}

std::string InprocEndpoints::takeBack(Connection& connection) {
  const Lock lock(mutex_);
  remove(connection);
  std::string name;
  name.swap(connection.waitingName_);
  return name;
}

bool InprocEndpoints::waits(const Connection& connection) {
  const Lock lock(mutex_);
  return !connection.waitingName_.empty();
}

bool InprocEndpoints::isBound(const std::string& endpoint) {
  const Lock lock(mutex_);
  const auto entry = endpoints_.find(endpoint);
  return entry != endpoints_.end() && entry->second.bound;
}

void InprocEndpoints::forget(const Connection& connection) {
  const Lock lock(mutex_);
  remove(connection);
}

void InprocEndpoints::remove(const Connection& connection) {
  const auto entry = endpoints_.find(connection.endpoint_);
  if (entry == endpoints_.end()) return;
  // Not there when it was told of a close; those who connected later may be.
  std::vector<Connection*>& connections = entry->second.connections;
  connections.erase(std::remove(connections.begin(), connections.end(), &connection),
                    connections.end());
  dropIfUnused(connection.endpoint_);
}

void InprocEndpoints::dropIfUnused(const std::string& endpoint) {
  const auto entry = endpoints_.find(endpoint);
  if (!entry->second.bound && entry->second.connections.empty()) endpoints_.erase(entry);
}

}  // namespace tessel

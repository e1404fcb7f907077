#include "transport/inproc_endpoints.h"

namespace tessel {

InprocEndpoints& InprocEndpoints::instance() {
  static InprocEndpoints& endpoints = *new InprocEndpoints;  // outlives every thread
  return endpoints;
}

bool InprocEndpoints::isInproc(const std::string& endpoint) {
  return endpoint.compare(0, 9, "inproc://") == 0;
}

InprocEndpoints::ClosedFlag InprocEndpoints::connect(const std::string& endpoint,
                                                     const std::function<void()>& connect) {
  std::shared_ptr<Connected> connected;  // before the lock, also below: released after it
  const Lock lock(mutex_);
  const auto entry = connected_.find(endpoint);
  if (entry != connected_.end()) connected = entry->second.lock();
  if (connected == nullptr) {
    connected = std::make_shared<Connected>(endpoint);
    connected_[endpoint] = connected;
  }
  connect();
  return ClosedFlag(connected, &connected->closed);
}

bool InprocEndpoints::bind(const std::string& endpoint, const std::function<bool()>& bind) {
  const Lock lock(mutex_);
  const bool isNew = bound_.insert(endpoint).second;  // or another socket has the name
  if (bind()) return true;
  if (isNew) bound_.erase(endpoint);
  return false;
}

void InprocEndpoints::unbind(const std::string& endpoint, const std::function<void()>& unbind) {
  std::shared_ptr<Connected> told;
  const Lock lock(mutex_);
  unbind();
  bound_.erase(endpoint);
  told = tellClosed(endpoint);
}

void InprocEndpoints::releaseOrphans(const std::string& endpoint,
                                     const std::function<void()>& takeOver) {
  std::shared_ptr<Connected> told;
  const Lock lock(mutex_);
  if (bound_.count(endpoint) != 0) return;
  takeOver();
  told = tellClosed(endpoint);
}

std::shared_ptr<InprocEndpoints::Connected> InprocEndpoints::tellClosed(
    const std::string& endpoint) {
  const auto entry = connected_.find(endpoint);
  if (entry == connected_.end()) return nullptr;
  std::shared_ptr<Connected> connected = entry->second.lock();
  if (connected != nullptr) connected->closed.store(true, std::memory_order_release);
  connected_.erase(entry);
  return connected;
}

bool InprocEndpoints::isBound(const std::string& endpoint) {
  const Lock lock(mutex_);
  return bound_.count(endpoint) != 0;
}

void InprocEndpoints::forget(const std::string& endpoint) {
  const Lock lock(mutex_);
  const auto entry = connected_.find(endpoint);
  // A newer flag may stand under the name by now.
  if (entry != connected_.end() && entry->second.expired()) connected_.erase(entry);
}

}  // namespace tessel

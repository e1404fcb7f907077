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
  std::shared_ptr<std::atomic<bool>> closed;  // outside the lock: its deleter takes it
  const Lock lock(mutex_);
  connect();
  std::weak_ptr<std::atomic<bool>>& entry = connected_[endpoint];
  closed = entry.lock();
  if (closed == nullptr) {
    closed = std::shared_ptr<std::atomic<bool>>(new std::atomic<bool>(false),
                                                [this, endpoint](const std::atomic<bool>* flag) {
                                                  delete flag;
                                                  forget(endpoint);
                                                });
    entry = closed;
  }
  return closed;
}

bool InprocEndpoints::bind(const std::string& endpoint, const std::function<bool()>& bind) {
  const Lock lock(mutex_);
  if (!bind()) return false;
  bound_.insert(endpoint);
  return true;
}

void InprocEndpoints::unbind(const std::string& endpoint, const std::function<void()>& unbind) {
  ClosedFlag told;  // outside the lock: its deleter takes it
  const Lock lock(mutex_);
  unbind();
  bound_.erase(endpoint);
  told = tellClosed(endpoint);
}

void InprocEndpoints::releaseOrphans(const std::string& endpoint,
                                     const std::function<void()>& takeOver) {
  ClosedFlag told;  // as in unbind()
  const Lock lock(mutex_);
  if (bound_.count(endpoint) != 0) return;
  takeOver();
  told = tellClosed(endpoint);
}

InprocEndpoints::ClosedFlag InprocEndpoints::tellClosed(const std::string& endpoint) {
  const auto entry = connected_.find(endpoint);
  if (entry == connected_.end()) return nullptr;
  const std::shared_ptr<std::atomic<bool>> closed = entry->second.lock();
  if (closed != nullptr) closed->store(true, std::memory_order_release);
  connected_.erase(entry);
  return closed;
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

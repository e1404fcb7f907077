#include <utility>

#include "tessel/rpc_dispatcher.h"
#include "transport/work_queue.h"

namespace tessel {

// Not locked: whoever starts and stops a dispatcher is the one who submits to it.
class ThreadedRpcDispatcherImpl {
 public:
  explicit ThreadedRpcDispatcherImpl(std::size_t count) : threadCount(count) {}

  const std::size_t threadCount;
  std::unique_ptr<WorkQueue> queue;  // null while stopped
};

ThreadedRpcDispatcher::ThreadedRpcDispatcher(std::size_t threadCount)
    : impl_(std::make_unique<ThreadedRpcDispatcherImpl>(threadCount)) {}

ThreadedRpcDispatcher::~ThreadedRpcDispatcher() = default;

void ThreadedRpcDispatcher::start() {
  auto old = std::make_unique<WorkQueue>(impl_->threadCount);
  impl_->queue.swap(old);  // the new one is in place before the old one ends
}

void ThreadedRpcDispatcher::stop() {
  const std::unique_ptr<WorkQueue> ending = std::move(impl_->queue);
}

void ThreadedRpcDispatcher::submit(std::shared_ptr<RpcRequest> request) {
  impl_->queue->push([request = std::move(request)] { request->execute(); });
}

}  // namespace tessel

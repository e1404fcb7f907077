#ifndef TESSEL_RPC_DISPATCHER_H
#define TESSEL_RPC_DISPATCHER_H

#include <cstddef>
#include <memory>
#include <string>

#include "tessel/export.h"

namespace tessel {

class ThreadedRpcDispatcherImpl;

/// One call that a broker has accepted and a dispatcher is to run. It keeps neither the service nor
/// the broker alive: when the service has gone, the caller is told so.
class TESSEL_EXPORT RpcRequest {
 public:
  virtual ~RpcRequest();
  virtual std::string getServiceName() const = 0;
  virtual std::string getInstanceName() const = 0;
  virtual std::string getMethodName() const = 0;
  /// Calls the service and sends the reply; once, on any thread. A request that is never executed
  /// is never answered: its caller times out.
  virtual void execute() = 0;
};

/// Decides on which thread requests run; an application may bring its own.
class TESSEL_EXPORT RpcDispatcher {
 public:
  virtual ~RpcDispatcher();
  /// Called by RpcBroker::start(), before any request.
  virtual void start() = 0;
  /// Called by RpcBroker::stop(), after the last request.
  virtual void stop() = 0;
  /// Called on the broker's thread; must not wait for the request to run.
  virtual void submit(std::shared_ptr<RpcRequest> request) = 0;
};

/// Runs requests on worker threads, first come, first served. One broker each.
///
/// start(), stop() and submit() are for the broker. They are not locked against each other.
class TESSEL_EXPORT ThreadedRpcDispatcher : public RpcDispatcher {
 public:
  /// Starts nothing yet. With 0 threads no request ever runs.
  ThreadedRpcDispatcher(std::size_t threadCount = 4);
  /// As stop().
  virtual ~ThreadedRpcDispatcher();
  ThreadedRpcDispatcher(const ThreadedRpcDispatcher&) = delete;
  ThreadedRpcDispatcher& operator=(const ThreadedRpcDispatcher&) = delete;

  /// Starts the workers; when they run already, in place of those there are, which end as in
  /// stop(). Throws std::system_error when there are no threads to be had.
  void start() override;
  /// Waits for the requests that run and drops the others; their callers time out. Not from a
  /// request of this dispatcher: a worker cannot wait for itself, and the process ends.
  void stop() override;
  /// Between start() and stop() only.
  void submit(std::shared_ptr<RpcRequest> request) override;

 private:
  std::unique_ptr<ThreadedRpcDispatcherImpl> impl_;
};

}  // namespace tessel

#endif

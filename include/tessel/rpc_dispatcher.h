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
  /// Without execute() before, the caller is never answered.
  virtual ~RpcRequest();
  /// Which service is called.
  ///
  /// @return its first name
  virtual std::string getServiceName() const = 0;
  /// Which instance of it.
  ///
  /// @return its second name
  virtual std::string getInstanceName() const = 0;
  /// What it is to do.
  ///
  /// @return the method, as the caller has named it
  virtual std::string getMethodName() const = 0;
  /// Calls the service and sends the reply; once, on any thread, also when the broker has stopped
  /// or gone. A request that is never executed is never answered: its caller times out. What the
  /// service throws becomes the reply.
  ///
  /// @throws std::runtime_error with ZeroMQ's text when the reply could not be sent, because the
  ///     process has no socket left for this thread; the service is not called then
  virtual void execute() = 0;
};

/// Decides on which thread requests run; an application may bring its own.
class TESSEL_EXPORT RpcDispatcher {
 public:
  /// On whichever thread lets go last: the application's, or the one that destroys the broker.
  virtual ~RpcDispatcher();
  /// Called by RpcBroker::start(), before any request.
  virtual void start() = 0;
  /// Called by RpcBroker::stop(), after the last request; and by an RpcBroker::start() that got no
  /// thread, after start().
  virtual void stop() = 0;
  /// Called on the broker's thread; must not wait for the request to run. An exception that leaves
  /// it ends the process.
  ///
  /// @param request the call to run, now or later, on whichever thread
  virtual void submit(std::shared_ptr<RpcRequest> request) = 0;
};

/// Runs requests on worker threads, first come, first served. One broker each.
///
/// start(), stop() and submit() are for the broker. They are not locked against each other.
class TESSEL_EXPORT ThreadedRpcDispatcher : public RpcDispatcher {
 public:
  /// Starts nothing yet.
  ///
  /// @param threadCount how many requests run at once; with 0 none ever runs
  ThreadedRpcDispatcher(std::size_t threadCount = 4);
  /// As stop().
  virtual ~ThreadedRpcDispatcher();
  /// Not copied, nor moved.
  ThreadedRpcDispatcher(const ThreadedRpcDispatcher&) = delete;
  /// Not assigned.
  ThreadedRpcDispatcher& operator=(const ThreadedRpcDispatcher&) = delete;

  /// Starts the workers; when they run already, in place of those there are, which end as in
  /// stop().
  ///
  /// @throws std::system_error when there are no threads to be had
  void start() override;
  /// Waits for the requests that run and drops the others; their callers time out. Not from a
  /// request of this dispatcher: a worker cannot wait for itself, and the process ends.
  void stop() override;
  /// Puts a request at the end of the queue. Between start() and stop() only.
  ///
  /// @param request the call to run
  void submit(std::shared_ptr<RpcRequest> request) override;

 private:
  std::unique_ptr<ThreadedRpcDispatcherImpl> impl_;
};

}  // namespace tessel

#endif

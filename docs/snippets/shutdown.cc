// A process that runs until it is told to end, and ends in order.
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include "support.h"

class Display : public tessel::Subscriber {
 public:
  Display() : Subscriber(tessel::SubscriptionMode::AllValues, "state", "") {}
  guide::Line shown;

 private:
  void onValue(const void* data, std::size_t size) override {
    shown.add(std::string(static_cast<const char*>(data), size));
  }
};

int main() {
  //! [block]
  // First of all, so that every thread inherits it: no handler ever runs, no call is interrupted.
  sigset_t endings;
  sigemptyset(&endings);
  sigaddset(&endings, SIGINT);
  sigaddset(&endings, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &endings, nullptr);
  //! [block]

  tessel::MessageBroker broker({}, {"inproc://updates"}, {"inproc://cache"});
  broker.start();
  tessel::RpcBroker services(true, {"inproc://calls"},
                             std::make_shared<tessel::ThreadedRpcDispatcher>());
  services.start();
  tessel::MessageDispatcher dispatcher("inproc://updates", "inproc://cache");
  dispatcher.start();
  const auto display = std::make_shared<Display>();
  dispatcher.registerSubscriber(display);
  tessel::Publisher(broker, "state", "").publish("running", 7);
  std::cout << display->shown.waitFor(1) << "\n";
  kill(getpid(), SIGTERM);

  //! [wait]
  int ending = 0;
  sigwait(&endings, &ending);
  //! [wait]
  std::cout << "told to end by " << (ending == SIGTERM ? "SIGTERM" : "SIGINT") << "\n";
  //! [order]
  services.stop();    // no more calls; those that run are waited for
  dispatcher.stop();  // no more callbacks; what they use may go now
  broker.stop();      // last, so that withdrawals of publishers that have gone still pass
  //! [order]
  std::cout << "ended\n";
}

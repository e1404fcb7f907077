// A process of its own for the tests to start: the other end of a connection, or one that dies.
//
//   pubsub_process publish ENDPOINT TOPIC TAG VALUE...
//   pubsub_process withdraw ENDPOINT TOPIC TAG VALUE...    withdraws after it has published
//   pubsub_process broker PULL UPDATES CACHE
//   pubsub_process subscribe UPDATES CACHE TOPIC TAG       says what its subscribers get
//   pubsub_process throw PULL                              a broker whose observer throws
//   pubsub_process first                                   says where its first broker is
//
// Each says when it is ready and stays until its input is closed.

#include <tessel/message_broker.h>
#include <tessel/message_dispatcher.h>
#include <tessel/publisher.h>

#include <cstdlib>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using tessel::MessageBroker;
using tessel::Publisher;

void say(const std::string& line) { std::cout << line << std::endl; }  // at once

void waitForInput() {
  std::string line;
  std::getline(std::cin, line);
}

class Throwing : public tessel::MessageBrokerObserver {
 public:
  void onSubscribe(const std::string&, const std::string&) override {}
  void onUnsubscribe(const std::string&, const std::string&) override {}
  void onPublish(const std::string&, const std::string&, bool, bool, bool) override {
    throw std::runtime_error("thrown by an observer");
  }
  void onUnpublish(const std::string&, const std::string&, bool, bool, bool) override {}
};

void publish(const std::vector<std::string>& arguments, bool withdraw) {
  Publisher publisher({arguments.at(1)}, arguments.at(2), arguments.at(3));
  publisher.enableUnpublishOnDestruction(withdraw);
  for (std::size_t i = 4; i < arguments.size(); ++i) {
    publisher.publish(arguments[i].data(), arguments[i].size());
  }
}

std::string textOf(const void* data, std::size_t size) {
  return std::string(static_cast<const char*>(data), size);
}

class Saying : public tessel::Subscriber {
 public:
  Saying(const std::string& name, tessel::SubscriptionMode mode, const std::string& topic,
         const std::string& tag)
      : Subscriber(mode, topic, tag), name_(name) {}

 protected:
  void onValue(const void* data, std::size_t size) override {
    say(name_ + " " + textOf(data, size));
  }
  void onDeletion() override { say(name_ + " deleted"); }

 private:
  const std::string name_;
};

class SayingMulti : public tessel::MultiSubscriber {
 public:
  using MultiSubscriber::MultiSubscriber;

 protected:
  void onValue(const std::string& topic, const std::string& tag, const void* data,
               std::size_t size) override {
    say("multi " + topic + " " + tag + " " + textOf(data, size));
  }
  void onDeletion(const std::string& topic, const std::string& tag) override {
    say("multi " + topic + " " + tag + " deleted");
  }
};

// With one worker, so that its lines come in one piece and, for cached values, in order.
void subscribe(const std::vector<std::string>& arguments) {
  const std::string& topic = arguments.at(3);
  const std::string& tag = arguments.at(4);
  const auto all = std::make_shared<Saying>("all", tessel::SubscriptionMode::AllValues, topic, tag);
  const auto once = std::make_shared<Saying>("once", tessel::SubscriptionMode::Once, topic, tag);
  const auto multi = std::make_shared<SayingMulti>(topic);
  tessel::MessageDispatcher dispatcher(arguments.at(1), arguments.at(2), 1);
  say("started");
  dispatcher.start();
  dispatcher.registerSubscriber(all);
  dispatcher.registerSubscriber(once);
  dispatcher.registerSubscriber(multi);
  waitForInput();
}

int run(const std::vector<std::string>& arguments) {
  const std::string& role = arguments.at(0);
  if (role == "publish" || role == "withdraw") {
    publish(arguments, role == "withdraw");
    say("done");
    waitForInput();  // what is queued is dropped when the process ends
  } else if (role == "broker") {
    MessageBroker broker({arguments.at(1)}, {arguments.at(2)}, {arguments.at(3)});
    broker.start();
    say("started");
    waitForInput();
  } else if (role == "subscribe") {
    subscribe(arguments);
  } else if (role == "throw") {
    MessageBroker broker({arguments.at(1)}, {}, {});
    const auto observer = std::make_shared<Throwing>();
    broker.attach(observer);
    broker.start();
    say("started");
    waitForInput();
  } else if (role == "first") {
    say(MessageBroker({}, {}, {}).getInprocPullTransport());
  } else {
    return 2;
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) { return run(std::vector<std::string>(argv + 1, argv + argc)); }

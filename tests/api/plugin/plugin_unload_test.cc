// A program that has never heard of the library loads and unloads a plugin that uses it. The
// threads of both go on, and code of the library runs when they end.
#include <gtest/gtest.h>
#include <zmq.h>

#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "loaded_plugin.h"
#include "support/deadline.h"
#include "support/endpoints.h"

namespace tessel::test {
namespace {

// A broker that lives on while the plugin that made it comes and goes.
class Broker {
 public:
  Broker() : handle_(LoadedPlugin()->openBroker(pull.c_str(), updates.c_str())) {}
  ~Broker() { LoadedPlugin()->closeBroker(handle_); }
  Broker(const Broker&) = delete;
  Broker& operator=(const Broker&) = delete;

  void use() const { EXPECT_TRUE(LoadedPlugin()->useLibrary(handle_, uniqueInproc().c_str())); }

  const std::string pull = uniqueIpc();
  const std::string updates = uniqueIpc();

 private:
  void* handle_;
};

// Whether what a bare socket publishes arrives at another one.
bool servesValues(const Broker& broker) {
  void* context = zmq_ctx_new();
  void* publisher = zmq_socket(context, ZMQ_PUSH);
  void* listener = zmq_socket(context, ZMQ_SUB);
  const int linger = 0;
  const int patience = 20;
  zmq_setsockopt(publisher, ZMQ_LINGER, &linger, sizeof linger);
  zmq_setsockopt(listener, ZMQ_RCVTIMEO, &patience, sizeof patience);
  zmq_setsockopt(listener, ZMQ_SUBSCRIBE, "raw:", 4);
  zmq_connect(publisher, broker.pull.c_str());
  zmq_connect(listener, broker.updates.c_str());
  const std::vector<std::string> message = {
      "", "RS02", "\x03", "raw", "tag", "value", std::string(8, '\0')};
  const bool served = eventually([&] {
    for (std::size_t i = 0; i < message.size(); ++i) {
      zmq_send(publisher, message[i].data(), message[i].size(),
               ZMQ_DONTWAIT | (i + 1 < message.size() ? ZMQ_SNDMORE : 0));
    }
    char key[8];
    return zmq_recv(listener, key, sizeof key, 0) == 7 && std::string(key, 7) == "raw:tag";
  });
  zmq_close(publisher);
  zmq_close(listener);
  zmq_ctx_term(context);
  return served;
}

TEST(PluginUnload, ThePluginGoesAndComesAgain) {
  for (int round = 0; round < 5; ++round) {
    {
      const Broker broker;
      broker.use();
    }
    ASSERT_FALSE(LoadedPlugin::anywhere());
  }
}

TEST(PluginUnload, ABrokerServesOnWithoutThePluginThatStartedIt) {
  const Broker broker;
  ASSERT_FALSE(LoadedPlugin::anywhere());
  EXPECT_TRUE(servesValues(broker));
  broker.use();
}

TEST(PluginUnload, AThreadThatUsedThePluginEndsAfterIt) {
  const Broker broker;
  for (int round = 0; round < 5; ++round) {
    Gate used;
    Gate unloaded;
    std::thread user([&] {
      broker.use();
      used.open();
      unloaded.pass();
    });  // closes its sockets
    used.pass();
    EXPECT_FALSE(LoadedPlugin::anywhere());
    unloaded.open();
    user.join();
  }
}

TEST(PluginUnload, ManyThreadsLoadAndUnloadAtOnce) {
  const Broker broker;
  std::vector<std::thread> users;
  for (int i = 0; i < 4; ++i) {
    users.emplace_back([&] {
      for (int round = 0; round < 25; ++round) broker.use();
    });
  }
  for (std::thread& user : users) user.join();
  EXPECT_FALSE(LoadedPlugin::anywhere());
  EXPECT_TRUE(servesValues(broker));
}

TEST(PluginUnload, AProgramEndsWhileABrokerRunsOnWithoutItsPlugin) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  EXPECT_EXIT(
      {
        Broker* broker = new Broker;
        broker->use();
        std::exit(servesValues(*broker) ? 0 : 1);
      },
      testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace tessel::test

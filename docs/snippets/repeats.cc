// What a broker does with repeats and withdrawals, as its observers hear it.
#include "support.h"

guide::Line heard;

//! [observer]
class Watch : public tessel::MessageBrokerObserver {
 public:
  void onSubscribe(const std::string& topic, const std::string& tag) override {
    heard.add(topic + ":" + tag + " subscribed\n");
  }
  void onUnsubscribe(const std::string& topic, const std::string& tag) override {
    heard.add(topic + ":" + tag + " given up\n");
  }
  void onPublish(const std::string& topic, const std::string& tag, bool cached, bool cacheUpdated,
                 bool suppressed) override {
    heard.add(topic + ":" + tag + (suppressed ? " suppressed" : " passed on") +
              (cacheUpdated ? ", kept\n"
               : cached     ? ", as it is kept\n"
                            : ", not kept\n"));
  }
  void onUnpublish(const std::string& topic, const std::string& tag, bool removeFromCache,
                   bool cacheUpdated, bool /*suppressed*/) override {
    const bool ends = removeFromCache && !cacheUpdated;
    heard.add(topic + ":" + tag + (ends ? " withdrawal not passed on" : " withdrawn") +
              (cacheUpdated ? ", forgotten\n" : "\n"));
  }
};
//! [observer]

int main() {
  tessel::MessageBroker broker({}, {}, {});
  //! [attach]
  const auto watch = std::make_shared<Watch>();  // the broker does not keep it alive
  broker.attach(watch);
  //! [attach]
  broker.start();
  //! [repeats]
  tessel::Publisher door(broker, "door", "front");
  door.publish("open", 4);  // passed on, kept
  door.publish("open", 4);  // suppressed
  door.enablePublishIfEqual(true);
  door.publish("open", 4);  // passed on
  door.enableCache(false);
  door.publish("shut", 4);  // passed on; the broker still keeps "open"
  //! [repeats]
  //! [withdrawal]
  door.enableCache(true);
  door.unpublish();  // the broker forgets it and passes the withdrawal on
  door.unpublish();  // it is not kept any more: ends at the broker
  door.enableCache(false);
  door.unpublish();  // passed on in any case
  //! [withdrawal]
  std::cout << heard.waitFor(7);
}

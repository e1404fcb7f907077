// Cyclone DDS, reliable, with the key in the type. It has no broker: over the network both ends are
// a domain each, as two processes would have, which meet by UDP on the loopback interface; within
// the process they are one domain. Kept values are those of a transient-local writer.

#include <dds/dds.h>
#include <unistd.h>

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "peers/support/peer_loads.h"
#include "support/try_until.h"
#include "value.h"

namespace tessel::bench {
namespace {

int check(int result) {
  if (result < 0) throw std::runtime_error(dds_strretcode(result));
  return result;
}

enum class Keep { kNothing, kLast };

std::shared_ptr<dds_qos_t> newQos(Keep keep) {
  std::shared_ptr<dds_qos_t> qos(dds_create_qos(), &dds_delete_qos);
  dds_qset_reliability(qos.get(), DDS_RELIABILITY_RELIABLE, DDS_SECS(60));
  if (keep == Keep::kNothing) {
    dds_qset_history(qos.get(), DDS_HISTORY_KEEP_ALL, 0);
  } else {
    dds_qset_history(qos.get(), DDS_HISTORY_KEEP_LAST, 1);
    dds_qset_durability(qos.get(), DDS_DURABILITY_TRANSIENT_LOCAL);
    dds_qset_durability_service(qos.get(), 0, DDS_HISTORY_KEEP_LAST, 1, DDS_LENGTH_UNLIMITED,
                                DDS_LENGTH_UNLIMITED, DDS_LENGTH_UNLIMITED);
  }
  return qos;
}

/// A participant in a domain of its own. Domains of a process meet on the network only.
class Participant {
 public:
  Participant() {
    static dds_domainid_t next = 1;
    const dds_domainid_t domain = next++;
    domain_ = check(dds_create_domain(domain, configuration().c_str()));
    participant_ = check(dds_create_participant(domain, nullptr, nullptr));
  }
  ~Participant() { dds_delete(domain_); }
  Participant(const Participant&) = delete;
  Participant& operator=(const Participant&) = delete;

  dds_entity_t get() const { return participant_; }
  dds_entity_t topic(const char* name) const {
    return check(dds_create_topic(participant_, &tessel_bench_Value_desc, name, nullptr, nullptr));
  }

 private:
  // On the network the domains of a process are one, which other processes hardly share.
  static std::string configuration() {
    return "<CycloneDDS><Domain><General><Interfaces>"
           "<NetworkInterface name=\"lo\" multicast=\"false\"/>"
           "</Interfaces><AllowMulticast>false</AllowMulticast>"
           "<MaxMessageSize>65500B</MaxMessageSize></General><Discovery><ExternalDomainId>" +
           std::to_string(1 + getpid() % 200) +
           "</ExternalDomainId><ParticipantIndex>auto</ParticipantIndex>"
           "<Peers><Peer address=\"127.0.0.1\"/></Peers></Discovery></Domain></CycloneDDS>";
  }

  dds_entity_t domain_ = 0;
  dds_entity_t participant_ = 0;
};

class Writer {
 public:
  Writer(const Participant& participant, const char* topic, Keep keep)
      : writer_(check(dds_create_writer(participant.get(), participant.topic(topic),
                                        newQos(keep).get(), nullptr))) {}

  void write(const std::string& key, const void* data, std::size_t size) {
    tessel_bench_Value value{};
    value.key = const_cast<char*>(key.c_str());  // only read
    value.data._buffer = static_cast<std::uint8_t*>(const_cast<void*>(data));
    value.data._length = value.data._maximum = static_cast<std::uint32_t>(size);
    check(dds_write(writer_, &value));
  }

 private:
  const dds_entity_t writer_;
};

/// Called on a thread of Cyclone's: within the process that of the writer.
class Reader {
 public:
  Reader(const Participant& participant, const char* topic, Keep keep, Callback callback)
      : callback_(std::move(callback)), listener_(dds_create_listener(this), &dds_delete_listener) {
    dds_lset_data_available(listener_.get(), [](dds_entity_t reader, void* self) {
      static_cast<Reader*>(self)->take(reader);
    });
    reader_ = check(dds_create_reader(participant.get(), participant.topic(topic),
                                      newQos(keep).get(), listener_.get()));
  }
  ~Reader() {
    dds_set_listener(reader_, nullptr);  // waits for a call that runs
    dds_delete(reader_);
  }
  Reader(const Reader&) = delete;
  Reader& operator=(const Reader&) = delete;

  bool hasWriter() const {
    dds_subscription_matched_status_t status{};
    check(dds_get_subscription_matched_status(reader_, &status));
    return status.current_count > 0;
  }

 private:
  void take(dds_entity_t reader) {
    constexpr int kMost = 64;
    void* samples[kMost] = {};
    dds_sample_info_t infos[kMost];
    for (;;) {
      const int count = dds_take(reader, samples, infos, kMost, kMost);
      if (count <= 0) return;
      for (int i = 0; i < count; ++i) {
        const auto& data = static_cast<const tessel_bench_Value*>(samples[i])->data;
        if (infos[i].valid_data) callback_(data._buffer, data._length);
      }
      dds_return_loan(reader, samples, count);
    }
  }

  const Callback callback_;
  const std::unique_ptr<dds_listener_t, decltype(&dds_delete_listener)> listener_;
  dds_entity_t reader_ = 0;
};

class CyclonePeer {
 public:
  static constexpr const char* kName = "cyclonedds";

  CyclonePeer(Transport transport, std::size_t subscriptions, const IndexedCallback& callback) {
    if (transport == Transport::kTcp) elsewhere_ = std::make_unique<Participant>();
    const Participant& participant = elsewhere_ ? *elsewhere_ : participant_;
    for (std::size_t i = 0; i < subscriptions; ++i) {
      readers_.push_back(std::make_unique<Reader>(
          participant, kTopic.c_str(), Keep::kNothing,
          [=](const void* data, std::size_t size) { callback(i, data, size); }));
    }
  }
  void publish(const void* data, std::size_t size) { writer_.write(kTag, data, size); }

 private:
  const Participant participant_;
  std::unique_ptr<Participant> elsewhere_;
  Writer writer_{participant_, kTopic.c_str(), Keep::kNothing};
  std::vector<std::unique_ptr<Reader>> readers_;
};

class CycloneCache {
 public:
  static constexpr const char* kName = "cyclonedds";

  explicit CycloneCache(Transport /*only one*/) {}
  void fill(int count) {
    const std::string value(kCachedSize, 'x');
    for (int i = 0; i < count; ++i) writer_.write(cachedTag(i), value.data(), value.size());
  }
  // The participants know each other by then.
  void prepare(int /*count*/, const Callback& callback) {
    callback_ = callback;
    consumer_ = std::make_unique<Participant>();
    const Reader fence(*consumer_, kFence, Keep::kNothing, [](const void*, std::size_t) {});
    tryUntil([&] { return fence.hasWriter(); }, "the participants do not meet");
  }
  void join() {
    reader_ = std::make_unique<Reader>(*consumer_, kTopic.c_str(), Keep::kLast, callback_);
  }

 private:
  static constexpr const char* kFence = "fence";

  const Participant participant_;
  Writer writer_{participant_, kTopic.c_str(), Keep::kLast};
  Writer fence_{participant_, kFence, Keep::kNothing};
  Callback callback_;
  std::unique_ptr<Participant> consumer_;
  std::unique_ptr<Reader> reader_;
};

}  // namespace
}  // namespace tessel::bench

int main(int argc, char** argv) {
  using namespace tessel::bench;
  registerPeer<CyclonePeer>({Transport::kTcp, Transport::kInproc});
  registerPeerReplay<CycloneCache>("replay_all");
  return runBenchmarks(argc, argv);
}

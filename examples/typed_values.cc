#include <tessel/tessel.h>

#include <future>
#include <iostream>

const char kUsage[] = R"(usage: typed_values [--help]
Values are bytes to the library. Two small templates give them a type, with an encoding of the
application's own; what cannot be decoded is not delivered.
)";

struct Reading {
  std::int32_t milliDegrees;
  std::int64_t takenAt;  // seconds since 1970
};

// Twelve bytes, the lowest first: the same on every machine.
std::string encode(const Reading& reading) {
  const auto milliDegrees = static_cast<std::uint32_t>(reading.milliDegrees);
  const auto takenAt = static_cast<std::uint64_t>(reading.takenAt);
  std::string bytes;
  for (int i = 0; i < 4; ++i) bytes += static_cast<char>(milliDegrees >> 8 * i);
  for (int i = 0; i < 8; ++i) bytes += static_cast<char>(takenAt >> 8 * i);
  return bytes;
}

bool decode(const void* data, std::size_t size, Reading& reading) {
  if (size != 12) return false;
  const auto* bytes = static_cast<const std::uint8_t*>(data);
  std::uint32_t milliDegrees = 0;
  std::uint64_t takenAt = 0;
  for (int i = 4; i-- > 0;) milliDegrees = milliDegrees << 8 | bytes[i];
  for (int i = 12; i-- > 4;) takenAt = takenAt << 8 | bytes[i];
  reading = {static_cast<std::int32_t>(milliDegrees), static_cast<std::int64_t>(takenAt)};
  return true;
}

template <typename T>
class ValuePublisher : public tessel::Publisher {
 public:
  using Publisher::Publisher;
  void publish(const T& value) const {
    const std::string bytes = encode(value);
    Publisher::publish(bytes.data(), bytes.size());
  }
};

template <typename T>
class ValueSubscriber : public tessel::Subscriber {
 public:
  using Subscriber::Subscriber;

 protected:
  virtual void onDecoded(const T& value) = 0;

 private:
  void onValue(const void* data, std::size_t size) final {
    T value;
    if (decode(data, size, value)) onDecoded(value);
  }
};

class Display : public ValueSubscriber<Reading> {
 public:
  using ValueSubscriber::ValueSubscriber;
  std::promise<Reading> shown;

 private:
  void onDecoded(const Reading& reading) override { shown.set_value(reading); }
};

int main(int argc, char** argv) {
  if (argc > 1) {
    std::cout << kUsage;
    return std::string(argv[1]) == "--help" ? 0 : 2;
  }
  tessel::MessageBroker broker({}, {"inproc://updates"}, {"inproc://cache"});
  tessel::MessageDispatcher dispatcher("inproc://updates", "inproc://cache");
  broker.start();
  dispatcher.start();
  auto display = std::make_shared<Display>(tessel::SubscriptionMode::AllValues, "reading", "roof");
  dispatcher.registerSubscriber(display);

  tessel::Publisher(broker, "reading", "roof").publish("garbage", 7);
  ValuePublisher<Reading>(broker, "reading", "roof").publish({-4250, 1700000000});
  const Reading reading = display->shown.get_future().get();
  std::cout << "roof: " << reading.milliDegrees / 1000.0 << " degrees at " << reading.takenAt
            << "\n";
}

// Output:
// roof: -4.25 degrees at 1700000000

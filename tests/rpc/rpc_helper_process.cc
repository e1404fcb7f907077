// One part of a service of several processes, for tests that kill and restart them.
//
//   rpc_helper_process master ENDPOINT
//   rpc_helper_process slave ENDPOINT SERVICE NAME
//   rpc_helper_process client ENDPOINT MILLISECONDS SERVICE...
//
// Prints "ready" and runs until its input is closed. A broker then stops, prints "stopped" and
// waits to be killed; a client prints how many calls were answered, timed out, found nobody, got a
// wrong answer, and came back far too late. A slave answers the method "who" with its name.

#include <tessel/rpc_broker.h>
#include <tessel/rpc_client.h>
#include <tessel/rpc_dispatcher.h>
#include <tessel/rpc_error.h>
#include <tessel/service.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// Generous: machines are slow under load, and what is looked for is a call that never returns.
constexpr std::chrono::seconds kSlack{10};

std::string echoOf(const std::string& service, const std::string& method, const std::string& data) {
  return service + "/" + method + "/" + data;
}

class Echo : public tessel::Service {
 public:
  Echo(const std::string& service, const std::string& name) : Service(service, "i"), name_(name) {}
  void callMethod(const std::string& method, const void* data, std::size_t size,
                  std::unique_ptr<std::uint8_t[]>& out, std::size_t& outSize) override {
    const std::string argument(static_cast<const char*>(data), size);
    const std::string result = method == "who" ? name_ : echoOf(getServiceName(), method, argument);
    out = std::make_unique<std::uint8_t[]>(result.size());
    outSize = result.size();
    std::memcpy(out.get(), result.data(), outSize);
  }

 private:
  const std::string name_;
};

void say(const char* line) {
  std::puts(line);
  std::fflush(stdout);
}

void untilInputEnds() {
  say("ready");
  while (std::getchar() != EOF) {
  }
}

int serve(bool master, const std::string& endpoint, const std::string& service,
          const std::string& name) {
  tessel::RpcBroker broker(master, {endpoint}, std::make_shared<tessel::ThreadedRpcDispatcher>());
  broker.registerService(std::make_shared<Echo>(service, name));
  broker.start();
  untilInputEnds();
  broker.stop();
  say("stopped");
  while (true) pause();  // what a slave has just taken back is lost if its socket closes at once
}

struct Tally {
  std::atomic<int> answered{0}, timedOut{0}, notFound{0}, wrong{0}, late{0};
};

void callOnce(tessel::RpcClient& client, const std::string& service, const std::string& data,
              Tally& tally) {
  const auto begun = Clock::now();
  try {
    std::unique_ptr<std::uint8_t[]> out;
    std::size_t size = 0;
    client.CallMethod(service, "i", "m", data.data(), data.size(), out, size);
    const std::string got(reinterpret_cast<const char*>(out.get()), size);
    ++(got == echoOf(service, "m", data) ? tally.answered : tally.wrong);
  } catch (const tessel::rpc_timeout&) {
    ++tally.timedOut;
  } catch (const tessel::rpc_broker_error&) {
    ++tally.notFound;
    std::this_thread::sleep_for(milliseconds(1));
  } catch (const std::exception&) {
    ++tally.wrong;
  }
  if (Clock::now() - begun > client.receiveTimeout() + kSlack) ++tally.late;
}

int call(const std::string& endpoint, int timeout, const std::vector<std::string>& services) {
  tessel::RpcClient client(endpoint, milliseconds(timeout));
  Tally tally;
  std::atomic<bool> over{false};
  std::vector<std::thread> threads;
  for (const std::string& service : services) {
    threads.emplace_back([&client, &tally, &over, service] {
      for (int i = 0; !over; ++i) callOnce(client, service, std::to_string(i), tally);
    });
  }
  untilInputEnds();
  over = true;
  for (std::thread& thread : threads) thread.join();
  std::printf("%d %d %d %d %d\n", tally.answered.load(), tally.timedOut.load(),
              tally.notFound.load(), tally.wrong.load(), tally.late.load());
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::string> words(argv + 1, argv + argc);
  if (words.size() == 2 && words[0] == "master") return serve(true, words[1], "master", "master");
  if (words.size() == 4 && words[0] == "slave") return serve(false, words[1], words[2], words[3]);
  if (words.size() > 3 && words[0] == "client") {
    return call(words[1], std::stoi(words[2]), {words.begin() + 3, words.end()});
  }
  return 2;
}

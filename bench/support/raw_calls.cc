#include "support/raw_calls.h"

#include <cstring>
#include <utility>

namespace tessel::bench::raw {

const std::string kService = "thermometers";
const std::string kInstance = "outside";
const std::string kMethod = "read";

namespace {

constexpr char kReplyEndpoint[] = "inproc://replies";  // of the context, so there is one

constexpr int kRequestFrames = 7;  // without client and delimiter
constexpr int kReplyFrames = 5;    // likewise
constexpr std::size_t kWorkerCount = 4;
constexpr std::size_t kReserved = 4;
constexpr std::size_t kPayload = 8;

// One frame, empty at first.
class Frame {
 public:
  Frame() { zmq_msg_init(&message_); }
  ~Frame() { zmq_msg_close(&message_); }
  Frame(const Frame&) = delete;
  Frame& operator=(const Frame&) = delete;

  zmq_msg_t& operator*() { return message_; }
  void copyBytesOf(zmq_msg_t& other) {
    zmq_msg_init_size(&message_, zmq_msg_size(&other));
    std::memcpy(zmq_msg_data(&message_), zmq_msg_data(&other), zmq_msg_size(&other));
  }

 private:
  zmq_msg_t message_;
};

void sendText(Socket& socket, const std::string& text) {
  socket.send(text.data(), text.size(), ZMQ_SNDMORE);
}

void skip(Socket& socket, zmq_msg_t& frame, int count) {
  for (int i = 0; i < count; ++i) socket.receive(frame);
}

// Waking a thread that sleeps takes longer than most calls; the library avoids it likewise.
template <typename Condition>
void giveWayUntil(const Condition& condition) {
  for (int i = 0; i < 10 && !condition(); ++i) std::this_thread::yield();
}

// Of a reply, from the frame on that `frame` holds to the last one.
void passOn(Socket& socket, zmq_msg_t& frame) {
  while (true) {
    const bool more = zmq_msg_more(&frame) != 0;
    socket.send(frame, more ? ZMQ_SNDMORE : 0);
    if (!more) return;
    socket.receive(frame);
  }
}

}  // namespace

Request::Request() {
  for (zmq_msg_t& frame : frames_) zmq_msg_init(&frame);
}

Request::~Request() {
  for (zmq_msg_t& frame : frames_) zmq_msg_close(&frame);
}

void Request::receive(Socket& socket, std::size_t firstFrame) {
  for (std::size_t i = firstFrame; i < frames_.size(); ++i) socket.receive(frames_[i]);
}

void Request::send(Socket& socket) {
  for (std::size_t i = 0; i + 1 < frames_.size(); ++i) socket.send(frames_[i], ZMQ_SNDMORE);
  socket.send(frames_.back(), 0);
}

void Request::answer(Socket& socket) {
  Frame result;
  result.copyBytesOf(frames_[kPayload]);
  socket.send(frames_[0], ZMQ_SNDMORE);
  socket.send(frames_[1], ZMQ_SNDMORE);
  socket.send("RS02", 4, ZMQ_SNDMORE);
  socket.send("\x01", 1, ZMQ_SNDMORE);
  socket.send(frames_[kReserved], ZMQ_SNDMORE);
  socket.send("", 1, ZMQ_SNDMORE);  // status 0
  socket.send(*result, 0);
}

Workers::Workers(Context& context, const std::string& replyEndpoint) {
  for (std::size_t i = 0; i < kWorkerCount; ++i) {
    threads_.emplace_back([this, &context, replyEndpoint] {
      try {
        Socket socket(context, ZMQ_DEALER);
        socket.set(ZMQ_SNDHWM, 0).connect(replyEndpoint);
        run(socket);
      } catch (const Ended&) {
      }
    });
  }
}

Workers::~Workers() {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    ended_ = true;
    filled_.notify_all();
  }
  for (std::thread& thread : threads_) thread.join();
}

void Workers::push(std::unique_ptr<Request> request) {
  const std::lock_guard<std::mutex> lock(mutex_);
  requests_.push_back(std::move(request));
  ++count_;
  if (sleeping_ > 0) filled_.notify_one();
}

void Workers::run(Socket& socket) {
  while (const std::unique_ptr<Request> request = next()) request->answer(socket);
}

std::unique_ptr<Request> Workers::next() {
  giveWayUntil([this] { return count_ != 0; });
  std::unique_lock<std::mutex> lock(mutex_);
  while (requests_.empty() && !ended_) {
    ++sleeping_;
    filled_.wait(lock);
    --sleeping_;
  }
  if (ended_) return nullptr;
  std::unique_ptr<Request> request = std::move(requests_.front());
  requests_.pop_front();
  --count_;
  return request;
}

Master::Master(Context& context, const std::string& endpoint)
    : router_(context, ZMQ_ROUTER), workers_(context, kReplyEndpoint) {
  router_.bind(endpoint).bind(kReplyEndpoint);
}

// What comes from a client has an empty frame behind the sender, a reply the client's identity.
template <typename Serve>
void Master::serve(const Serve& serveRequest) {
  Frame second;
  auto request = std::make_unique<Request>();
  while (true) {
    router_.receive(request->client());
    router_.receive(*second);
    if (zmq_msg_size(&*second) != 0) {
      passOn(router_, *second);
    } else {
      request->receive(router_, 2);
      serveRequest(request);
    }
  }
}

void Master::run() {
  serve([this](std::unique_ptr<Request>& request) {
    workers_.push(std::move(request));
    request = std::make_unique<Request>();
  });
}

void Master::awaitSlave() {
  Frame slave;
  Frame hello;
  router_.receive(*slave);
  router_.receive(*hello);
  slave_.assign(static_cast<const char*>(zmq_msg_data(&*slave)), zmq_msg_size(&*slave));
}

void Master::runForSlave() {
  serve([this](std::unique_ptr<Request>& request) {
    sendText(router_, slave_);
    request->send(router_);
  });
}

Slave::Slave(Context& context, const std::string& endpoint)
    : dealer_(context, ZMQ_DEALER), workers_(context, endpoint) {
  dealer_.connect(endpoint).send("here", 4, 0);
}

void Slave::run() {
  while (true) {
    auto request = std::make_unique<Request>();
    request->receive(dealer_);
    workers_.push(std::move(request));
  }
}

RepServer::RepServer(Context& context, const std::string& endpoint) : rep_(context, ZMQ_REP) {
  rep_.bind(endpoint);
}

void RepServer::run() {
  Frame frame;
  while (true) {
    skip(rep_, *frame, kRequestFrames);
    Frame result;
    result.copyBytesOf(*frame);
    rep_.send("RS02", 4, ZMQ_SNDMORE);
    rep_.send("\x01", 1, ZMQ_SNDMORE);
    rep_.send("", 1, ZMQ_SNDMORE);
    rep_.send("", 1, ZMQ_SNDMORE);
    rep_.send(*result, 0);
  }
}

Caller::Caller(Context& context, const std::string& endpoint) : req_(context, ZMQ_REQ) {
  req_.connect(endpoint);
  zmq_msg_init(&payload_);
}

Caller::~Caller() { zmq_msg_close(&payload_); }

void Caller::call(const void* data, std::size_t size) {
  req_.send("RS02", 4, ZMQ_SNDMORE);
  req_.send("", 1, ZMQ_SNDMORE);  // type 0
  req_.send("", 1, ZMQ_SNDMORE);  // reserved
  sendText(req_, kService);
  sendText(req_, kInstance);
  sendText(req_, kMethod);
  req_.send(data, size, 0);
  skip(req_, payload_, kReplyFrames);
}

}  // namespace tessel::bench::raw

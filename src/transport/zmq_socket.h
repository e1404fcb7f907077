#ifndef TESSEL_SRC_TRANSPORT_ZMQ_SOCKET_H
#define TESSEL_SRC_TRANSPORT_ZMQ_SOCKET_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "transport/inproc_endpoints.h"
#include "transport/zmq_frame.h"

namespace tessel {

/// For ZMQ_SNDHWM and ZMQ_RCVHWM: a queue without a limit.
constexpr int kNoHighWaterMark = 0;

/// What a sender does whose queue is full.
enum class WhenFull {
  kWait,
  kGiveUpIfAbandoned  // as soon as nobody in this process is bound to the in-process endpoint
};

/// One owned socket of the process's context, with linger 0; used by one thread at a time.
/// What ZeroMQ refuses is thrown as std::runtime_error with its text; a time-out is no failure.
class ZmqSocket {
 public:
  /// When this process has just closed a socket and has none left, waits up to a second for its
  /// place: ZeroMQ closes in the background.
  explicit ZmqSocket(int type);
  ZmqSocket(int type, const std::string& endpoint);
  ~ZmqSocket();
  ZmqSocket(const ZmqSocket&) = delete;
  ZmqSocket& operator=(const ZmqSocket&) = delete;

  int type() const { return type_; }
  const std::string& endpoint() const { return endpoint_; }
  int receiveTimeout() const { return receiveTimeout_; }
  void* handle() const { return handle_; }

  /// Not while it still waits for somebody to bind an in-process endpoint that it was given before.
  void connect(const std::string& endpoint);
  /// What to do when the in-process endpoint is closed that it is connected to, on the thread that
  /// closes it, with the books of endpoints locked: no more than waking the socket's owner. Before
  /// connect().
  void onPeerGone(std::function<void()> wake) { onPeerGone_ = std::move(wake); }
  /// Connects once more if the in-process peer has gone, as ZeroMQ does by itself where there are
  /// connections. What has arrived from that peer can still be read. For a socket that subscribes:
  /// one that sends would go on to share its messages out to the peer that has gone.
  void connectAgainIfPeerGone();
  /// When this process has just closed a bound socket, waits up to 100 ms for an endpoint in use.
  void bind(const std::string& endpoint);
  /// Milliseconds; -1 waits for ever, and so does everything above the 32-bit range.
  void setReceiveTimeout(std::int64_t milliseconds);
  /// Queues what is sent without a limit, also after a reconnect. Before connect().
  void liftSendLimit();
  /// No signal handler ends the waiting for a message any more: for the library's own waits.
  void waitThroughSignals() { waitsThroughSignals_ = true; }
  void setOption(int option, const void* value, std::size_t size);
  void setOption(int option, int value) { setOption(option, &value, sizeof value); }
  void setOption(int option, const std::string& value) {
    setOption(option, value.data(), value.size());
  }

  /// True when sent, and the frame is then empty; false when that would have to wait.
  bool send(ZmqFrame& frame, int flags);
  bool send(std::shared_ptr<ZmqFrame>&& frame, int flags);
  /// False on a time-out, with ZMQ_DONTWAIT when nothing is there, or at once when the in-process
  /// peer of a request went before it had the whole of it. A signal handler ends the waiting for a
  /// message: thrown, but for waitThroughSignals(). Nothing else that a socket does is ended by
  /// one.
  bool receive(ZmqFrame& frame, int flags);
  bool receive(const std::shared_ptr<ZmqFrame>& frame, int flags);
  /// Whether the last frame received has others behind it.
  bool receivingMore() const { return receivingMore_; }
  /// Drops what is left of a message whose last frame read said that more would follow.
  void discardPending();
  /// Drops all messages that have come, between two messages.
  void discardWaiting();

  /// Sends the first frame of a message: connects again first if the in-process peer has gone, and
  /// waits without missing that when the queue is full. Throws when the connect had failed, since
  /// nothing would ever take the message. False only when it has given up: for those who must not
  /// wait for a newcomer. The other frames follow with send().
  bool sendFirst(ZmqFrame& frame, int flags, WhenFull whenFull = WhenFull::kWait);

  /// A new socket of the same type, time-out, send limit and endpoint. Other options are not kept.
  void reconnect();
  /// Whether the in-process endpoint was closed since the connect: what was sent there is lost.
  bool peerGone() const;
  /// Whether nobody has bound the in-process endpoint since the connect.
  bool waitsForBinder() const;
  /// Whether ZeroMQ refused the last connect; sendFirst() then throws why.
  bool connectFailed() const { return connectError_ != 0; }
  /// Also where nobody has bound the in-process endpoint: then what was sent there is dropped.
  void close();

 private:
  void create();
  void unbindAll();
  void leavePeer();
  bool tryBind(const std::string& endpoint);
  void ensureConnected();
  bool sendFirstNow(ZmqFrame& frame, int flags);
  bool isAbandoned() const;
  void waitWritable();

  void* handle_ = nullptr;
  int type_;
  std::string endpoint_;
  int receiveTimeout_ = -1;
  bool sendLimitLifted_ = false;
  bool waitsThroughSignals_ = false;
  bool receivingMore_ = false;
  int connectError_ = 0;  // of the last connect; 0 when it succeeded
  std::function<void()> onPeerGone_;
  std::unique_ptr<InprocEndpoints::Connection> inproc_;  // null unless to an in-process endpoint
  std::vector<std::string> boundEndpoints_;              // as ZeroMQ resolved them
};

}  // namespace tessel

#endif

#ifndef TESSEL_BENCH_PEERS_SUPPORT_READER_THREAD_H
#define TESSEL_BENCH_PEERS_SUPPORT_READER_THREAD_H

#include <cstddef>
#include <functional>
#include <thread>
#include <vector>

namespace tessel::bench {

/// A thread that waits for connections to become readable and reads what has come.
class ReaderThread {
 public:
  /// `read(index)` is called on the thread while the connection with this index has something.
  ReaderThread(const std::vector<int>& connections, const std::function<void(std::size_t)>& read);
  /// Waits for the call that runs.
  ~ReaderThread();
  ReaderThread(const ReaderThread&) = delete;
  ReaderThread& operator=(const ReaderThread&) = delete;

 private:
  void run();

  std::function<void(std::size_t)> read_;
  int poll_;
  int stop_;
  std::size_t stopIndex_;
  std::thread thread_;
};

}  // namespace tessel::bench

#endif

#include "transport/seeded_rand.h"

#include <gtest/gtest.h>
#include <zmq.h>

#include <cerrno>
#include <cstdlib>
#include <deque>
#include <new>
#include <set>
#include <string>
#include <vector>

#include "support/endpoints.h"
#include "support/raw_peer.h"
#include "support/threads.h"
#include "transport/zmq_socket.h"

namespace tessel::test {
namespace {

constexpr unsigned kApplicationsSeed = 7;

std::vector<int> numbers(int count) {
  std::vector<int> numbers;
  for (int i = 0; i < count; ++i) numbers.push_back(std::rand());
  return numbers;
}

// By which name the first of its peers is known to a ROUTER of the library.
std::string firstPeerOf(const ZmqSocket& router, const std::string& endpoint) {
  RawPeer peer(ZMQ_DEALER);
  peer.connect(endpoint).send({"x"});
  std::string name(16, '\0');
  const int size = zmq_recv(router.handle(), name.data(), name.size(), 0);
  EXPECT_GT(size, 0);
  name.resize(size > 0 ? static_cast<std::size_t>(size) : 0);
  return name;
}

TEST(SeededRand, GivesNumbersOfItsOwnWhateverTheApplicationsSeed) {
  std::set<std::vector<int>> found;
  for (int i = 0; i < 10; ++i) {
    std::srand(kApplicationsSeed);
    withSeededRand([&] { found.insert(numbers(4)); });
  }
  EXPECT_EQ(found.size(), 10);
}

TEST(SeededRand, GivesTheApplicationItsSequenceBack) {
  std::srand(kApplicationsSeed);
  const std::vector<int> expected = numbers(8);
  std::srand(kApplicationsSeed);
  std::vector<int> found = numbers(3);
  withSeededRand([] { numbers(5); });
  for (const int number : numbers(5)) found.push_back(number);
  EXPECT_EQ(found, expected);
}

TEST(SeededRand, GivesItBackAfterAnException) {
  std::srand(kApplicationsSeed);
  const std::vector<int> expected = numbers(4);
  std::srand(kApplicationsSeed);
  EXPECT_THROW(withSeededRand([] { throw std::bad_alloc(); }), std::bad_alloc);
  EXPECT_EQ(numbers(4), expected);
}

TEST(SeededRand, GivesItBackWhenASocketIsMade) {
  std::srand(kApplicationsSeed);
  const std::vector<int> expected = numbers(8);
  for (const int type : {ZMQ_ROUTER, ZMQ_DEALER, ZMQ_PAIR}) {
    std::srand(kApplicationsSeed);
    const ZmqSocket socket(type);
    EXPECT_EQ(numbers(8), expected) << type;
  }
}

TEST(SeededRand, GivesItBackToThreadsAtOnce) {
  std::srand(kApplicationsSeed);
  const std::vector<int> expected = numbers(8);
  std::srand(kApplicationsSeed);
  std::deque<ScopedThread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([] {
      for (int j = 0; j < 1000; ++j) withSeededRand([] { std::rand(); });
    });
  }
  threads.clear();
  EXPECT_EQ(numbers(8), expected);
}

TEST(SeededRand, KeepsTheErrorOfWhatItRuns) {
  errno = 0;
  withSeededRand([] { errno = EMFILE; });
  EXPECT_EQ(errno, EMFILE);
}

// Processes that start alike would otherwise give the same names, as ZeroMQ does by itself.
TEST(SeededRand, MakesARouterNameItsPeersAsNoOtherDoes) {
  std::set<std::string> names;
  for (int i = 0; i < 10; ++i) {
    const std::string endpoint = uniqueInproc();
    std::srand(kApplicationsSeed);
    ZmqSocket router(ZMQ_ROUTER);
    router.bind(endpoint);
    names.insert(firstPeerOf(router, endpoint));
  }
  EXPECT_EQ(names.size(), 10);
}

}  // namespace
}  // namespace tessel::test

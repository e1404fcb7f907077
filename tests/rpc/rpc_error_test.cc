#include <gtest/gtest.h>
#include <tessel/rpc_error.h>

#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "rpc/rpc_error_impl.h"
#include "support/failing_allocations.h"
#include "support/raw_peer.h"
#include "support/zmq_errors.h"

namespace tessel::test {
namespace {

using Bytes = std::vector<std::uint8_t>;

template <typename Error>
constexpr bool isAWellBehavedError() {
  return std::is_copy_constructible_v<Error> && std::is_nothrow_move_constructible_v<Error> &&
         !std::is_copy_assignable_v<Error> && !std::is_move_assignable_v<Error> &&
         std::has_virtual_destructor_v<Error>;
}
static_assert(isAWellBehavedError<rpc_error>());
static_assert(isAWellBehavedError<rpc_broker_error>());
static_assert(isAWellBehavedError<rpc_timeout>());
static_assert(isAWellBehavedError<rpc_service_error>());
static_assert(isAWellBehavedError<rpc_custom_error>());

static_assert(std::is_base_of_v<std::runtime_error, rpc_error>);
static_assert(std::is_base_of_v<rpc_error, rpc_broker_error>);
static_assert(std::is_base_of_v<rpc_broker_error, rpc_timeout>);
static_assert(std::is_base_of_v<rpc_error, rpc_service_error>);
static_assert(std::is_base_of_v<rpc_service_error, rpc_custom_error>);
static_assert(!std::is_base_of_v<rpc_service_error, rpc_broker_error>);
static_assert(!std::is_base_of_v<rpc_broker_error, rpc_service_error>);

std::string payload(const rpc_custom_error& error) {
  return std::string(static_cast<const char*>(error.data()), error.size());
}

// The first of the types that a handler of it catches the error by.
template <typename... Types>
struct CaughtBy;
template <typename Type, typename... Others>
struct CaughtBy<Type, Others...> {
  template <typename Error>
  static bool all(const Error& error) {
    bool caught = false;
    try {
      throw error;
    } catch (const Type&) {
      caught = true;
    } catch (...) {
    }
    return caught && CaughtBy<Others...>::all(error);
  }
};
template <>
struct CaughtBy<> {
  template <typename Error>
  static bool all(const Error& /*error*/) {
    return true;
  }
};

TEST(RpcError, SaysWhatItWasGiven) {
  const std::string text = "what happened";
  EXPECT_STREQ(rpc_error(text).what(), "what happened");
  EXPECT_STREQ(rpc_error("what happened").what(), "what happened");
  EXPECT_STREQ(rpc_broker_error(text).what(), "what happened");
  EXPECT_STREQ(rpc_broker_error("what happened").what(), "what happened");
  EXPECT_STREQ(rpc_service_error(text).what(), "what happened");
  EXPECT_STREQ(rpc_service_error("what happened").what(), "what happened");
  EXPECT_STREQ(rpc_error("").what(), "");
}

TEST(RpcError, ATimeoutAndACustomErrorAlwaysSayTheSame) {
  EXPECT_STREQ(rpc_timeout().what(), "RPC timeout");
  EXPECT_STREQ(rpc_custom_error("abc", 3).what(), "RPC custom error");
  EXPECT_STREQ(rpc_custom_error(std::string("abc")).what(), "RPC custom error");
  EXPECT_STREQ(rpc_custom_error(Bytes{1}).what(), "RPC custom error");
  EXPECT_STREQ(rpc_custom_error(nullptr, 0).what(), "RPC custom error");
}

TEST(RpcError, EachIsCaughtByItsBases) {
  EXPECT_TRUE((CaughtBy<rpc_error, std::runtime_error, std::exception>::all(rpc_error("a"))));
  EXPECT_TRUE((CaughtBy<rpc_broker_error, rpc_error>::all(rpc_broker_error("a"))));
  EXPECT_TRUE((CaughtBy<rpc_timeout, rpc_broker_error, rpc_error>::all(rpc_timeout())));
  EXPECT_TRUE((CaughtBy<rpc_service_error, rpc_error>::all(rpc_service_error("a"))));
  EXPECT_TRUE((CaughtBy<rpc_custom_error, rpc_service_error, rpc_error>::all(
      rpc_custom_error(std::string("a")))));
  EXPECT_FALSE(CaughtBy<rpc_service_error>::all(rpc_timeout()));
  EXPECT_FALSE(CaughtBy<rpc_broker_error>::all(rpc_custom_error(std::string("a"))));
  EXPECT_FALSE(CaughtBy<rpc_timeout>::all(rpc_broker_error("a")));
  EXPECT_FALSE(CaughtBy<rpc_custom_error>::all(rpc_service_error("a")));
}

template <typename Error>
void checkCopyAndMove(Error source, const std::string& what) {
  auto original = std::make_unique<Error>(std::move(source));
  EXPECT_EQ(original->what(), what);
  const Error copy(*original);
  EXPECT_EQ(original->what(), what);
  EXPECT_EQ(copy.what(), what);
  const Error moved(std::move(*original));
  original.reset();
  EXPECT_EQ(copy.what(), what);
  EXPECT_EQ(moved.what(), what);
}

TEST(RpcError, CopiesAndMovesKeepTheText) {
  const std::string text(100, 'x');
  checkCopyAndMove(rpc_error(text), text);
  checkCopyAndMove(rpc_broker_error(text), text);
  checkCopyAndMove(rpc_service_error(text), text);
  checkCopyAndMove(rpc_timeout(), "RPC timeout");
  checkCopyAndMove(rpc_custom_error(text), "RPC custom error");
}

TEST(RpcError, AMovedFromOneCanStillBeMovedCopiedAndDestroyed) {
  rpc_timeout source;
  const rpc_timeout target(std::move(source));
  const rpc_timeout copy(source);              // NOLINT(bugprone-use-after-move)
  const rpc_timeout again(std::move(source));  // NOLINT(bugprone-use-after-move)
  EXPECT_STREQ(target.what(), "RPC timeout");
}

TEST(RpcCustomError, HoldsTheBytesOfEachKindOfSource) {
  const std::string constText = bytes("a\0b", 3);
  const Bytes constVector{1, 0, 2};
  std::unique_ptr<std::uint8_t[]> array(new std::uint8_t[4]{7, 0, 8, 9});
  EXPECT_EQ(payload(rpc_custom_error(constText.data(), 3)), constText);
  EXPECT_EQ(payload(rpc_custom_error(constText)), constText);
  EXPECT_EQ(payload(rpc_custom_error(std::string(constText))), constText);
  EXPECT_EQ(payload(rpc_custom_error(constVector)), bytes("\x01\0\x02", 3));
  EXPECT_EQ(payload(rpc_custom_error(Bytes(constVector))), bytes("\x01\0\x02", 3));
  const auto& constArray = array;
  EXPECT_EQ(payload(rpc_custom_error(constArray, 3)), bytes("\x07\0\x08", 3));
  EXPECT_NE(array, nullptr);
  EXPECT_EQ(payload(rpc_custom_error(std::move(array), 4)), bytes("\x07\0\x08\x09", 4));
  EXPECT_EQ(array, nullptr);  // NOLINT(bugprone-use-after-move)
  EXPECT_EQ(payload(rpc_custom_error(std::make_unique<rpc_custom_error_impl>(ZmqFrame(constText)))),
            constText);
}

TEST(RpcCustomError, OfAStringHasNoTerminatingZero) {
  EXPECT_EQ(rpc_custom_error(std::string("abc")).size(), 3U);
  const std::string text = "abc";
  EXPECT_EQ(rpc_custom_error(text).size(), 3U);
}

TEST(RpcCustomError, MayBeEmpty) {
  const std::string noText;
  const Bytes noBytes;
  const std::unique_ptr<std::uint8_t[]> noArray;
  EXPECT_EQ(rpc_custom_error(nullptr, 0).size(), 0U);
  EXPECT_EQ(rpc_custom_error("abc", 0).size(), 0U);
  EXPECT_EQ(rpc_custom_error(noText).size(), 0U);
  EXPECT_EQ(rpc_custom_error(std::string()).size(), 0U);
  EXPECT_EQ(rpc_custom_error(noBytes).size(), 0U);
  EXPECT_EQ(rpc_custom_error(Bytes()).size(), 0U);
  EXPECT_EQ(rpc_custom_error(noArray, 0).size(), 0U);
  EXPECT_EQ(rpc_custom_error(std::unique_ptr<std::uint8_t[]>(), 0).size(), 0U);
  const rpc_custom_error copy(rpc_custom_error(nullptr, 0));
  EXPECT_EQ(copy.size(), 0U);
}

TEST(RpcCustomError, CopiesWhatItDoesNotTakeOver) {
  std::string text(1000, 'a');
  Bytes vector(1000, 'b');
  std::unique_ptr<std::uint8_t[]> array(new std::uint8_t[1000]);
  std::memset(array.get(), 'c', 1000);
  const std::string& constText = text;
  const Bytes& constVector = vector;
  const auto& constArray = array;
  const rpc_custom_error ofPointer(static_cast<const void*>(text.data()), text.size());
  const rpc_custom_error ofText(constText);
  const rpc_custom_error ofVector(constVector);
  const rpc_custom_error ofArray(constArray, 1000);
  text.assign(1000, '-');
  vector.assign(1000, '-');
  std::memset(array.get(), '-', 1000);
  EXPECT_EQ(payload(ofPointer), std::string(1000, 'a'));
  EXPECT_EQ(payload(ofText), std::string(1000, 'a'));
  EXPECT_EQ(payload(ofVector), std::string(1000, 'b'));
  EXPECT_EQ(payload(ofArray), std::string(1000, 'c'));
}

TEST(RpcCustomError, LeavesWhatItTakesOverWhereItLies) {
  std::string text(1000, 'a');
  Bytes vector(1000, 'b');
  std::unique_ptr<std::uint8_t[]> array(new std::uint8_t[1000]);
  const void* const textPlace = text.data();
  const void* const vectorPlace = vector.data();
  const void* const arrayPlace = array.get();
  EXPECT_EQ(rpc_custom_error(std::move(text)).data(), textPlace);
  EXPECT_EQ(rpc_custom_error(std::move(vector)).data(), vectorPlace);
  EXPECT_EQ(rpc_custom_error(std::move(array), 1000).data(), arrayPlace);
}

TEST(RpcCustomError, TakesTheWholePrivateObjectOver) {
  auto impl = std::make_unique<rpc_custom_error_impl>(ZmqFrame(std::string(1000, 'x')));
  const void* const place = impl->payload.data();
  const rpc_custom_error error(std::move(impl));
  EXPECT_EQ(impl, nullptr);  // NOLINT(bugprone-use-after-move)
  EXPECT_EQ(error.data(), place);
  EXPECT_EQ(error.size(), 1000U);
}

TEST(RpcCustomError, ACopyOwnsItsBytes) {
  for (const std::size_t size : {0U, 1U, 33U, 34U, 1000U}) {
    auto source = std::make_unique<rpc_custom_error>(std::string(size, 'x'));
    const rpc_custom_error copy(*source);
    const rpc_custom_error copyOfCopy(copy);
    EXPECT_TRUE(size == 0 || copy.data() != source->data());
    EXPECT_EQ(payload(*source), std::string(size, 'x'));
    source.reset();
    EXPECT_EQ(payload(copy), std::string(size, 'x'));
    EXPECT_EQ(payload(copyOfCopy), std::string(size, 'x'));
  }
}

TEST(RpcCustomError, MovingTakesTheBytesAlongAndLeavesNone) {
  rpc_custom_error source(std::string(1000, 'x'));
  const void* const place = source.data();
  rpc_custom_error target(std::move(source));
  EXPECT_EQ(target.data(), place);
  EXPECT_EQ(target.size(), 1000U);
  EXPECT_EQ(source.data(), nullptr);  // NOLINT(bugprone-use-after-move)
  EXPECT_EQ(source.size(), 0U);
  const rpc_custom_error copyOfNothing(source);
  EXPECT_EQ(copyOfNothing.size(), 0U);
  EXPECT_STREQ(target.what(), "RPC custom error");
}

TEST(RpcCustomError, TravelsThroughAThrowWithItsBytes) {
  try {
    try {
      throw rpc_custom_error(bytes("\0\xFF", 2));
    } catch (const rpc_service_error&) {
      throw;
    }
  } catch (const rpc_custom_error& error) {
    EXPECT_EQ(payload(error), bytes("\0\xFF", 2));
  }
}

TEST(RpcCustomError, ThrowsTheZmqTextWhenTheFrameCannotBeMade) {
  const std::size_t impossible = std::numeric_limits<std::size_t>::max();
  EXPECT_ZMQ_ERROR(rpc_custom_error("", impossible), ENOMEM);
}

// Makes the error again and again with one more allocation until it succeeds; before that it throws
// std::bad_alloc each time. Returns how often.
template <typename Make>
int timesWithoutMemory(const Make& make) {
  for (int allowed = 0;; ++allowed) {
    bool refused = false;
    allocationsLeft = allowed;
    try {
      make();
    } catch (const std::bad_alloc&) {
      refused = true;
    }
    allocationsLeft = -1;
    if (!refused) return allowed;
  }
}

TEST(RpcError, WithoutMemoryThrowsBadAlloc) {
  const std::string text(1000, 'x');
  const Bytes vector(1000, 1);
  // A text and a private object for each level.
  EXPECT_EQ(timesWithoutMemory([&] { rpc_error{text}; }), 2);
  EXPECT_EQ(timesWithoutMemory([&] { rpc_broker_error{text}; }), 3);
  EXPECT_EQ(timesWithoutMemory([&] { rpc_service_error{text}; }), 3);
  EXPECT_EQ(timesWithoutMemory([&] { rpc_timeout{}; }), 4);
  EXPECT_EQ(timesWithoutMemory([&] { rpc_custom_error{text}; }), 4);
  EXPECT_EQ(timesWithoutMemory([&] { rpc_custom_error{vector}; }), 4);
}

TEST(RpcError, CopiesHaveAPrivateObjectForEachLevelAndMovesTakeThemOver) {
  rpc_timeout timeout;
  rpc_custom_error custom(std::string(1000, 'x'));
  EXPECT_EQ(timesWithoutMemory([&] { rpc_timeout{timeout}; }), 3);  // the text is shared
  EXPECT_EQ(timesWithoutMemory([&] { rpc_custom_error{custom}; }), 3);
  EXPECT_EQ(timesWithoutMemory([&] { rpc_timeout{std::move(timeout)}; }), 0);
  EXPECT_EQ(timesWithoutMemory([&] { rpc_custom_error{std::move(custom)}; }), 0);
}

}  // namespace
}  // namespace tessel::test

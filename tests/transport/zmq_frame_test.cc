#include "transport/zmq_frame.h"

#include <gtest/gtest.h>

#include <cstring>
#include <limits>
#include <type_traits>

#include "support/endpoints.h"
#include "support/raw_peer.h"
#include "support/zmq_errors.h"
#include "transport/zmq_socket.h"

namespace tessel::test {
namespace {

using Bytes = std::vector<std::uint8_t>;

static_assert(!std::is_copy_constructible_v<ZmqFrame>, "copies are spelled out");
static_assert(!std::is_copy_assignable_v<ZmqFrame>, "copies are spelled out");
static_assert(std::is_nothrow_move_constructible_v<ZmqFrame>, "vectors of frames rely on it");
static_assert(std::is_nothrow_move_assignable_v<ZmqFrame>, "vectors of frames rely on it");

// Longer than what ZeroMQ and std::string keep inside themselves.
const std::string kLong(1000, 'x');

TEST(ZmqFrame, IsEmptyByDefault) {
  ZmqFrame frame;
  EXPECT_EQ(frame.size(), 0U);
  EXPECT_FALSE(frame.more());
  EXPECT_EQ(frame.toString(), "");
  EXPECT_EQ(frame.toBytes(), Bytes());
}

TEST(ZmqFrame, HasTheSizeAskedForAndCanBeWritten) {
  for (const std::size_t size : {0U, 1U, 33U, 34U, 100000U}) {
    ZmqFrame frame = ZmqFrame::ofSize(size);
    ASSERT_EQ(frame.size(), size);
    if (size != 0) std::memset(frame.data(), 'y', size);
    EXPECT_EQ(frame.toString(), std::string(size, 'y'));
  }
}

TEST(ZmqFrame, OfAnImpossibleSizeThrowsTheZmqText) {
  const std::size_t impossible = std::numeric_limits<std::size_t>::max();
  EXPECT_ZMQ_ERROR(ZmqFrame::ofSize(impossible), ENOMEM);
  EXPECT_ZMQ_ERROR(ZmqFrame("", impossible), ENOMEM);
}

TEST(ZmqFrame, HoldsOneByteForEachOneByteType) {
  EXPECT_EQ(ZmqFrame(std::uint8_t{0}).toString(), bytes("\0", 1));
  EXPECT_EQ(ZmqFrame(std::uint8_t{200}).toString(), "\xC8");
  EXPECT_EQ(ZmqFrame(std::int8_t{-2}).toString(), "\xFE");
  EXPECT_EQ(ZmqFrame(std::int8_t{7}).toString(), "\x07");
  EXPECT_EQ(ZmqFrame(true).toString(), "\x01");
  EXPECT_EQ(ZmqFrame(false).toString(), bytes("\0", 1));
}

TEST(ZmqFrame, MadeFromAStringHasItsCharactersAndNoTerminator) {
  const std::string text = "ab";
  EXPECT_EQ(ZmqFrame(text).size(), 2U);
  EXPECT_EQ(ZmqFrame(std::string("ab")).size(), 2U);
  const std::string withNul("a\0b", 3);
  EXPECT_EQ(ZmqFrame(withNul).toString(), withNul);
  EXPECT_EQ(ZmqFrame(std::string(withNul)).toString(), withNul);
}

TEST(ZmqFrame, CopiesLeaveTheSourceAloneAndAreBytesOfTheirOwn) {
  std::string text = kLong;
  Bytes vector{1, 0, 255};
  std::unique_ptr<std::uint8_t[]> array(new std::uint8_t[4]{9, 8, 7, 6});
  const ZmqFrame ofPointer(text.data(), text.size());
  const ZmqFrame ofString(text);
  const ZmqFrame ofVector(vector);
  const ZmqFrame ofArray(array, 3);
  text.assign(text.size(), '-');
  vector.assign(vector.size(), 0);
  array[0] = 0;
  EXPECT_EQ(ofPointer.toString(), kLong);
  EXPECT_EQ(ofString.toString(), kLong);
  EXPECT_EQ(ofVector.toBytes(), (Bytes{1, 0, 255}));
  EXPECT_EQ(ofArray.toBytes(), (Bytes{9, 8, 7}));
  EXPECT_NE(array, nullptr);
}

TEST(ZmqFrame, CopyOfAnotherFrameHasItsOwnBytes) {
  ZmqFrame source(kLong);
  ZmqFrame copy = ZmqFrame::copyOf(source);
  std::memset(source.data(), '-', source.size());
  EXPECT_EQ(copy.toString(), kLong);
  EXPECT_NE(copy.data(), source.data());
}

TEST(ZmqFrame, CopiesOfNothingAreEmpty) {
  EXPECT_EQ(ZmqFrame(nullptr, 0).size(), 0U);
  EXPECT_EQ(ZmqFrame(std::string()).size(), 0U);
  EXPECT_EQ(ZmqFrame(Bytes()).size(), 0U);
  EXPECT_EQ(ZmqFrame(std::unique_ptr<std::uint8_t[]>(), 0).size(), 0U);
  const std::unique_ptr<std::uint8_t[]> nothing;
  EXPECT_EQ(ZmqFrame(nothing, 0).size(), 0U);
  EXPECT_EQ(ZmqFrame::copyOf(ZmqFrame()).size(), 0U);
}

TEST(ZmqFrame, TakesAStringOverWhereItLies) {
  std::string text = kLong;
  const void* const place = text.data();
  ZmqFrame frame(std::move(text));
  EXPECT_EQ(frame.data(), place);
  EXPECT_EQ(frame.toString(), kLong);
}

TEST(ZmqFrame, TakesAShortStringOverWithItsBytes) {
  std::string text = "short";  // lies inside the string object, which moves
  ZmqFrame frame(std::move(text));
  text = "other";
  EXPECT_EQ(frame.toString(), "short");
}

TEST(ZmqFrame, TakesAVectorOverWhereItLies) {
  Bytes vector(1000, 5);
  const void* const place = vector.data();
  ZmqFrame frame(std::move(vector));
  EXPECT_EQ(frame.data(), place);
  EXPECT_EQ(frame.toBytes(), Bytes(1000, 5));
}

TEST(ZmqFrame, TakesAnArrayOverWhereItLies) {
  std::unique_ptr<std::uint8_t[]> array(new std::uint8_t[1000]());
  array[999] = 3;
  const void* const place = array.get();
  ZmqFrame frame(std::move(array), 1000);
  EXPECT_EQ(array, nullptr);
  EXPECT_EQ(frame.data(), place);
  EXPECT_EQ(frame.size(), 1000U);
  EXPECT_EQ(frame.toBytes().back(), 3);
}

TEST(ZmqFrame, TakesEmptyBuffersOver) {
  EXPECT_EQ(ZmqFrame(std::string()).toString(), "");
  EXPECT_EQ(ZmqFrame(Bytes()).toBytes(), Bytes());
  EXPECT_EQ(ZmqFrame(std::make_unique<std::uint8_t[]>(0), 0).size(), 0U);
}

TEST(ZmqFrame, MovingLeavesAnEmptyFrameBehind) {
  ZmqFrame source(kLong);
  const void* const place = source.data();
  ZmqFrame target(std::move(source));
  EXPECT_EQ(target.data(), place);
  EXPECT_EQ(source.size(), 0U);  // NOLINT(bugprone-use-after-move): stays usable
  source = ZmqFrame(std::string("again"));
  EXPECT_EQ(source.toString(), "again");
}

TEST(ZmqFrame, MoveAssignmentReplacesTheBytes) {
  ZmqFrame target(std::string("old"));
  ZmqFrame source(kLong);
  target = std::move(source);
  EXPECT_EQ(target.toString(), kLong);
  EXPECT_EQ(source.size(), 0U);  // NOLINT(bugprone-use-after-move)
  ZmqFrame& same = target;
  target = std::move(same);
  EXPECT_EQ(target.toString(), kLong);
}

TEST(ZmqFrame, SharesItsBytesWithASecondFrame) {
  ZmqFrame shared;
  const void* place = nullptr;
  {
    ZmqFrame source(kLong);
    place = source.data();
    shared = source.share();
    EXPECT_EQ(source.toString(), kLong);
  }
  EXPECT_EQ(shared.data(), place);
  EXPECT_EQ(shared.toString(), kLong);
  ZmqFrame tiny(std::string("ab"));
  EXPECT_EQ(tiny.share().toString(), "ab");
  EXPECT_EQ(tiny.toString(), "ab");
}

TEST(ZmqFrame, ReadsTheFirstByteZeroExtended) {
  EXPECT_EQ(ZmqFrame(std::string("\xFF\x01")).firstByte(), 255);
  EXPECT_EQ(ZmqFrame(bytes("\0\x01", 2)).firstByte(), 0);
  EXPECT_EQ(ZmqFrame(std::string("A")).firstByte(), 65);
}

TEST(ZmqFrame, ReadsTheFirstByteAsABool) {
  EXPECT_TRUE(ZmqFrame(std::string("\x01")).firstByteAsBool());
  EXPECT_TRUE(ZmqFrame(std::string("\x80")).firstByteAsBool());
  EXPECT_FALSE(ZmqFrame(bytes("\0\x01", 2)).firstByteAsBool());
}

TEST(ZmqFrame, MissingBytesReadAsZero) {
  EXPECT_EQ(ZmqFrame().firstByte(), 0);
  EXPECT_FALSE(ZmqFrame().firstByteAsBool());
  EXPECT_EQ(ZmqFrame().littleEndian64(), 0U);
  // A frame over exactly as many bytes as it says: reading on would leave the allocation.
  ZmqFrame empty(std::make_unique<std::uint8_t[]>(0), 0);
  EXPECT_EQ(empty.firstByte(), 0);
  EXPECT_EQ(empty.littleEndian64(), 0U);
}

TEST(ZmqFrame, ReadsEightBytesLeastSignificantFirst) {
  const std::string all = "\x01\x02\x03\x04\x05\x06\x07\xF8";
  std::uint64_t expected = 0;
  for (std::size_t present = 0; present <= all.size(); ++present) {
    std::unique_ptr<std::uint8_t[]> exact(new std::uint8_t[present]);
    std::memcpy(exact.get(), all.data(), present);
    if (present != 0) {
      expected |= std::uint64_t{static_cast<std::uint8_t>(all[present - 1])} << (8 * (present - 1));
    }
    EXPECT_EQ(ZmqFrame(std::move(exact), present).littleEndian64(), expected) << present;
  }
  EXPECT_EQ(expected, 0xF807060504030201U);
  EXPECT_EQ(ZmqFrame(all + "\x09\x0A").littleEndian64(), expected);
}

TEST(ZmqFrame, WritesEightBytesLeastSignificantFirst) {
  EXPECT_EQ(ZmqFrame::ofLittleEndian64(0).toString(), std::string(8, '\0'));
  EXPECT_EQ(ZmqFrame::ofLittleEndian64(0x0123456789ABCDEFU).toString(),
            "\xEF\xCD\xAB\x89\x67\x45\x23\x01");
  EXPECT_EQ(ZmqFrame::ofLittleEndian64(~std::uint64_t{0}).toString(), std::string(8, '\xFF'));
}

TEST(ZmqFrame, KnowsWhetherMoreFramesFollow) {
  const std::string endpoint = uniqueInproc();
  ZmqSocket receiver(ZMQ_PULL);
  receiver.bind(endpoint);
  RawPeer(ZMQ_PUSH).connect(endpoint).send({"a", "b"});
  ZmqFrame frame;
  ASSERT_TRUE(receiver.receive(frame, 0));
  EXPECT_TRUE(frame.more());
  ASSERT_TRUE(receiver.receive(frame, 0));
  EXPECT_FALSE(frame.more());
}

}  // namespace
}  // namespace tessel::test

#include "table.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "format.h"
#include "line.h"
#include "summary.h"

namespace vitals {
namespace {

using testing::HasSubstr;
using testing::Not;

Picture machine(int cores, int interfaces) {
  Board board;
  const auto add = [&](const std::string& key, Reading reading) {
    board.addRow(key);
    board.takeValue(key, reading);
  };
  for (int i = 0; i < cores; ++i) {
    add("cpu:core" + std::to_string(i), {Unit::Percent, 37, 100, 1});
  }
  add("memory:used", {Unit::Bytes, 1.2e9, 24.7e9, 1});
  for (int i = 0; i < interfaces; ++i) {
    add("net:a-very-long-interface-name" + std::to_string(i), {Unit::BytesPerSecond, 1234, 0, 1});
  }
  for (int i = 0; i < 100; ++i) board.remember();
  return board.picture();
}

// Without the escape sequences that colour it.
std::string bare(const std::string& line) {
  std::string text;
  for (std::size_t i = 0; i < line.size(); ++i) {
    if (line[i] == '\x1b') {
      i = line.find('m', i);
    } else {
      text += line[i];
    }
  }
  return text;
}

TEST(Table, FitsEveryTerminal) {
  const Picture small = machine(1, 1);
  const Picture large = machine(128, 20);
  for (const Picture* picture : {&small, &large}) {
    for (int width = 1; width < 170; ++width) {
      for (const int height : {1, 2, 5, 6, 7, 8, 12, 24, 40, 200}) {
        const auto lines =
            drawTable(*picture, HubStatistics(), {width, height}, {width % 2 == 0, true});
        ASSERT_LE(lines.size(), static_cast<std::size_t>(height)) << width;
        for (const std::string& line : lines) {
          ASSERT_LE(columns(bare(line)), width) << height << ": " << line;
        }
      }
    }
  }
}

TEST(Table, ShowsEveryRowIfThereIsRoom) {
  std::string all;
  for (const std::string& line : drawTable(machine(16, 4), HubStatistics(), {80, 60}, {})) {
    all += line + "\n";
  }
  for (int i = 0; i < 16; ++i) EXPECT_THAT(all, HasSubstr("core" + std::to_string(i) + " "));
  EXPECT_THAT(all, HasSubstr("1.2 of 24.7 GB"));
  EXPECT_THAT(all, HasSubstr("1.2 kB/s"));
  EXPECT_THAT(all, Not(HasSubstr(" of 16 ")));
}

TEST(Table, SaysHowMuchItLeavesOut) {
  std::string all;
  for (const std::string& line : drawTable(machine(128, 4), HubStatistics(), {80, 24}, {})) {
    all += line + "\n";
  }
  EXPECT_THAT(all, HasSubstr(" of 128 "));
  EXPECT_THAT(all, HasSubstr("memory"));
}

TEST(Table, IsPlainTextWithoutColour) {
  for (const std::string& line : drawTable(machine(4, 2), HubStatistics(), {80, 24}, {})) {
    for (const char c : line) EXPECT_TRUE(c >= ' ' && c <= '~') << line;
  }
}

TEST(Table, ShowsNothingOfWhatIsWithdrawn) {
  Board board;
  board.addRow("net:eth0.in");
  board.takeValue("net:eth0.in", {Unit::BytesPerSecond, 1, 0, 1});
  EXPECT_EQ(drawLine(board.picture()), "net eth0.in 1 B/s");
  board.takeWithdrawal("net:eth0.in");
  EXPECT_EQ(drawLine(board.picture()), "");
}

TEST(Table, ShowsWhatWasCalledFor) {
  Picture picture = machine(1, 0);
  picture.calls.busiest = {{17, 0, 0, 93, 0, "compiler"}, {18, 0, 0, 2, 0, "shell"}};
  picture.calls.largest = {{19, 0, 0, 0, 4.2e8, "editor"}};
  picture.calls.right = 1234;
  std::string all;
  for (const std::string& line : drawTable(picture, HubStatistics(), {80, 40}, {})) {
    all += line + "\n";
  }
  for (const char* part : {"busiest --", " by call", "compiler 17", "93 %", "shell 18",
                           "largest --", "editor 19", "420 MB", "1,234 answered"}) {
    EXPECT_THAT(all, HasSubstr(part));
  }
  EXPECT_THAT(drawLine(picture), HasSubstr("busiest compiler 17 93 %  largest editor 19 420 MB"));
}

TEST(Summary, IsBadWithAFaultOfACall) {
  Picture picture;
  picture.join.complete = true;
  picture.calls.right = 5;
  const Summary good = summarize(picture, HubStatistics(), true);
  EXPECT_TRUE(good.good);
  EXPECT_THAT(good.text, HasSubstr("\n  called       5 times"));
  picture.calls.fault = "wrong answer: 43";
  const Summary bad = summarize(picture, HubStatistics(), true);
  EXPECT_FALSE(bad.good);
  EXPECT_THAT(bad.text, HasSubstr("\n  called       wrong answer: 43"));
}

TEST(Summary, IsBadWithoutAnyCallAndPraisesNone) {
  Picture picture;
  picture.join.complete = true;
  const Summary summary = summarize(picture, HubStatistics(), true);
  EXPECT_FALSE(summary.good);
  EXPECT_THAT(summary.text, HasSubstr("\n  called       nothing\n"));
  EXPECT_THAT(summary.text, HasSubstr("\n  round trip   no call was timed\n"));
  EXPECT_THAT(summary.text, HasSubstr("\n  errors       none was provoked\n"));
}

TEST(Format, ChoosesHandyUnits) {
  const auto bytes = [](double amount) { return format({Unit::BytesPerSecond, amount, 0, 0}); };
  EXPECT_EQ(bytes(0), "0 B/s");
  EXPECT_EQ(bytes(999), "999 B/s");
  EXPECT_EQ(bytes(1000), "1.0 kB/s");
  EXPECT_EQ(bytes(123456), "123 kB/s");
  EXPECT_EQ(bytes(999900), "1.0 MB/s");
  EXPECT_EQ(bytes(5.5e12), "5.5 TB/s");
  EXPECT_EQ(format({Unit::Bytes, 1.26e9, 24.7e9, 0}), "1.3 of 24.7 GB");
  EXPECT_EQ(format({Unit::Percent, 7, 100, 0}), "7 %");
  EXPECT_EQ(format({Unit::Load, 1.5, 0, 0}), "1.50");
  EXPECT_EQ(format({Unit::Seconds, 3725, 0, 0}), "01:02:05");
  EXPECT_EQ(format({Unit::Seconds, 2 * 86400 + 59, 0, 0}), "2 d 00:00:59");
  EXPECT_EQ(format({Unit::Count, 1234567, 0, 0}), "1,234,567");
  EXPECT_EQ(formatMicroseconds(0), "0 µs");
  EXPECT_EQ(formatMicroseconds(999), "999 µs");
  EXPECT_EQ(formatMicroseconds(1500), "1.5 ms");
  EXPECT_EQ(formatMicroseconds(2500000), "2.5 s");
}

TEST(Line, CutsAtItsWidth) {
  EXPECT_EQ(Line(4, false).put("ab").put("cdef").put("g").text(), "abcd");
  EXPECT_EQ(Line(4, false).put("µµµµµ").text(), "µµµµ");
  EXPECT_EQ(Line(10, false).put("ab").putRight(10, "xyz").text(), "ab     xyz");
  EXPECT_EQ(Line(10, true).put("ab", Ink::Bold).text(), "\x1b[1mab\x1b[0m");
}

}  // namespace
}  // namespace vitals

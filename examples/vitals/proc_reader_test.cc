#include "proc_reader.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <set>

#include "names.h"

namespace vitals {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr char kStat[] =
    "cpu  30 0 10 60 20 0 0 0 5 0\n"
    "cpu0 10 0 10 30 10 0 0 0 0 0\n"
    "cpu12 20 0 0 30 10 0 0 0 0 0\n"
    "intr 9 8 7\n"
    "ctxt 123\n";

constexpr char kNetDev[] =
    "Inter-|   Receive                                                |  Transmit\n"
    " face |bytes    packets errs drop fifo frame compressed multicast|bytes    packets errs drop "
    "fifo colls carrier compressed\n"
    "    lo:  1000       9    0    0    0     0          0         0   1000       9    0    0    0 "
    "  "
    "  0       0          0\n"
    "  ifb0:       0       0    0    0    0     0          0         0        0       0    0    0  "
    " "
    " 0     0       0          0\n"
    "eth0:5000 7 0 0 0 0 0 0 6000 8 0 0 0 0 0 0\n";

constexpr char kDiskstats[] =
    "   7       0 loop0 0 0 0 0 0 0 0 0 0 0 0\n"
    "   7       1 loop1 5 0 10 0 0 0 0 0 0 0 0\n"
    "   7      10 loop10 5 0 10 0 0 0 0 0 0 0 0\n"
    "   8       0 sda 100 0 2000 5 200 0 4000 5 0 5 5 0 0 0 0\n"
    "   8       1 sda1 100 0 2000 5 200 0 4000 5 0 5 5 0 0 0 0\n"
    " 259       0 nvme0n1 1 0 8 0 0 0 0 0 0 0 0\n"
    " 259       1 nvme0n1p1 1 0 8 0 0 0 0 0 0 0 0\n";

std::vector<std::string> namesOf(const std::vector<ByteCounts>& counts) {
  std::vector<std::string> names;
  for (const ByteCounts& count : counts) names.push_back(count.name);
  return names;
}

std::vector<std::string> keysOf(const Vitals& vitals) {
  std::vector<std::string> keys;
  for (const Vital& vital : vitals) keys.push_back(vital.topic + ":" + vital.tag);
  return keys;
}

TEST(ProcReader, CountsTheTicksOfEveryCore) {
  const auto cpus = parseCpuTimes(kStat);
  ASSERT_EQ(cpus.size(), 3U);
  EXPECT_EQ(cpus[0].name, "all");
  EXPECT_EQ(cpus[0].busy, 40U);
  EXPECT_EQ(cpus[0].total, 120U);  // guests are counted with their hosts already
  EXPECT_EQ(cpus[1].name, "core0");
  EXPECT_EQ(cpus[2].name, "core12");
}

TEST(ProcReader, KnowsCpuLinesOfOldKernels) {
  const auto cpus = parseCpuTimes("cpu 1 2 3 4\n");
  ASSERT_EQ(cpus.size(), 1U);
  EXPECT_EQ(cpus[0].busy, 6U);
  EXPECT_EQ(cpus[0].total, 10U);
}

TEST(ProcReader, ListsInterfacesThatCarriedSomething) {
  const auto interfaces = parseInterfaces(kNetDev);
  EXPECT_THAT(namesOf(interfaces), ElementsAre("lo", "eth0"));
  EXPECT_EQ(interfaces[1].in, 5000U);
  EXPECT_EQ(interfaces[1].out, 6000U);
}

TEST(ProcReader, ListsUsedDisksWithoutTheirPartitions) {
  const auto disks = parseDisks(kDiskstats);
  EXPECT_THAT(namesOf(disks), ElementsAre("loop1", "loop10", "sda", "nvme0n1"));
  EXPECT_EQ(disks[2].in, 2000U * 512U);
  EXPECT_EQ(disks[2].out, 4000U * 512U);
}

TEST(ProcReader, ReadsMemory) {
  const Vitals vitals = parseMemory(
      "MemTotal: 1000 kB\nMemFree: 100 kB\nMemAvailable: 400 kB\nBuffers: 50 kB\nCached: 150 kB\n"
      "SwapTotal: 500 kB\nSwapFree: 300 kB\n");
  ASSERT_THAT(keysOf(vitals), ElementsAre("memory:used", "memory:cached", "memory:swap"));
  EXPECT_EQ(vitals[0].reading.amount, 600 * 1024);
  EXPECT_EQ(vitals[0].reading.limit, 1000 * 1024);
  EXPECT_EQ(vitals[1].reading.amount, 200 * 1024);
  EXPECT_EQ(vitals[2].reading.amount, 200 * 1024);
  EXPECT_EQ(vitals[2].reading.limit, 500 * 1024);
}

TEST(ProcReader, EstimatesFreeMemoryWhereTheKernelDoesNot) {
  const Vitals vitals = parseMemory("MemTotal: 1000 kB\nMemFree: 100 kB\nCached: 150 kB\n");
  ASSERT_THAT(keysOf(vitals), ElementsAre("memory:used", "memory:cached"));
  EXPECT_EQ(vitals[0].reading.amount, 750 * 1024);
}

TEST(ProcReader, ReadsLoadAndTasks) {
  const Vitals vitals = parseLoad("0.25 1.50 2.75 3/91 6174\n", 2);
  ASSERT_THAT(keysOf(vitals),
              ElementsAre("load:1min", "load:5min", "load:15min", "tasks:running", "tasks:all"));
  EXPECT_EQ(vitals[1].reading.amount, 1.5);
  EXPECT_EQ(vitals[1].reading.limit, 2);
  EXPECT_EQ(vitals[3].reading.amount, 3);
  EXPECT_EQ(vitals[4].reading.amount, 91);
}

TEST(ProcReader, ReadsUptimeInWholeSeconds) {
  const Vitals vitals = parseUptime("1909.90 3688.94\n");
  ASSERT_EQ(vitals.size(), 1U);
  EXPECT_EQ(vitals[0].reading.amount, 1909);
}

TEST(ProcReader, MakesNothingOfNonsense) {
  for (const char* text : {"", "\n\n", "cpu\n", "cpu x y z\n", "lo:\n", ":", "MemTotal: 0 kB\n",
                           "sda 8 0 1\n", "-", "\xff\xfe\n"}) {
    EXPECT_THAT(parseCpuTimes(text), IsEmpty()) << text;
    EXPECT_THAT(parseInterfaces(text), IsEmpty()) << text;
    EXPECT_THAT(parseDisks(text), IsEmpty()) << text;
    EXPECT_THAT(parseMemory(text), IsEmpty()) << text;
    EXPECT_THAT(parseLoad(text, 1), IsEmpty()) << text;
    EXPECT_THAT(parseUptime(text), IsEmpty()) << text;
  }
  EXPECT_THAT(parseDisks("8 0 sda 1 2\n"), IsEmpty());
  EXPECT_THAT(parseInterfaces("lo: 1 2 3\n"), IsEmpty());
}

// A folder that stands for /proc.
class ProcFolder : public testing::Test {
 protected:
  ProcFolder()
      : path_(std::filesystem::path(testing::TempDir()) / ("vitals-" + std::to_string(getpid()))) {
    std::filesystem::create_directories(path_ / "net");
  }
  ~ProcFolder() override { std::filesystem::remove_all(path_); }

  void write(const char* file, const std::string& text) { std::ofstream(path_ / file) << text; }
  ProcReader reader() const { return ProcReader(path_.string()); }

 private:
  const std::filesystem::path path_;
};

constexpr std::int64_t kSecond = 1'000'000'000;

TEST_F(ProcFolder, HasNothingWhenItIsEmpty) {
  ProcReader nothing = reader();
  EXPECT_THAT(nothing.read(kSecond), IsEmpty());
  EXPECT_THAT(nothing.read(2 * kSecond), IsEmpty());
}

TEST_F(ProcFolder, GivesSharesAndRatesFromTheSecondReadOn) {
  write("stat", "cpu 100 0 0 100\n");
  write("net/dev", "eth0.5: 1000 0 0 0 0 0 0 0 2000 0\neth0:1: 1 0 0 0 0 0 0 0 0 0\n");
  write("diskstats", "8 0 sda 1 0 10 0 1 0 20 0 0 0 0\n");
  ProcReader machine = reader();
  EXPECT_THAT(machine.read(kSecond), IsEmpty());

  write("stat", "cpu 130 0 0 170\n");
  write("net/dev", "eth0.5: 2000 0 0 0 0 0 0 0 1500 0\neth0:1: 1 0 0 0 0 0 0 0 0 0\n");
  write("diskstats", "8 0 sda 1 0 12 0 1 0 28 0 0 0 0\n");
  const Vitals vitals = machine.read(3 * kSecond);
  ASSERT_THAT(keysOf(vitals),
              ElementsAre("cpu:all", "net:eth0.5.in", "net:eth0.5.out", "net:eth0.1.in",
                          "net:eth0.1.out", "disk:sda.read", "disk:sda.write"));
  EXPECT_EQ(vitals[0].reading.amount, 30);
  EXPECT_EQ(vitals[1].reading.amount, 500);
  EXPECT_EQ(vitals[2].reading.amount, 0);  // it began anew
  EXPECT_EQ(vitals[5].reading.amount, 512);
  EXPECT_EQ(vitals[6].reading.amount, 2048);
}

TEST_F(ProcFolder, LosesWhatIsNoLongerThere) {
  write("net/dev", "eth0: 1000 0 0 0 0 0 0 0 2000 0\n");
  ProcReader machine = reader();
  machine.read(kSecond);
  EXPECT_EQ(machine.read(2 * kSecond).size(), 2U);
  write("net/dev", "");
  EXPECT_THAT(machine.read(3 * kSecond), IsEmpty());
}

TEST(ProcReader, ReadsThisMachine) {
  ProcReader machine;
  machine.read(kSecond);
  std::set<std::string> keys;
  for (const Vital& vital : machine.read(2 * kSecond)) {
    EXPECT_TRUE(keys.insert(vital.topic + ":" + vital.tag).second) << vital.topic << vital.tag;
    EXPECT_EQ(vital.topic.find(':'), std::string::npos);
    EXPECT_EQ(vital.tag.find(':'), std::string::npos);
    EXPECT_GE(vital.reading.amount, 0);
  }
}

TEST(Reading, TravelsAsText) {
  const Reading reading{Unit::Bytes, 123456789012345, 200000000000000, 987654321987654321};
  const std::string bytes = encode(reading);
  EXPECT_EQ(bytes, "bytes 123456789012345 200000000000000 987654321987654321");
  const auto back = decodeReading(bytes.data(), bytes.size());
  ASSERT_TRUE(back);
  EXPECT_TRUE(sameAmount(*back, reading));
  EXPECT_EQ(back->since, reading.since);
  EXPECT_FALSE(decodeReading(bytes.data(), 10));
  EXPECT_FALSE(decodeReading("miles 1 2 3", 11));
}

TEST(Keys, TravelAsLines) {
  const Keys keys{"cpu:all", "net:lo.in"};
  const std::string bytes = encode(keys);
  EXPECT_EQ(decodeKeys(bytes.data(), bytes.size()), keys);
  EXPECT_THAT(decodeKeys("", 0), IsEmpty());
  EXPECT_EQ(topicOf("net:lo.in"), "net");
  EXPECT_EQ(tagOf("net:lo.in"), "lo.in");
}

}  // namespace
}  // namespace vitals

#include "process_service.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "process_client.h"

namespace vitals {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::int64_t kSecond = 1'000'000'000;

std::string statOf(int id, const std::string& name, long ticks, int pages, int started = 100) {
  return std::to_string(id) + " (" + name + ") S 1 1 1 0 -1 0 0 0 0 0 " + std::to_string(ticks) +
         " 0 7 7 20 0 1 0 " + std::to_string(started) + " 1000000 " + std::to_string(pages) +
         " 999\n";
}

TEST(Process, IsReadFromItsStatus) {
  const auto process =
      parseProcess("42 (a (b) c) R 1 2 3 4 5 6 7 8 9 10 30 12 1 1 20 0 4 0 77 9 2 1");
  ASSERT_TRUE(process);
  EXPECT_EQ(process->id, 42);
  EXPECT_EQ(process->name, "a (b) c");
  EXPECT_EQ(process->ticks, 42U);
  EXPECT_EQ(process->started, 77U);
  EXPECT_EQ(process->memory, 2.0 * static_cast<double>(sysconf(_SC_PAGESIZE)));
}

TEST(Process, HasANameThatCanBeShown) {
  EXPECT_EQ(parseProcess(statOf(1, "\x1b[31m\n\xc3\xa4", 0, 0))->name, "?[31m???");
}

TEST(Process, IsNoneIfItsStatusMakesNoSense) {
  for (const char* text :
       {"", "\n", "1", ")(", "1 (a)", "x (a) S", "1 (a) S 1 1 1 0 -1 0 0 0 0 0 5"}) {
    EXPECT_FALSE(parseProcess(text)) << text;
  }
}

TEST(Process, TravelsAsALine) {
  const Processes processes{{1, 2, 3, 4.5, 123456789012, "a name"}, {5, 6, 7, 0, 0, ""}};
  const std::string bytes = encode(processes);
  EXPECT_EQ(bytes, "1 2 3 4.5 123456789012 a name\n5 6 7 0 0 \n");
  const auto back = decodeProcesses(bytes);
  ASSERT_TRUE(back);
  EXPECT_EQ(encode(*back), bytes);
  EXPECT_FALSE(decodeProcesses("1 2 3\n"));
  EXPECT_THAT(decodeProcesses("").value(), IsEmpty());
}

TEST(UnknownProcess, TravelsAsText) {
  const std::string bytes = encode(UnknownProcess{7, 99});
  const auto back = decodeUnknownProcess(bytes.data(), bytes.size());
  ASSERT_TRUE(back);
  EXPECT_EQ(back->id, 7);
  EXPECT_EQ(back->known, 99U);
  EXPECT_FALSE(decodeUnknownProcess("x", 1));
  EXPECT_FALSE(decodeUnknownProcess(nullptr, 0));
}

// A service of a folder that stands for /proc, called on this thread.
class ServiceTest : public testing::Test {
 protected:
  ServiceTest()
      : path_(std::filesystem::path(testing::TempDir()) /
              ("processes-" + std::to_string(getpid()))),
        service_(ProcessReader(path_.string())) {
    std::filesystem::create_directories(path_ / "sys");
  }
  ~ServiceTest() override { std::filesystem::remove_all(path_); }

  void write(int id, const std::string& stat) {
    std::filesystem::create_directory(path_ / std::to_string(id));
    std::ofstream(path_ / std::to_string(id) / "stat") << stat;
  }
  void remove(int id) { std::filesystem::remove_all(path_ / std::to_string(id)); }

  std::string call(const std::string& method, const std::string& argument) {
    std::unique_ptr<std::uint8_t[]> out;
    std::size_t size = 0;
    service_.callMethod(method, argument.data(), argument.size(), out, size);
    return std::string(out.get(), out.get() + size);
  }
  std::vector<int> idsOf(const std::string& method, const std::string& argument) {
    std::vector<int> ids;
    const Processes processes = decodeProcesses(call(method, argument)).value();
    for (const Process& process : processes) ids.push_back(process.id);
    return ids;
  }
  double cpuOf(int id) {
    return decodeProcesses(call(kProcessMethod, std::to_string(id))).value().at(0).cpu;
  }

  const std::filesystem::path path_;
  ProcessService service_;
};

TEST_F(ServiceTest, NamesThoseWithTheMostMemory) {
  write(1, statOf(1, "small", 0, 10));
  write(2, statOf(2, "large", 0, 30));
  write(3, statOf(3, "middle", 0, 20));
  service_.look(kSecond);
  EXPECT_THAT(idsOf(kTopMethod, "memory 2"), ElementsAre(2, 3));
  EXPECT_THAT(idsOf(kTopMethod, "memory 9"), ElementsAre(2, 3, 1));
  EXPECT_THAT(idsOf(kTopMethod, "memory 0"), IsEmpty());
}

TEST_F(ServiceTest, NamesThoseThatWereBusyBetweenTheLastTwoLooks) {
  const long second = sysconf(_SC_CLK_TCK);
  write(1, statOf(1, "idle", 1000 * second, 1));
  write(2, statOf(2, "busy", 0, 1));
  write(3, statOf(3, "goes", 0, 1));
  write(4, statOf(4, "old", 0, 1));
  service_.look(kSecond);
  write(2, statOf(2, "busy", second, 1));
  remove(3);
  write(4, statOf(4, "new", 5 * second, 1, 200));  // another process of the same id
  service_.look(3 * kSecond);
  EXPECT_EQ(idsOf(kTopMethod, "cpu 1"), std::vector<int>{2});
  EXPECT_EQ(cpuOf(2), 50);
  EXPECT_EQ(cpuOf(1), 0);
  EXPECT_EQ(cpuOf(4), 0);
}

TEST_F(ServiceTest, KnowsProcessesYoungerThanTheLastLook) {
  service_.look(kSecond);
  write(5, statOf(5, "young", 3, 4));
  const auto process = decodeProcesses(call(kProcessMethod, "5")).value().at(0);
  EXPECT_EQ(process.name, "young");
  EXPECT_EQ(process.ticks, 3U);
}

TEST_F(ServiceTest, MeasuresUsageFromNowOn) {
  write(1, statOf(1, "idle", 1000, 1));
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(decodeProcesses(call(kUsageMethod, "1 30")).value().at(0).cpu, 0);
  EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(30));
}

TEST_F(ServiceTest, SaysWhichProcessItDoesNotKnow) {
  write(1, statOf(1, "init", 0, 1));
  service_.look(kSecond);
  for (const char* method : {kProcessMethod, kUsageMethod}) {
    try {
      call(method, "17 10");
      ADD_FAILURE() << method;
    } catch (const tessel::rpc_custom_error& error) {
      const auto unknown = decodeUnknownProcess(error.data(), error.size());
      ASSERT_TRUE(unknown);
      EXPECT_EQ(unknown->id, 17);
      EXPECT_EQ(unknown->known, 1U);
    }
  }
}

TEST_F(ServiceTest, RefusesQuestionsThatMakeNoSense) {
  for (const auto& [method, argument] :
       std::vector<std::pair<std::string, std::string>>{{"reboot", ""},
                                                        {kTopMethod, ""},
                                                        {kTopMethod, "luck 5"},
                                                        {kTopMethod, "cpu"},
                                                        {kProcessMethod, ""},
                                                        {kProcessMethod, "init"},
                                                        {kUsageMethod, "1"},
                                                        {kUsageMethod, "1 0"},
                                                        {kUsageMethod, "1 1001"}}) {
    EXPECT_THROW(call(method, argument), std::invalid_argument) << method << ' ' << argument;
  }
}

TEST(ProcessReader, KnowsThisProcessAndItsKin) {
  const auto self = ProcessReader().one(getpid());
  ASSERT_TRUE(self);
  EXPECT_EQ(self->id, getpid());
  EXPECT_GT(self->memory, 0);
  bool found = false;
  for (const Process& process : ProcessReader().all()) found = found || process.id == getpid();
  EXPECT_TRUE(found);
  EXPECT_FALSE(ProcessReader().one(4194305));
}

}  // namespace
}  // namespace vitals

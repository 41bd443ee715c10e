#include "core/logger.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "core/process_environment.h"
#include "core/text.h"
#include "tests/support/temp_folder.h"

namespace zul {
namespace {

using test::ReadFile;
using test::WriteFile;
using Strings = std::vector<std::string>;

constexpr std::time_t kNoon = 1700049600;  // 2023-11-15T12:00:00Z

std::string Local(std::time_t time, const char* format) {
  const std::tm local = LocalCalendarTime(time);
  char text[64];
  return {text, std::strftime(text, sizeof text, format, &local)};
}

/// A logger with a clock that only the test moves, and a folder for its files.
class LoggerTest : public testing::Test {
 protected:
  bool Configure() { return logger.Configure(PathToUtf8(directory), "app"); }
  void Write(std::string line) {
    logger.Write(LogCategory::kGeneral, LogLevel::kInfo, std::move(line));
  }
  /// The log file of the current day.
  [[nodiscard]] fs::Path FilePath(const char* suffix = "") const {
    return directory / ("app_" + Local(now, "%Y%m%d") + ".log" + suffix);
  }
  [[nodiscard]] std::string Header() const {
    return Local(now, "%Y-%m-%d %H:%M:%S") +
           " [INFO ] ===== logging started: " + PathToUtf8(FilePath()) + " =====\n";
  }

  const test::TempFolder folder;
  const fs::Path directory = folder / "a/žluť";
  std::time_t now = kNoon;
  Logger logger{[this] { return now; }};
};

TEST_F(LoggerTest, FormatsLinesAndDropsThoseBelowTheFloor) {
  const std::string clock = Local(kNoon, "%H:%M:%S");
  logger.Log(LogCategory::kUpdater, LogLevel::kDebug, "never");
  logger.Log(LogLevel::kInfo, "one", std::string(" two"), std::string_view(" three"), " four");
  logger.Log(LogCategory::kUpdater, LogLevel::kWarn, "text");
  now += 61;
  logger.Log(LogCategory{9}, LogLevel{9}, "odd");
  Write("");
  const std::string odd = Local(now, "%H:%M:%S") + " [?????] [general] odd";
  EXPECT_EQ(logger.RecentLines(5), (Strings{clock + " [INFO ] one two three four",
                                            clock + " [WARN ] [updater] text", odd}));
  EXPECT_EQ(logger.RecentLines(1), Strings{odd});
}

TEST_F(LoggerTest, TruncatesLongLinesAndDropsTheOldestByCountAndBytes) {
  ASSERT_TRUE(Configure());
  const std::string longest(Logger::kMaxLineBytes, 'x');
  Write(longest);
  Write(longest + "y");
  EXPECT_EQ(logger.RecentLines(0), (Strings{longest, longest + "... [truncated]"}));
  EXPECT_EQ(ReadFile(FilePath()), Header() + longest + "\n" + longest + "... [truncated]\n");

  std::vector<std::jthread> threads(4);
  for (std::jthread& thread : threads) {
    thread = std::jthread([this] {
      for (int i = 0; i < 2000; ++i) Write("from many threads at once");
    });
  }
  threads.clear();
  for (std::size_t i = 0; i <= Logger::kMaxRecentLines; ++i) Write(std::to_string(i));
  EXPECT_EQ(logger.RecentLines(0).size(), Logger::kMaxRecentLines);
  EXPECT_EQ(logger.RecentLines(0).front(), "1");
  // Each line counts as 65536 bytes, and 64 of them reach the limit.
  for (int i = 0; i < 64; ++i) Write(std::string(65535, 'x'));
  EXPECT_EQ(logger.RecentLines(0).size(), 64U);
  Write("x");
  EXPECT_EQ(logger.RecentLines(0).size(), 64U);
}

TEST_F(LoggerTest, OpensAFileWithAHeaderEachDayAndAppendsAfterARestart) {
  ASSERT_TRUE(Configure());
  Write("one");
  now += 86400;
  Write("two");
  EXPECT_EQ(ReadFile(FilePath()), Header() + "two\n");
  now = kNoon;
  EXPECT_EQ(ReadFile(FilePath()), Header() + "one\n");
  ASSERT_TRUE(Configure());
  EXPECT_EQ(ReadFile(FilePath()), Header() + "one\n" + Header());
  EXPECT_FALSE(logger.Configure("", "app"));
  EXPECT_EQ(logger.CurrentPath(), "");
}

TEST_F(LoggerTest, RotatesAtTheLimitOnlyWhenOpening) {
  WriteFile(FilePath(), "old");
  std::filesystem::resize_file(FilePath(), Logger::kRotationBytes - 1);  // sparse
  ASSERT_TRUE(Configure());
  EXPECT_FALSE(test::Exists(FilePath(".1")));

  EXPECT_FALSE(logger.Configure("", "app"));
  std::filesystem::resize_file(FilePath(), Logger::kRotationBytes);
  for (const char* suffix : {".1", ".2", ".4", ".5"}) WriteFile(FilePath(suffix), suffix);
  ASSERT_TRUE(Configure());
  std::error_code ec;
  EXPECT_EQ(fs::SizeOf(FilePath(".1"), ec), Logger::kRotationBytes);
  EXPECT_EQ(ReadFile(FilePath(".2")) + ReadFile(FilePath(".3")), ".1.2");
  EXPECT_FALSE(test::Exists(FilePath(".4")));
  EXPECT_EQ(ReadFile(FilePath(".5")), ".4");  // the old .5 is deleted
  EXPECT_EQ(ReadFile(FilePath()), Header());
}

TEST_F(LoggerTest, LogsToMemoryWithoutAFileAndTriesToOpenItForEachLine) {
  WriteFile(directory, "a file with the folder's name");
  EXPECT_FALSE(Configure());
  Write("in memory only");
  std::error_code ec;
  fs::Remove(directory, ec);
  Write("written");
  EXPECT_EQ(logger.RecentLines(0).size(), 2U);
  EXPECT_EQ(ReadFile(FilePath()), Header() + "written\n");
}

TEST_F(LoggerTest, SinksMayLogAndThrow) {
  Strings order;
  logger.AddSink([&](LogCategory, LogLevel, const std::string& line) {
    order.push_back(line);
    if (line == "outer") Write("inner");
  });
  logger.AddSink([](LogCategory, LogLevel, const std::string&) {
    throw std::runtime_error("a failure of the sink");
  });
  Write("outer");
  EXPECT_EQ(order, (Strings{"outer", "inner"}));
  EXPECT_EQ(logger.RecentLines(0), (Strings{"inner", "outer"}));
}

}  // namespace
}  // namespace zul

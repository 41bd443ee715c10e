#include "core/logger.h"

#include <gtest/gtest.h>

#include <algorithm>
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
using test::TempFolder;
using test::WriteFile;

constexpr std::time_t kNoon = 1700049600;  // 2023-11-15T12:00:00Z
constexpr std::time_t kDay = 86400;

std::string Local(std::time_t time, const char* format) {
  const std::tm local = LocalCalendarTime(time);
  char text[64];
  return {text, std::strftime(text, sizeof text, format, &local)};
}

std::string LogName(std::time_t time) {
  return "app_" + Local(time, "%Y%m%d") + ".log";
}

std::string Header(std::time_t time, const std::string& path) {
  return Local(time, "%Y-%m-%d %H:%M:%S") + " [INFO ] ===== logging started: " + path + " =====\n";
}

/// A logger whose time stands still until the test moves it, and a folder that it may write to.
class LoggerTest : public testing::Test {
 protected:
  bool Configure() { return logger.Configure(PathToUtf8(folder.path()), "app"); }
  void Write(std::string line) {
    logger.Write(LogCategory::kGeneral, LogLevel::kInfo, std::move(line));
  }

  const TempFolder folder;
  std::time_t now = kNoon;
  Logger logger{[this] { return now; }};
};

TEST_F(LoggerTest, FormatsLinesAndDropsThoseBelowTheFloor) {
  const std::string clock = Local(kNoon, "%H:%M:%S");
  logger.Log(LogLevel::kDebug, "never");
  logger.Log(LogCategory::kUpdater, LogLevel::kDebug, "never");
  logger.Log(LogLevel::kInfo, "one", std::string(" two"), std::string_view(" three"), " four");
  logger.Log(LogCategory::kUpdater, LogLevel::kWarn, "text");
  now += 61;
  logger.Log(LogCategory::kGeneral, LogLevel::kError, "");
  logger.Log(LogCategory{9}, LogLevel{9}, "odd");
  Write("");
  const std::string later = Local(kNoon + 61, "%H:%M:%S");
  const std::vector<std::string> expected = {
      clock + " [INFO ] one two three four", clock + " [WARN ] [updater] text",
      later + " [ERROR] [general] ", later + " [?????] [general] odd"};
  EXPECT_EQ(logger.RecentLines(0), expected);
  EXPECT_EQ(logger.RecentLines(5), expected);
  EXPECT_EQ(logger.RecentLines(1), std::vector<std::string>{expected.back()});
  EXPECT_EQ(logger.CurrentPath(), "");
}

TEST_F(LoggerTest, CutsLongLinesInMemoryAndFile) {
  ASSERT_TRUE(Configure());
  const std::string longest(Logger::kMaxLineBytes, 'x');
  Write(longest);
  Write(longest + "y");
  EXPECT_EQ(logger.RecentLines(0),
            (std::vector<std::string>{longest, longest + "... [truncated]"}));
  EXPECT_EQ(ReadFile(folder / LogName(kNoon)),
            Header(kNoon, logger.CurrentPath()) + longest + "\n" + longest + "... [truncated]\n");
}

TEST_F(LoggerTest, ForgetsTheOldestLinesByCountAndBytes) {
  for (std::size_t i = 0; i <= Logger::kMaxRecentLines; ++i) Write(std::to_string(i));
  EXPECT_EQ(logger.RecentLines(0).size(), Logger::kMaxRecentLines);
  EXPECT_EQ(logger.RecentLines(0).front(), "1");

  // 65536 bytes each as they are counted, 64 to the limit.
  for (int i = 0; i < 64; ++i) Write(std::string(65535, 'x'));
  EXPECT_EQ(logger.RecentLines(0).size(), 64U);
  Write("x");
  EXPECT_EQ(logger.RecentLines(0).size(), 64U);
  EXPECT_EQ(logger.RecentLines(0).back(), "x");
}

TEST_F(LoggerTest, OpensANewFileWithAHeaderEachDayAndAppendsOnRestart) {
  const fs::Path directory = folder / "a/žluť";
  ASSERT_TRUE(logger.Configure(PathToUtf8(directory), "app"));
  const std::string first = logger.CurrentPath();
  EXPECT_EQ(first, PathToUtf8(directory / LogName(kNoon)));
  Write("one");
  now += kDay;
  Write("two");
  EXPECT_EQ(ReadFile(directory / LogName(kNoon)), Header(kNoon, first) + "one\n");
  EXPECT_EQ(ReadFile(directory / LogName(now)), Header(now, logger.CurrentPath()) + "two\n");

  now = kNoon;
  ASSERT_TRUE(logger.Configure(PathToUtf8(directory), "app"));
  EXPECT_EQ(ReadFile(directory / LogName(kNoon)),
            Header(kNoon, first) + "one\n" + Header(kNoon, first));
  EXPECT_FALSE(logger.Configure("", "app"));
  EXPECT_EQ(logger.CurrentPath(), "");
}

TEST_F(LoggerTest, RotatesAtTheLimitOnlyWhenOpening) {
  const auto name = [&](const char* suffix) { return folder / (LogName(kNoon) + suffix); };
  WriteFile(name(""), "old");
  std::filesystem::resize_file(name(""), Logger::kRotationBytes - 1);  // sparse
  ASSERT_TRUE(Configure());
  EXPECT_FALSE(test::Exists(name(".1")));

  EXPECT_FALSE(logger.Configure("", "app"));
  std::filesystem::resize_file(name(""), Logger::kRotationBytes);
  for (const char* suffix : {".1", ".2", ".4", ".5"}) WriteFile(name(suffix), suffix);
  ASSERT_TRUE(Configure());
  std::error_code ec;
  EXPECT_EQ(fs::SizeOf(name(".1"), ec), Logger::kRotationBytes);
  EXPECT_EQ(ReadFile(name(".2")), ".1");
  EXPECT_EQ(ReadFile(name(".3")), ".2");
  EXPECT_FALSE(test::Exists(name(".4")));
  EXPECT_EQ(ReadFile(name(".5")), ".4");  // what was .5 is gone
  EXPECT_EQ(ReadFile(name("")), Header(kNoon, logger.CurrentPath()));
}

TEST_F(LoggerTest, KeepsLoggingToMemoryWithoutAFileAndTriesAgainEachLine) {
  WriteFile(folder / "logs", "a file in the way");
  EXPECT_FALSE(logger.Configure(PathToUtf8(folder / "logs"), "app"));
  Write("lost to the file");
  std::error_code ec;
  fs::Remove(folder / "logs", ec);
  Write("written");
  EXPECT_EQ(logger.RecentLines(0).size(), 2U);
  EXPECT_EQ(ReadFile(folder / "logs" / LogName(kNoon)),
            Header(kNoon, logger.CurrentPath()) + "written\n");
}

TEST_F(LoggerTest, CountsFlushes) {
  logger.Log(LogLevel::kError, "no file, no flush");
  EXPECT_EQ(logger.flush_count(), 0U);
  ASSERT_TRUE(Configure());
  EXPECT_EQ(logger.flush_count(), 1U);
  logger.Log(LogCategory::kUpdater, LogLevel::kInfo, "not flushed");
  EXPECT_EQ(logger.flush_count(), 1U);
  logger.Log(LogLevel::kWarn, "flushed");
  logger.Log(LogCategory::kDiagnostics, LogLevel::kInfo, "flushed");
  logger.set_always_flush(true);
  logger.Log(LogLevel::kInfo, "flushed");
  EXPECT_EQ(logger.flush_count(), 4U);
}

TEST_F(LoggerTest, SinksMayLogAddSinksAndThrow) {
  std::vector<std::string> order;
  logger.AddSink([&](LogCategory, LogLevel, const std::string& line) {
    order.push_back("first " + line);
    if (line == "outer") Write("inner");
  });
  logger.AddSink([&](LogCategory, LogLevel, const std::string&) {
    logger.AddSink(
        [&](LogCategory, LogLevel, const std::string& line) { order.push_back("late " + line); });
    throw std::runtime_error("a sink's own trouble");
  });
  Write("outer");
  EXPECT_EQ(order, (std::vector<std::string>{"first outer", "first inner"}));
  EXPECT_EQ(logger.RecentLines(0), (std::vector<std::string>{"inner", "outer"}));
  Write("next");
  EXPECT_EQ(std::count(order.begin(), order.end(), "late next"), 2);
}

TEST_F(LoggerTest, ThreadsWriteWholeLines) {
  ASSERT_TRUE(Configure());
  {
    std::vector<std::jthread> threads;
    for (const char letter : {'a', 'b', 'c', 'd'}) {
      threads.emplace_back([this, letter] {
        for (int i = 0; i < 500; ++i) Write(std::string(200, letter));
      });
    }
  }
  std::string text = ReadFile(folder / LogName(kNoon));
  text.erase(0, text.find('\n') + 1);
  ASSERT_EQ(text.size(), 2000U * 201);
  for (std::size_t at = 0; at < text.size(); at += 201) {
    ASSERT_EQ(text.substr(at, 201), std::string(200, text[at]) + "\n");
  }
}

}  // namespace
}  // namespace zul

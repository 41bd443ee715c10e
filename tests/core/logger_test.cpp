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

/// A logger whose time stands still until the test moves it.
struct FixedLogger {
  std::time_t now = kNoon;
  Logger logger{[this] { return now; }};
};

TEST(Logger, FormatsLinesAndDropsThoseBelowTheFloor) {
  FixedLogger fixed;
  Logger& logger = fixed.logger;
  const std::string clock = Local(kNoon, "%H:%M:%S");
  logger.Log(LogLevel::kDebug, "never");
  logger.Log(LogCategory::kUpdater, LogLevel::kDebug, "never");
  logger.Log(LogLevel::kInfo, "one", std::string(" two"), std::string_view(" three"), " four");
  logger.Log(LogCategory::kUpdater, LogLevel::kWarn, "text");
  fixed.now += 61;
  logger.Log(LogCategory::kGeneral, LogLevel::kError, "");
  logger.Log(LogCategory{9}, LogLevel{9}, "odd");
  logger.Write(LogCategory::kGeneral, LogLevel::kInfo, "");
  const std::string later = Local(kNoon + 61, "%H:%M:%S");
  const std::vector<std::string> expected = {
      clock + " [INFO ] one two three four", clock + " [WARN ] [updater] text",
      later + " [ERROR] [general] ", later + " [?????] [general] odd"};
  EXPECT_EQ(logger.RecentLines(0), expected);
  EXPECT_EQ(logger.RecentLines(5), expected);
  EXPECT_EQ(logger.RecentLines(1), std::vector<std::string>{expected.back()});
  EXPECT_EQ(logger.CurrentPath(), "");
}

TEST(Logger, CutsLongLinesInMemoryAndFile) {
  const TempFolder folder;
  FixedLogger fixed;
  ASSERT_TRUE(fixed.logger.Configure(PathToUtf8(folder.path()), "app"));
  const std::string longest(Logger::kMaxLineBytes, 'x');
  fixed.logger.Write(LogCategory::kGeneral, LogLevel::kInfo, longest);
  fixed.logger.Write(LogCategory::kGeneral, LogLevel::kInfo, longest + "y");
  EXPECT_EQ(fixed.logger.RecentLines(0),
            (std::vector<std::string>{longest, longest + "... [truncated]"}));
  const std::string path = PathToUtf8(folder / LogName(kNoon));
  EXPECT_EQ(ReadFile(folder / LogName(kNoon)),
            Header(kNoon, path) + longest + "\n" + longest + "... [truncated]\n");
}

TEST(Logger, ForgetsTheOldestLinesByCountAndBytes) {
  Logger by_count;
  for (std::size_t i = 0; i <= Logger::kMaxRecentLines; ++i) {
    by_count.Write(LogCategory::kGeneral, LogLevel::kInfo, std::to_string(i));
  }
  EXPECT_EQ(by_count.RecentLines(0).size(), Logger::kMaxRecentLines);
  EXPECT_EQ(by_count.RecentLines(0).front(), "1");

  Logger by_bytes;
  const std::string line(65535, 'x');  // 65536 bytes as it is counted, 64 to the limit
  for (int i = 0; i < 64; ++i) by_bytes.Write(LogCategory::kGeneral, LogLevel::kInfo, line);
  EXPECT_EQ(by_bytes.RecentLines(0).size(), 64U);
  by_bytes.Write(LogCategory::kGeneral, LogLevel::kInfo, "x");
  EXPECT_EQ(by_bytes.RecentLines(0).size(), 64U);
  EXPECT_EQ(by_bytes.RecentLines(0).back(), "x");
}

TEST(Logger, OpensANewFileWithAHeaderEachDayAndAppendsOnRestart) {
  const TempFolder folder;
  const std::string directory = PathToUtf8(folder / "a/žluť");
  FixedLogger fixed;
  ASSERT_TRUE(fixed.logger.Configure(directory, "app"));
  const std::string first = fixed.logger.CurrentPath();
  EXPECT_EQ(first, PathToUtf8(folder / "a/žluť" / LogName(kNoon)));
  fixed.logger.Write(LogCategory::kGeneral, LogLevel::kInfo, "one");
  fixed.now += kDay;
  fixed.logger.Write(LogCategory::kGeneral, LogLevel::kInfo, "two");
  EXPECT_EQ(ReadFile(folder / "a/žluť" / LogName(kNoon)), Header(kNoon, first) + "one\n");
  const std::string second = fixed.logger.CurrentPath();
  EXPECT_EQ(ReadFile(folder / "a/žluť" / LogName(kNoon + kDay)),
            Header(kNoon + kDay, second) + "two\n");

  FixedLogger again;
  ASSERT_TRUE(again.logger.Configure(directory, "app"));
  EXPECT_EQ(ReadFile(folder / "a/žluť" / LogName(kNoon)),
            Header(kNoon, first) + "one\n" + Header(kNoon, first));
  EXPECT_FALSE(again.logger.Configure("", "app"));
  EXPECT_EQ(again.logger.CurrentPath(), "");
}

TEST(Logger, RotatesAtTheLimitOnlyWhenOpening) {
  const TempFolder folder;
  const auto name = [&](const char* suffix) { return folder / (LogName(kNoon) + suffix); };
  WriteFile(name(""), "old");
  std::filesystem::resize_file(name(""), Logger::kRotationBytes - 1);  // sparse
  Logger{[] { return kNoon; }}.Configure(PathToUtf8(folder.path()), "app");
  EXPECT_FALSE(test::Exists(name(".1")));

  std::filesystem::resize_file(name(""), Logger::kRotationBytes);
  for (const char* suffix : {".1", ".2", ".4", ".5"}) WriteFile(name(suffix), suffix);
  Logger logger{[] { return kNoon; }};
  ASSERT_TRUE(logger.Configure(PathToUtf8(folder.path()), "app"));
  std::error_code ec;
  EXPECT_EQ(fs::SizeOf(name(".1"), ec), Logger::kRotationBytes);
  EXPECT_EQ(ReadFile(name(".2")), ".1");
  EXPECT_EQ(ReadFile(name(".3")), ".2");
  EXPECT_FALSE(test::Exists(name(".4")));
  EXPECT_EQ(ReadFile(name(".5")), ".4");  // what was .5 is gone
  EXPECT_EQ(ReadFile(name("")), Header(kNoon, logger.CurrentPath()));
}

TEST(Logger, KeepsLoggingToMemoryWithoutAFileAndTriesAgainEachLine) {
  const TempFolder folder;
  WriteFile(folder / "logs", "a file in the way");
  FixedLogger fixed;
  EXPECT_FALSE(fixed.logger.Configure(PathToUtf8(folder / "logs"), "app"));
  fixed.logger.Write(LogCategory::kGeneral, LogLevel::kError, "lost to the file");
  std::error_code ec;
  fs::Remove(folder / "logs", ec);
  fixed.logger.Write(LogCategory::kGeneral, LogLevel::kError, "written");
  EXPECT_EQ(fixed.logger.RecentLines(0).size(), 2U);
  EXPECT_EQ(ReadFile(folder / "logs" / LogName(kNoon)),
            Header(kNoon, fixed.logger.CurrentPath()) + "written\n");
}

TEST(Logger, CountsFlushes) {
  const TempFolder folder;
  Logger logger;
  logger.Log(LogLevel::kError, "no file, no flush");
  EXPECT_EQ(logger.flush_count(), 0U);
  ASSERT_TRUE(logger.Configure(PathToUtf8(folder.path()), "app"));
  const std::uint64_t opened = logger.flush_count();
  EXPECT_EQ(opened, 1U);
  logger.Log(LogCategory::kUpdater, LogLevel::kInfo, "not flushed");
  EXPECT_EQ(logger.flush_count(), opened);
  logger.Log(LogLevel::kWarn, "flushed");
  logger.Log(LogCategory::kDiagnostics, LogLevel::kInfo, "flushed");
  logger.set_always_flush(true);
  logger.Log(LogLevel::kInfo, "flushed");
  EXPECT_EQ(logger.flush_count(), opened + 3);
}

TEST(Logger, SinksMayLogAddSinksAndThrow) {
  Logger logger;
  std::vector<std::string> order;
  logger.AddSink([&](LogCategory category, LogLevel level, const std::string& line) {
    order.push_back("first " + line);
    if (line == "outer") logger.Write(category, level, "inner");
  });
  logger.AddSink([&](LogCategory, LogLevel, const std::string&) {
    logger.AddSink(
        [&](LogCategory, LogLevel, const std::string& line) { order.push_back("late " + line); });
    throw std::runtime_error("a sink's own trouble");
  });
  logger.Write(LogCategory::kGeneral, LogLevel::kInfo, "outer");
  EXPECT_EQ(order, (std::vector<std::string>{"first outer", "first inner"}));
  EXPECT_EQ(logger.RecentLines(0), (std::vector<std::string>{"inner", "outer"}));
  logger.Write(LogCategory::kGeneral, LogLevel::kInfo, "next");
  EXPECT_EQ(std::count(order.begin(), order.end(), "late next"), 2);
}

TEST(Logger, ThreadsWriteWholeLines) {
  const TempFolder folder;
  Logger logger;
  ASSERT_TRUE(logger.Configure(PathToUtf8(folder.path()), "app"));
  std::vector<std::thread> threads;
  for (const char letter : {'a', 'b', 'c', 'd'}) {
    threads.emplace_back([&logger, letter] {
      for (int i = 0; i < 500; ++i) {
        logger.Write(LogCategory::kGeneral, LogLevel::kInfo, std::string(200, letter));
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  std::string text = ReadFile(*PathFromUtf8(logger.CurrentPath()));
  text.erase(0, text.find('\n') + 1);
  ASSERT_EQ(text.size(), 2000U * 201);
  for (std::size_t at = 0; at < text.size(); at += 201) {
    ASSERT_EQ(text.substr(at, 201), std::string(200, text[at]) + "\n");
  }
}

}  // namespace
}  // namespace zul

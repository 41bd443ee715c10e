// The observed side where no observer comes: this test process itself is observed, once.

#include <windows.h>

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "collector/collector.h"
#include "collector/emergency_record.h"
#include "core/text.h"
#include "tests/support/temp_folder.h"

namespace zul {
namespace {

constexpr DWORD kGccThrow = 0x20474343;

TEST(Collector, RecordsACrashWithoutAnObserver) {
  static const test::TempFolder crash;  // its emergency.bin stays open
  RecordProcessExitCode(1);
  EXPECT_EQ(CompactSessionDirectory(), fs::Path());
  const auto started = StartCompactCollector(crash.path(), crash.path());
  EXPECT_FALSE(started.ready);
  EXPECT_EQ(started.failure_reason, "collector_executable_missing");
  const fs::Path session = CompactSessionDirectory();
  EXPECT_EQ(started.session_directory, PathToUtf8(session));
  EXPECT_EQ(test::ListTree(session), "emergency.bin\nincident.json\nmetadata.json\n");
  EXPECT_EQ(StartCompactCollector(crash.path(), crash.path()).failure_reason,
            "collector_not_running");

  // The filter as the system calls it.
  const LPTOP_LEVEL_EXCEPTION_FILTER filter = ::SetUnhandledExceptionFilter(nullptr);
  ::SetUnhandledExceptionFilter(filter);
  EXCEPTION_RECORD raised{};
  CONTEXT context{};
  EXCEPTION_POINTERS pointers{&raised, &context};
  raised.ExceptionCode = kGccThrow;
  EXPECT_EQ(filter(&pointers), EXCEPTION_CONTINUE_EXECUTION);
  EXPECT_EQ(test::ReadFile(session / "emergency.bin"), "");
  for (const DWORD code : {0xE0000001, 0xE0000002}) {
    raised.ExceptionCode = code;
    (void)filter(&pointers);
    const auto record = ParseEmergencyRecord(test::ReadFile(session / "emergency.bin"));
    ASSERT_TRUE(record);
    EXPECT_EQ(record->exception_code, 0xE0000001) << "only the first crash is recorded";
  }
}

}  // namespace
}  // namespace zul

#include "core/settings_location.h"

#include <gtest/gtest.h>

#include <string>

#include "core/app_paths.h"
#include "core/logger.h"
#include "core/text.h"
#include "tests/support/environment.h"
#include "tests/support/file_tricks.h"
#include "tests/support/temp_folder.h"

namespace zul {
namespace {

class SettingsLocation : public ::testing::Test {
 protected:
  /// Returns what the call logged, without the time: one line or an empty text.
  std::string Resolve() {
    GetLogger().Log(LogLevel::kError, "mark");
    EXPECT_EQ(ResolveSettingsPath(), PathToUtf8(target_));
    const std::vector<std::string> lines = GetLogger().RecentLines(2);
    if (lines.back().ends_with("mark")) return "";
    EXPECT_TRUE(lines.front().ends_with("mark")) << lines.front();
    return lines.back().substr(9);
  }

  const test::TempFolder folder_;
  const test::ScopedEnvironment home_{"QORVA_CONFIG_HOME", PathToUtf8(folder_.path())};
  const fs::Path target_ = folder_ / "QORVA" / "settings.json";
  const fs::Path legacy_ = folder_ / "ZUL_RIP" / "settings.json";
  const std::string from_legacy_ = "legacy settings from '" + PathToUtf8(legacy_) + "'";
  const std::string to_target_ = " to '" + PathToUtf8(target_) + "'";
};

TEST_F(SettingsLocation, MigratesLegacySettingsOnce) {
  EXPECT_EQ(Resolve(), "");
  EXPECT_FALSE(test::Exists(target_));
  const std::string largest(1048576, 'x');
  test::WriteFile(legacy_, largest);
  EXPECT_EQ(Resolve(), "");
  test::WriteFile(legacy_, largest + "x");
  EXPECT_EQ(Resolve(), "") << "reads no legacy file when there is a new one";
  test::WriteFile(legacy_, "changed later");
  // The target of a faster process remains.
  EXPECT_TRUE(MigrateLegacySettings(PathToUtf8(legacy_), PathToUtf8(target_), nullptr));
  EXPECT_TRUE(test::ReadFile(target_) == largest);
  EXPECT_EQ(test::ReadFile(legacy_), "changed later");
}

TEST_F(SettingsLocation, LogsAWarningWhenLegacySettingsCannotBeRead) {
  test::WriteFile(legacy_, std::string(1048577, 'x'));
  EXPECT_EQ(Resolve(), "[WARN ] RipSettings: could not migrate " + from_legacy_ + to_target_ +
                           ": Cannot migrate " + from_legacy_ +
                           ": cannot read a bounded source: File exceeds size cap (1048577 bytes "
                           "> 1048576 bytes): " +
                           PathToUtf8(legacy_));
  EXPECT_FALSE(test::Exists(target_));
}

TEST_F(SettingsLocation, LogsAnErrorWhenTheFolderCannotBeCreated) {
  test::WriteFile(folder_ / "QORVA", "a file with the folder's name");
  test::WriteFile(legacy_, "old");
  const std::string line = Resolve();
  EXPECT_TRUE(line.starts_with("[ERROR] RipSettings: cannot prepare settings path '" +
                               PathToUtf8(target_) + "' (cannot create directory '") &&
              line.ends_with(")."))
      << line;
  EXPECT_FALSE(MigrateLegacySettings(PathToUtf8(legacy_), PathToUtf8(target_), nullptr));
}

TEST_F(SettingsLocation, AppDataFallsBackToTheTemporaryFolder) {
  if (test::kOnWindows) GTEST_SKIP() << "Windows always reports the roaming folder";
  const std::string temp = PathToUtf8(folder_.path());
  const test::ScopedEnvironment home("QORVA_CONFIG_HOME", "");  // counts as unset
  const test::ScopedEnvironment roaming("HOME", std::nullopt);
  const test::ScopedEnvironment tmp("TMPDIR", temp + "///");
  const AppPathResult result = ResolveAppDataDirectory("APP");
  EXPECT_EQ(result.path, temp + "/APP");
  EXPECT_TRUE(result.ready && result.used_fallback);
  EXPECT_EQ(result.error, "0x80004005");
}

}  // namespace
}  // namespace zul

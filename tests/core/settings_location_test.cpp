#include "core/settings_location.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "core/logger.h"
#include "core/text.h"
#include "tests/support/environment.h"
#include "tests/support/temp_folder.h"

namespace zul {
namespace {

class SettingsLocation : public ::testing::Test {
 protected:
  /// What the call logged, without the clock.
  std::vector<std::string> Resolve() {
    GetLogger().Log(LogLevel::kError, "mark");
    EXPECT_EQ(ResolveSettingsPath(), PathToUtf8(target_));
    std::vector<std::string> lines;
    for (const std::string& line : GetLogger().RecentLines(0)) {
      lines.push_back(line.substr(9));
      if (line.ends_with("mark")) lines.clear();
    }
    return lines;
  }

  /// The call logs one line that begins with `start` and has `part` in it.
  void ExpectOneLine(const std::string& start, const char* part = "") {
    const std::vector<std::string> lines = Resolve();
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_TRUE(lines[0].starts_with(start)) << lines[0];
    EXPECT_NE(lines[0].find(part), std::string::npos) << lines[0];
  }

  const test::TempFolder folder_;
  const test::ScopedEnvironment home_{"QORVA_CONFIG_HOME", PathToUtf8(folder_.path())};
  const fs::Path target_ = folder_ / "QORVA" / "settings.json";
  const fs::Path legacy_ = folder_ / "ZUL_RIP" / "settings.json";
};

TEST_F(SettingsLocation, CarriesLegacySettingsOverOnce) {
  EXPECT_TRUE(Resolve().empty());
  EXPECT_FALSE(test::Exists(target_));  // nothing to carry over, nothing made
  const std::string largest(1048576, 'x');
  test::WriteFile(legacy_, largest);
  EXPECT_TRUE(Resolve().empty());
  EXPECT_EQ(test::ReadFile(target_), largest);
  test::WriteFile(legacy_, "changed later");
  EXPECT_TRUE(Resolve().empty());
  EXPECT_EQ(test::ReadFile(target_), largest);
  EXPECT_EQ(test::ReadFile(legacy_), "changed later");
  EXPECT_EQ(test::ListTree(folder_.path()),
            "QORVA/\nQORVA/settings.json\nZUL_RIP/\nZUL_RIP/settings.json\n");
  EXPECT_EQ(ApplicationConfigDirectory(), PathToUtf8(folder_ / "QORVA"));
}

TEST_F(SettingsLocation, LegacySettingsThatCannotBeReadCostAWarningOnly) {
  const std::string warning = "[WARN ] RipSettings: could not migrate legacy settings from '" +
                              PathToUtf8(legacy_) + "' to '" + PathToUtf8(target_) +
                              "': Cannot migrate legacy settings from '" + PathToUtf8(legacy_) +
                              "': cannot read a bounded source";
  test::WriteFile(legacy_, std::string(1048577, 'x'));
  ExpectOneLine(warning, "1048577");
  std::error_code ec;
  fs::Remove(legacy_, ec);
  test::WriteFile(legacy_ / "a folder in the way", "");
  ExpectOneLine(warning);
  EXPECT_FALSE(test::Exists(target_));
}

TEST_F(SettingsLocation, ALostRaceIsASuccess) {
  test::WriteFile(legacy_, "mine");
  test::WriteFile(target_, "theirs");
  std::string error;
  EXPECT_TRUE(MigrateLegacySettings(PathToUtf8(legacy_), PathToUtf8(target_), &error)) << error;
  EXPECT_EQ(test::ReadFile(target_), "theirs");

  std::error_code ec;
  fs::Remove(target_, ec);
  GetLogger().Log(LogLevel::kError, "mark");
  {
    std::vector<std::jthread> processes(4);
    for (auto& p : processes) p = std::jthread([] { static_cast<void>(ResolveSettingsPath()); });
  }
  EXPECT_TRUE(GetLogger().RecentLines(1).front().ends_with("mark"));
  EXPECT_EQ(test::ReadFile(target_), "mine");
}

TEST_F(SettingsLocation, APathThatCannotBePreparedIsReportedAndReturned) {
  test::WriteFile(folder_ / "QORVA", "a file in the way");
  test::WriteFile(legacy_, "old");
  ExpectOneLine("[ERROR] RipSettings: cannot prepare settings path '" + PathToUtf8(target_) +
                    "' (cannot create directory '",
                ").");

  std::string error;
  EXPECT_FALSE(MigrateLegacySettings(PathToUtf8(legacy_), PathToUtf8(target_), &error));
  EXPECT_TRUE(error.starts_with("Cannot atomically migrate legacy settings from '" +
                                PathToUtf8(legacy_) + "' to '" + PathToUtf8(target_) + "'"))
      << error;
}

}  // namespace
}  // namespace zul

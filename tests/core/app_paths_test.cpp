#include "core/app_paths.h"

#include <gtest/gtest.h>

#include "core/text.h"
#include "tests/support/environment.h"
#include "tests/support/temp_folder.h"

namespace zul {
namespace {

using test::ScopedEnvironment;
using test::TempFolder;

TEST(AppPaths, ConfigHomeDecidesTheFolder) {
  const TempFolder folder;
  const ScopedEnvironment home("QORVA_CONFIG_HOME", PathToUtf8(folder / "konfigurační/x"));
  const AppPathResult file = ResolveAppFile("APP", "a.json");
  EXPECT_EQ(file.path, PathToUtf8(folder / "konfigurační/x" / "APP" / "a.json"));
  EXPECT_TRUE(file.ready);
  EXPECT_FALSE(file.used_fallback);
  EXPECT_EQ(file.error, "");
  EXPECT_EQ(test::ListTree(folder.path()), "konfigurační/\nkonfigurační/x/\nkonfigurační/x/APP/\n");
}

TEST(AppPaths, EmptyConfigHomeCountsAsUnset) {
  const std::string name = "qorva-app-paths-test";
  std::uint32_t hresult = 0;
  const auto roaming = RoamingAppDataDirectory(&hresult);
  if (!roaming) GTEST_SKIP() << "no roaming folder here";
  for (const auto& value : {std::optional<std::string>(""), std::optional<std::string>()}) {
    const ScopedEnvironment home("QORVA_CONFIG_HOME", value);
    const AppPathResult result = ResolveAppDataDirectory(name);
    EXPECT_EQ(result.path, PathToUtf8(*roaming / *PathFromUtf8(name)));
    EXPECT_FALSE(result.used_fallback);
  }
  std::error_code ec;
  fs::Remove(*roaming / *PathFromUtf8(name), ec);
}

TEST(AppPaths, AFileInTheWayLeavesAPathThatIsNotReady) {
  const TempFolder folder;
  test::WriteFile(folder / "APP", "");
  const ScopedEnvironment home("QORVA_CONFIG_HOME", PathToUtf8(folder.path()));
  const AppPathResult file = ResolveAppFile("APP", "");
  EXPECT_EQ(file.path, PathToUtf8(folder / "APP"));
  EXPECT_FALSE(file.ready);
  const std::string beginning = "cannot create directory '" + file.path + "': ";
  const std::string end = "; filename is empty";
  EXPECT_TRUE(file.error.starts_with(beginning) && file.error.ends_with(end)) << file.error;
  EXPECT_GT(file.error.size(), beginning.size() + end.size());

  const AppPathResult nameless = ResolveAppFile("", "");
  EXPECT_EQ(nameless.path, "");
  EXPECT_FALSE(nameless.ready);
  EXPECT_EQ(nameless.error, "app_dir_name is empty; filename is empty");
}

TEST(AppPaths, FormatsHresults) {
  EXPECT_EQ(FormatHresult(0x800700AB), "0x800700AB");
  EXPECT_EQ(FormatHresult(0xAB), "0x000000AB");
}

}  // namespace
}  // namespace zul

#include <gtest/gtest.h>

#include <string>

#include "core/text.h"
#include "request/update_request.h"
#include "tests/support/file_tricks.h"
#include "tests/support/temp_folder.h"

namespace zul {
namespace {

using test::TempFolder;

const std::string kOutside =
    "Restart executable must be directly inside the update target directory.";

/// Expects the message `error`, or success when it is empty.
void Check(const std::string& target, const std::string& restart, const std::string& error) {
  UpdateRequest request;
  request.target_dir = target;
  request.restart_exe = restart;
  std::string message;
  EXPECT_EQ(ValidateUpdatePaths(request, &message), error.empty());
  EXPECT_EQ(message, error) << target << " | " << restart;
}

TEST(ValidateUpdatePaths, ChecksTheTextsInAFixedOrder) {
  const std::string relative = "Update target directory must be an absolute path.";
  const std::string root = "Update target directory cannot be a filesystem root.";
  const std::string name =
      "Restart executable must be qorva_gui.exe, qorva.exe, zul_rip_gui.exe, or zul_rip.exe.";
  Check("C:\\\xff", "\xff", "Update target directory path is not valid UTF-8.");
  Check("x", "C:\\\xed\xa0\x80", "Restart executable path is not valid UTF-8.");
  Check("C:foo", "x", relative);
  Check("C:\\", "C:x", "Restart executable path must be absolute.");
  Check("C:\\/\\", "C:\\x.exe", root);
  Check("\\\\server\\", "C:\\x.exe", root);
  Check("//server/share/app", "C:\\x.exe", name);
  Check("z:/.", "C:\\qorva.exe\\", name);
  Check("C:\\app", "C:\\app\\qorva.exe.", name);
}

TEST(ValidateUpdatePaths, ComparesResolvedPaths) {
  const TempFolder folder;
  for (const char* file :
       {"app/QORVA_gui.exe", "app/sub/qorva.exe", "app/qorva.exe/x", "plain", "app2/qorva.exe"}) {
    test::WriteFile(folder / file, "");
  }
  const auto check = [root = PathToGenericUtf8(folder.path())](
                         const char* target, const char* restart, const std::string& error) {
    Check(root + target, root + restart, error);
  };
  check("/app/sub/..", "/./app/sub/../QORVA_gui.exe", "");
  check("/plain", "/app/qorva.exe", "Update target directory must exist and be a directory.");
  check("/app", "/app/qorva.exe", "Restart executable must exist and be a regular file.");
  check("/app", "/app/sub/qorva.exe", kOutside);

  if (test::kOnWindows) GTEST_SKIP() << "only elsewhere can a test make links to files";
  for (const auto& [target, link] : {std::pair{"app", "link"},
                                     {"../app2/qorva.exe", "app/zul_rip.exe"},
                                     {"../app2/qorva.exe", "app/qorva_updater.exe"}}) {
    ASSERT_TRUE(test::MakeLink(target, folder / link));
  }
  check("/link", "/app/QORVA_gui.exe", "");
  check("/app", "/link/QORVA_gui.exe", "");
  check("/app", "/app/zul_rip.exe", kOutside);
  fs::Path helper;
  EXPECT_FALSE(ResolveUpdaterHelper(PathToUtf8(folder / "app/QORVA_gui.exe"), &helper, nullptr));
}

TEST(ResolveUpdaterHelper, PrefersTheCurrentNameInItsExactSpelling) {
  const std::pair<std::vector<const char*>, std::string> cases[] = {
      {{"Zul_updater.exe"}, "Updater helper must be named qorva_updater.exe or zul_updater.exe."},
      {{"zul_updater.exe"}, "zul_updater.exe"},
      {{"zul_updater.exe", "qorva_updater.exe"}, "qorva_updater.exe"},
      {{"zul_updater.exe", "qorva_updater.exe/a folder"},
       "Updater helper must exist and be a regular file."}};
  for (const auto& [files, expected] : cases) {
    const TempFolder folder;
    for (const char* file : files) test::WriteFile(folder / file, "");
    fs::Path helper;
    std::string error;
    const bool found = ResolveUpdaterHelper(PathToUtf8(folder / "qorva.exe"), &helper, &error);
    EXPECT_EQ(found ? PathToUtf8(helper.lexically_relative(folder.path())) : error, expected);
  }
}

}  // namespace
}  // namespace zul

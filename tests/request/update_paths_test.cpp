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

/// A target and a restart executable, and the message; empty for a pair that may be used.
struct Case {
  std::string target, restart, error;

  void Check(const std::string& root = {}) const {
    UpdateRequest request;
    request.target_dir = root + target;
    request.restart_exe = root + restart;
    std::string message;
    EXPECT_EQ(ValidateUpdatePaths(request, &message), error.empty());
    EXPECT_EQ(message, error) << target << " | " << restart;
  }
};

// Texts decide alone, on any system.
TEST(UpdatePaths, RefusesByTextInAFixedOrder) {
  const std::string relative = "Update target directory must be an absolute path.";
  const std::string root = "Update target directory cannot be a filesystem root.";
  const std::string name =
      "Restart executable must be qorva_gui.exe, qorva.exe, zul_rip_gui.exe, or zul_rip.exe.";
  const Case cases[] = {
      {"C:\\\xff", "\xff", "Update target directory path is not valid UTF-8."},
      {"x", "C:\\\xed\xa0\x80", "Restart executable path is not valid UTF-8."},
      {"C:foo", "x", relative},
      {"C:\\", "C:x", "Restart executable path must be absolute."},
      {"C:\\/\\", "C:\\x.exe", root},
      {"\\\\server\\", "C:\\x.exe", root},
      {"//server/share/app", "C:\\x.exe", name},
      {"z:/.", "C:\\qorva.exe\\", name},
      {"C:\\app", "C:\\app\\qorva.exe.", name},
  };
  for (const Case& c : cases) c.Check();
}

TEST(UpdatePaths, AsksTheDiskAndComparesTheRealPlaces) {
  const TempFolder folder;
  for (const char* file :
       {"app/QORVA_gui.exe", "app/sub/qorva.exe", "app/qorva.exe/x", "plain", "away/qorva.exe"}) {
    test::WriteFile(folder / file, "");
  }
  const Case cases[] = {
      {"/app/sub/..", "/./app/sub/../QORVA_gui.exe", ""},
      {"/plain", "/app/qorva.exe", "Update target directory must exist and be a directory."},
      {"/app", "/app/qorva.exe", "Restart executable must exist and be a regular file."},
      {"/app", "/app/sub/qorva.exe", kOutside},
  };
  const std::string root = PathToGenericUtf8(folder.path());
  for (const Case& c : cases) c.Check(root);

  if (test::kOnWindows) GTEST_SKIP() << "only elsewhere can a test make links to files";
  for (const auto& [target, link] : {std::pair{"app", "link"},
                                     {"../away/qorva.exe", "app/zul_rip.exe"},
                                     {"../away/qorva.exe", "app/qorva_updater.exe"}}) {
    ASSERT_TRUE(test::MakeLink(target, folder / link));
  }
  Case{"/link", "/app/QORVA_gui.exe", ""}.Check(root);
  Case{"/app", "/link/QORVA_gui.exe", ""}.Check(root);
  Case{"/app", "/app/zul_rip.exe", kOutside}.Check(root);
  fs::Path helper;
  EXPECT_FALSE(ResolveUpdaterHelper(root + "/app/QORVA_gui.exe", &helper, nullptr));
}

TEST(UpdaterHelper, PrefersTheCurrentNameSpelledExactly) {
  const struct {
    std::vector<const char*> files;
    std::string found;  ///< the helper's name or the message
  } cases[] = {
      {{"Zul_updater.exe"}, "Updater helper must be named qorva_updater.exe or zul_updater.exe."},
      {{"zul_updater.exe"}, "zul_updater.exe"},
      {{"zul_updater.exe", "qorva_updater.exe"}, "qorva_updater.exe"},
      {{"zul_updater.exe", "qorva_updater.exe/a folder"},
       "Updater helper must exist and be a regular file."}};
  fs::Path helper;
  std::string error;
  for (const auto& c : cases) {
    const TempFolder folder;
    for (const char* file : c.files) test::WriteFile(folder / file, "");
    const bool found = ResolveUpdaterHelper(PathToUtf8(folder / "qorva.exe"), &helper, &error);
    EXPECT_EQ(found ? PathToUtf8(helper.lexically_relative(folder.path())) : error, c.found);
  }
}

}  // namespace
}  // namespace zul

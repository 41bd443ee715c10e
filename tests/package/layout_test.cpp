#include "package/layout.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "core/file_layer.h"
#include "core/text.h"
#include "tests/support/temp_folder.h"

namespace zul {
namespace {

using test::TempFolder;
using test::WriteFile;

RequiredFileContract Names(int count) {
  RequiredFileContract contract;
  for (int i = 0; i < count; ++i) contract.push_back("file" + std::to_string(i));
  return contract;
}

TEST(ValidateRequiredFileContract, TakesSingleSafeNames) {
  const std::string size_message = "Update package required file contract is empty or too large.";
  const std::string unsafe = "Update package required file name is unsafe: ";
  const std::string duplicated = "Update package required file name is duplicated: ";
  const std::string longest(128, 'a');
  const struct {
    RequiredFileContract contract;
    std::string error;
  } cases[] = {
      {Names(1), ""},
      {Names(64), ""},
      {{"A-b_c.9", "...", longest}, ""},
      {{}, size_message},
      {Names(65), size_message},
      {{longest + "a"}, unsafe + longest + "a"},
      {{""}, unsafe},
      {{"."}, unsafe + "."},
      {{"a", ".."}, unsafe + ".."},
      {{"a/b"}, unsafe + "a/b"},
      {{"a\\b"}, unsafe + "a\\b"},
      {{"a:b"}, unsafe + "a:b"},
      {{"a b"}, unsafe + "a b"},
      {{"é"}, unsafe + "é"},
      {{"App.exe", "app.EXE"}, duplicated + "app.EXE"},
  };
  for (const auto& c : cases) {
    std::string error;
    EXPECT_EQ(ValidateRequiredFileContract(c.contract, &error), c.error.empty());
    EXPECT_EQ(error, c.error);
  }
}

TEST(ResolvePayloadLayout, FindsTheFlatRootOrTheSingleWrapper) {
  const RequiredFileContract contract = {"app.exe", "core.dll"};
  const std::string supported =
      " Supported layout is either flat ZIP root or a single top-level wrapper folder containing "
      "those files.";
  const std::string both_missing =
      "Update package layout mismatch. Required files are missing: app.exe, core.dll.";
  const std::string one_missing =
      "Update package layout mismatch. Required files are missing: core.dll.";
  const struct {
    const char* what;
    std::vector<std::string> files;
    std::string root;  // below the stage
    std::string error;
  } cases[] = {
      {"flat", {"app.exe", "core.dll", "data/x", "more/y"}, "", ""},
      {"wrapper", {"wrap/app.exe", "wrap/core.dll", "readme.txt"}, "wrap", ""},
      {"wrapper and another folder",
       {"wrap/app.exe", "wrap/core.dll", "x/y"},
       "",
       both_missing + supported},
      {"wrapper in a wrapper", {"a/b/app.exe", "a/b/core.dll"}, "", both_missing + supported},
      {"spread over two levels", {"app.exe", "wrap/core.dll"}, "", one_missing + supported},
      {"a folder of that name", {"app.exe", "core.dll/x"}, "", one_missing + supported},
      {"only other files", {"readme.txt"}, "", both_missing},
      {"nothing", {}, "", both_missing},
  };
  for (const auto& c : cases) {
    const TempFolder folder;
    for (const std::string& file : c.files) WriteFile(folder / file, "x");
    fs::Path root;
    std::string error;
    EXPECT_EQ(ResolvePayloadLayout(folder.path(), contract, root, &error), c.error.empty())
        << c.what;
    EXPECT_EQ(error, c.error) << c.what;
    const fs::Path expected = c.root.empty() ? folder.path() : folder / c.root;
    EXPECT_EQ(root, error.empty() ? expected : fs::Path()) << c.what;
  }
  const TempFolder folder;
  fs::Path root;
  std::string error;
  EXPECT_FALSE(ResolvePayloadLayout(folder / "missing", contract, root, &error));
  EXPECT_EQ(error, both_missing);
  EXPECT_FALSE(ResolvePayloadLayout(folder.path(), {}, root, &error));
  EXPECT_EQ(error, "Update package required file contract is empty or too large.");
}

TEST(ValidatePayloadTarget, StaysBelowTheTarget) {
  const TempFolder folder;
  WriteFile(folder / "a/file", "x");
  WriteFile(folder / "ab/file", "x");
  const fs::Path base = folder / "a";
  const struct {
    fs::Path target;
    bool inside;
  } cases[] = {
      {base / "file", true},
      {base / "new/deeper" / "file", true},
      {base / "x" / ".." / "file", true},
      {base / "..a", true},
      {base, false},
      {base / "", false},
      {base / ".", false},
      {base / "..", false},
      {base / ".." / "ab" / "file", false},
      {folder / "ab/file", false},
      {folder / "ab", false},
      {base.root_path(), false},
  };
  for (const auto& c : cases) {
    const std::string path = PathToUtf8(c.target);
    EXPECT_EQ(IsPathInsideDirectory(base, c.target), c.inside) << path;
    std::string error;
    EXPECT_EQ(ValidatePayloadTarget(base, c.target, &error), c.inside) << path;
    EXPECT_EQ(error,
              c.inside ? "" : "Update payload target escapes the update directory: '" + path + "'");
    EXPECT_EQ(ValidatePayloadTarget(base, c.target, nullptr), c.inside);
  }
}

}  // namespace
}  // namespace zul

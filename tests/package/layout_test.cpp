#include "package/layout.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "core/text.h"
#include "tests/support/file_tricks.h"
#include "tests/support/temp_folder.h"

namespace zul {
namespace {

using test::MakeLink;
using test::RunsUnderWine;
using test::TempFolder;
using test::WriteFile;

RequiredFileContract Names(int count) {
  RequiredFileContract contract;
  for (int i = 0; i < count; ++i) contract.push_back("file" + std::to_string(i));
  return contract;
}

TEST(ValidateRequiredFileContract, AcceptsSingleSafeNames) {
  const std::string size_message = "Update package required file contract is empty or too large.";
  const std::string unsafe = "Update package required file name is unsafe: ";
  const std::string longest(128, 'a');
  std::vector<std::pair<RequiredFileContract, std::string>> cases = {
      {Names(64), ""},
      {{"A-b_c.9", "...", longest}, ""},
      {{}, size_message},
      {Names(65), size_message},
      {{longest + "a"}, unsafe + longest + "a"},
      {{"App.exe", "app.EXE"}, "Update package required file name is duplicated: app.EXE"},
  };
  for (const char* name : {"", ".", "..", "a/b", "a\\b", "a:b", "a b", "é"}) {
    cases.push_back({{"good", name}, unsafe + name});
  }
  for (const auto& [contract, message] : cases) {
    std::string error;
    EXPECT_EQ(ValidateRequiredFileContract(contract, &error), message.empty());
    EXPECT_EQ(error, message);
  }
}

TEST(ResolvePayloadLayout, FindsTheFlatRootOrTheSingleWrapper) {
  const RequiredFileContract contract = {"app.exe", "core.dll"};
  const std::string mismatch = "Update package layout mismatch. Required files are missing: ";
  const std::string supported =
      " Supported layout is either flat ZIP root or a single top-level wrapper folder containing "
      "those files.";
  const std::string both = mismatch + "app.exe, core.dll.";
  const std::string second = mismatch + "core.dll." + supported;
  const struct {
    const char* what;
    std::vector<std::string> files;
    std::string root, error = {};  // the root relative to the stage
  } cases[] = {
      {"flat", {"app.exe", "core.dll", "data/x", "more/y"}, ""},
      {"wrapper", {"wrap/app.exe", "wrap/core.dll", "readme.txt"}, "wrap"},
      {"two folders", {"wrap/app.exe", "wrap/core.dll", "x/y"}, "", both + supported},
      {"wrapped twice", {"a/b/app.exe", "a/b/core.dll"}, "", both + supported},
      {"over two levels", {"app.exe", "wrap/core.dll"}, "", second},
      {"a folder of that name", {"app.exe", "core.dll/x"}, "", second},
      {"nothing", {}, "", both},
  };
  for (const auto& c : cases) {
    const TempFolder folder;
    for (const std::string& file : c.files) WriteFile(folder / file, "x");
    fs::Path root;
    std::string error;
    EXPECT_EQ(ResolvePayloadLayout(folder.path(), contract, &root, &error), c.error.empty());
    EXPECT_EQ(error, c.error) << c.what;
    const fs::Path expected = c.root.empty() ? folder.path() : folder / c.root;
    EXPECT_EQ(root, error.empty() ? expected : fs::Path()) << c.what;
  }
}

TEST(ResolvePayloadLayout, DoesNotFollowLinks) {
  const TempFolder folder;
  WriteFile(folder / "real/app.exe", "x");
  WriteFile(folder / "stage/readme", "x");
  if (!MakeLink(folder / "real", folder / "stage/wrap")) GTEST_SKIP() << "no links here";
  fs::Path root;
  EXPECT_FALSE(ResolvePayloadLayout(folder / "stage", {"app.exe"}, &root, nullptr));
  if (RunsUnderWine()) return;  // there a link to a file looks like the file
  ASSERT_TRUE(MakeLink(folder / "real/app.exe", folder / "stage/app.exe"));
  EXPECT_FALSE(ResolvePayloadLayout(folder / "stage", {"app.exe"}, &root, nullptr));
}

TEST(IsSafeRelativePath, RefusesRootsDotsAndForbiddenCharacters) {
  std::vector<std::string> refused = {"",    "/a", "..",  "../a", "a/../b",
                                      "./a", "a/", "C:a", "a\x1F"};
  for (const char c : std::string("\"*:<>?|")) refused.push_back(std::string("d") + c + "x/a");
  if (!test::kOnWindows) refused.push_back("a\\b");  // a separator on Windows
  for (const std::string& text : refused) {
    EXPECT_FALSE(IsSafeRelativePath(PathOrEmpty(text))) << text;
  }
  EXPECT_TRUE(IsSafeRelativePath(PathOrEmpty("a/..b/\xC5\xBElu\xC5\xA5 1/\xE2\x80\xA2.dll")));
}

TEST(ValidatePayloadTarget, RequiresATargetBelowTheFolder) {
  const TempFolder folder;
  const fs::Path base = folder / "a";
  WriteFile(base / "d/file", "x");
  WriteFile(folder / "ab/file", "x");
  std::vector<std::pair<const char*, bool>> cases = {
      {"a/d/file", true},    {"a/new/deeper/file", true},
      {"a/x/../file", true}, {"a/..a", true},
      {"a", false},          {"a/", false},
      {"a/..", false},       {"a/../ab/file", false},
  };
  const bool has_links = MakeLink(folder / "ab", base / "out");
  if (has_links) {
    ASSERT_TRUE(MakeLink(base / "d", base / "in"));
    ASSERT_TRUE(MakeLink(base, folder / "alias"));
    cases.insert(
        cases.end(),
        {{"a/out/file", false}, {"a/out/new", false}, {"a/in/file", true}, {"alias/d/file", true}});
  }
  const auto refusal = [&](const fs::Path& target_dir, const fs::Path& target) {
    std::string error;
    const bool valid = ValidatePayloadTarget(target_dir, target, &error);
    EXPECT_EQ(valid, error.empty());
    return error;
  };
  for (const auto& [path, inside] : cases) {
    const fs::Path target = folder / path;
    EXPECT_EQ(IsPathInsideDirectory(base, target), inside) << path;
    const std::string text = PathToUtf8(target);
    EXPECT_EQ(refusal(base, target),
              inside ? "" : "Update payload target escapes the update directory: '" + text + "'");
  }
  // Wine does not see a link without a target.
  if (RunsUnderWine() || !has_links || !MakeLink("loop", base / "loop")) return;
  const std::string loop = "cannot be normalized: '" + PathToUtf8(base / "loop");
  EXPECT_EQ(refusal(base, base / "loop/x"), "Update payload target " + loop + "/x'");
  EXPECT_EQ(refusal(base / "loop", base / "d"), "Update target directory " + loop + "'");
}

}  // namespace
}  // namespace zul

#include <gtest/gtest.h>

#include "core/api_path_win32.h"
#include "core/system_error.h"

namespace zul::fs {
namespace {

TEST(ApiPath, PrefixesAndNormalizesAbsolutePathsOnly) {
  const struct {
    const wchar_t* path;
    const wchar_t* expected;
    std::size_t root_length;
  } cases[] = {
      {L"c:/a//b\\.\\c/", L"\\\\?\\c:\\a\\b\\c", 7},
      {L"C:\\a...\\..b\\nul", L"\\\\?\\C:\\a...\\..b\\nul", 7},
      {L"\\\\server\\share", L"\\\\?\\UNC\\server\\share\\", 21},
      {L"//server/share/a/../../b", L"\\\\?\\UNC\\server\\share\\b", 21},
      {L"\\\\?\\C:\\a\\..\\b", L"\\\\?\\C:\\a\\..\\b", 7},
      {L"\\\\.\\pipe\\x", L"\\\\.\\pipe\\x", 0},
      {L"a\\..\\b", L"a\\..\\b", 0},
      {L"C:a", L"C:a", 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(Path(c.path));
    const std::wstring api_path = ApiPath(c.path);
    EXPECT_EQ(api_path, c.expected);
    EXPECT_EQ(ApiRootLength(api_path), c.root_length);
  }
  EXPECT_EQ(PathFromApi(L"\\\\?\\UNC\\server\\share\\b"), L"\\\\server\\share\\b");
  EXPECT_EQ(PathFromApi(L"\\\\?\\C:\\b"), L"C:\\b");
}

// An update would replace a file that is taken for a missing one without a backup.
TEST(ApiPath, HasNoEntryOnlyWhereTheErrorSaysSo) {
  for (const unsigned long code : {2, 3, 123, 161, 267}) {
    EXPECT_TRUE(MeansNothingThere(SystemError(code))) << code;
  }
  for (const unsigned long code : {5, 21, 32, 53, 59, 64, 67, 1231}) {
    EXPECT_FALSE(MeansNothingThere(SystemError(code))) << code;
  }
}

}  // namespace
}  // namespace zul::fs

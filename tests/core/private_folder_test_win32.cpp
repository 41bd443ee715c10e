// The processes of Wine are elevated. Of an access list, Wine keeps the rights of everyone.

#include <windows.h>

#include <aclapi.h>
#include <gtest/gtest.h>
#include <sddl.h>

#include "core/file_layer.h"
#include "core/private_folder.h"
#include "core/text.h"
#include "tests/support/file_tricks.h"

namespace zul {
namespace {

/// The access list of an entry, as SDDL.
std::string AccessListOf(const fs::Path& path) {
  constexpr SECURITY_INFORMATION kPart = DACL_SECURITY_INFORMATION;
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  wchar_t* text = nullptr;
  ::GetNamedSecurityInfoW(path.c_str(), SE_FILE_OBJECT, kPart, nullptr, nullptr, nullptr, nullptr,
                          &descriptor);
  ::ConvertSecurityDescriptorToStringSecurityDescriptorW(descriptor, SDDL_REVISION_1, kPart, &text,
                                                         nullptr);
  std::string security = text == nullptr ? "" : WideToUtf8Lossy(text);
  ::LocalFree(text);
  ::LocalFree(descriptor);
  return security;
}

TEST(PrivateFolder, IsNewAndKeepsItsPlaceWhileItIsHeld) {
  if (!test::RunsUnderWine()) GTEST_SKIP() << "this process may not be elevated";
  const test::TempFolder temp;
  const fs::Path path = temp / "folder";
  PrivateFolder folder = CreatePrivateFolderAt(path);
  EXPECT_EQ(folder.path, path);
  EXPECT_TRUE(CreatePrivateFolderAt(path).path.empty());
  test::WriteFile(path / "sub/file", "x");
  std::error_code ec;
  EXPECT_FALSE(fs::Rename(path, temp / "moved", ec));
  const std::string everyone = ";WD)";
  EXPECT_EQ(AccessListOf(path).find(everyone), everyone.npos);
  EXPECT_NE(AccessListOf(temp.path()).find(everyone), everyone.npos);
  folder.hold = {};
  EXPECT_TRUE(fs::RemoveTree(path, ec)) << ec;
}

}  // namespace
}  // namespace zul

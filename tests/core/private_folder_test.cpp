#include "core/private_folder.h"

#include <gtest/gtest.h>

#include <utility>

namespace zul {
namespace {

// private_folder_test_win32.cpp creates one.
TEST(PrivateFolder, IsProtectedForAnElevatedAdministratorOnly) {
  for (const auto& [elevated, administrator] : {std::pair{false, true}, {true, false}}) {
    EXPECT_EQ(PrivateFolderSecurity({elevated, administrator}), "");
  }
  EXPECT_NE(PrivateFolderSecurity({true, true}), "");
}

}  // namespace
}  // namespace zul

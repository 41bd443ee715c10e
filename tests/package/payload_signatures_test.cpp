// The pass over a staged tree. What Windows says of real signatures stands in
// tests/rig/test_signatures.py.

#include "package/payload_signatures.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "core/text.h"
#include "tests/support/file_tricks.h"
#include "tests/support/temp_folder.h"

namespace zul {
namespace {

using Paths = std::vector<std::string>;
using Status = PayloadSignatureStatus;

/// A staged tree, and a verifier that notes what it is asked and finds everything valid but one
/// path.
class SignaturePassTest : public testing::Test {
 protected:
  ~SignaturePassTest() override { test::RemoveHostTree(folder_.path()); }

  void Stage(const Paths& names) {
    for (const std::string& name : names)
      test::WriteFile(root_ / fs::Path(*PathFromUtf8(name)), "");
  }

  bool Run() {
    asked_.clear();
    const PayloadSignatureVerifier verifier = [this](const std::string& path) {
      asked_.push_back(path);
      return path.ends_with(bad_name_)
                 ? bad_
                 : UpdatePayloadBinarySignatureResult{Status::kValid, "valid", "Somebody"};
    };
    return VerifyStagedPayloadSignatures(root_, true, verifier, &verified_, &error_);
  }

  const test::TempFolder folder_;
  const fs::Path root_ = folder_ / "stage";
  std::string bad_name_ = "?";
  UpdatePayloadBinarySignatureResult bad_;
  Paths asked_;
  Paths verified_{"left over"};
  std::string error_;
};

TEST_F(SignaturePassTest, AsksForBinariesByExtension) {
  Stage({"APP.EXE", "lib/engine.Dll", "lib/deep/\xC5\xBElu\xC5\xA5.dll", "app.exe.bak", "app.sys",
         "readme", "exe", "lib/x.dll.txt"});
  EXPECT_TRUE(Run()) << error_;
  std::error_code ec;
  const fs::Path resolved_root = fs::WeaklyCanonical(root_, ec);
  Paths absolute;
  for (const std::string& name : verified_) {
    absolute.push_back(PathToUtf8((resolved_root / *PathFromUtf8(name)).make_preferred()));
  }
  EXPECT_EQ(asked_, absolute);
  std::sort(verified_.begin(), verified_.end());
  EXPECT_EQ(verified_, (Paths{"APP.EXE", "lib/deep/\xC5\xBElu\xC5\xA5.dll", "lib/engine.Dll"}));
}

TEST_F(SignaturePassTest, EndsAtTheFirstBinaryThatIsNotValid) {
  Stage({"lib/a.dll", "b.exe", "c.exe", "d.dll"});
  ASSERT_TRUE(Run());
  const Paths order = verified_;
  bad_name_ = order[1];
  const struct {
    Status status;
    std::string detail;
    std::string reason;
  } cases[] = {
      {Status::kUnsigned, "unsigned", "unsigned: unsigned"},
      {Status::kInvalid, "WinVerifyTrust status=-2146869232",
       "invalid: WinVerifyTrust status=-2146869232"},
      {Status::kVerificationError, "", "verification_error"},
  };
  for (const auto& c : cases) {
    bad_ = {c.status, c.detail, {}};
    EXPECT_FALSE(Run());
    EXPECT_EQ(error_, "Staged update binary is not signed by a trusted publisher: '" + order[1] +
                          "' (" + c.reason + ")");
    EXPECT_EQ(asked_.size(), 2u);
    EXPECT_EQ(verified_, Paths(order.begin(), order.begin() + 2));
  }
}

TEST_F(SignaturePassTest, LooksAtNothingUnlessItHasTo) {
  EXPECT_TRUE(VerifyStagedPayloadSignatures(root_, false, {}, &verified_, &error_)) << error_;
  EXPECT_EQ(verified_, Paths{});
  EXPECT_FALSE(VerifyStagedPayloadSignatures(root_, true, {}, nullptr, &error_));
  EXPECT_EQ(error_, "Update payload binary signature verifier is not configured.");
  EXPECT_FALSE(Run());  // there is no tree
  const std::string start = "Cannot enumerate staged update tree for signature validation: '" +
                            PathToUtf8(root_) + "' (code=";
  EXPECT_TRUE(error_.starts_with(start) && error_.ends_with("')")) << error_;
}

TEST_F(SignaturePassTest, RefusesFilesThatAreNotWhatTheirPathSays) {
  const std::string unsafe =
      "Staged update contains an unsafe payload path during signature validation: '";
  if (!test::kOnWindows) {  // a name that only another system allows
    Stage({"a\\b.exe"});
    EXPECT_FALSE(Run());
    EXPECT_EQ(error_, unsafe + "a\\b.exe'");
    std::error_code ec;
    fs::RemoveTree(root_, ec);
  }
  Stage({"app.exe", "lib/x.dll"});
  test::WriteFile(folder_ / "outside/evil.dll", "");
  // Links to folders are not entered, and what hangs is no file.
  if (!test::MakeLink(folder_ / "outside", root_ / "data")) GTEST_SKIP() << "no links here";
  ASSERT_TRUE(test::MakeLink(folder_ / "none", root_ / "hanging.dll"));
  EXPECT_TRUE(Run()) << error_;
  EXPECT_EQ(verified_.size(), 2u);
  ASSERT_TRUE(test::MakeLink(folder_ / "outside/evil.dll", root_ / "lib/y.dll"));
  EXPECT_FALSE(Run());
  EXPECT_EQ(error_, unsafe + PathToUtf8(fs::Path("..") / "outside" / "evil.dll") + "'");
}

TEST(MapTrustStatusTest, TellsUnsignedFromInvalid) {
  EXPECT_EQ(MapTrustStatus(0).status, Status::kValid);
  // No signature, a form that cannot be signed, no provider that knows it.
  for (const std::uint32_t code : {0x800B0100u, 0x800B0003u, 0x800B0001u}) {
    const auto result = MapTrustStatus(static_cast<std::int32_t>(code));
    EXPECT_EQ(result.status, Status::kUnsigned) << std::hex << code;
    EXPECT_EQ(result.detail, "unsigned");
  }
  for (const std::int32_t code : {-2146869232, 1}) {
    const auto result = MapTrustStatus(code);
    EXPECT_EQ(result.status, Status::kInvalid) << code;
    EXPECT_EQ(result.detail, "WinVerifyTrust status=" + std::to_string(code));
  }
}

TEST(VerifyBinarySignatureTest, NeverFindsWhatItCannotReadValid) {
  const auto missing = VerifyBinarySignature("missing.exe");
  EXPECT_TRUE(missing.status == Status::kInvalid || missing.status == Status::kVerificationError);
  if (!test::kOnWindows) return;
  for (const char* malformed : {"C:\\\xFF.exe", ""}) {
    const auto result = VerifyBinarySignature(malformed);
    EXPECT_EQ(result.status, Status::kVerificationError);
    EXPECT_EQ(result.detail, "path conversion failed");
  }
}

}  // namespace
}  // namespace zul

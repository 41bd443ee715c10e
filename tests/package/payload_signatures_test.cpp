// The pass over a staged tree. Real signatures are tested in tests/rig/test_signatures.py.

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

/// A staged tree, and a verifier that records its calls and finds one file not valid.
class SignaturePass : public testing::Test {
 protected:
  ~SignaturePass() override { test::RemoveHostTree(folder_.path()); }

  void Stage(const Paths& names) {
    for (const std::string& name : names) test::WriteFile(root_ / PathOrEmpty(name), "");
  }

  bool Run() {
    asked_.clear();
    const PayloadSignatureVerifier verifier = [this](const std::string& path) {
      asked_.push_back(path);
      return path.ends_with(bad_name_)
                 ? bad_
                 : UpdatePayloadBinarySignatureResult{Status::kValid, "valid", "A publisher"};
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

TEST_F(SignaturePass, SelectsBinariesByExtension) {
  Stage({"APP.EXE", "lib/engine.Dll", "lib/deep/\xC5\xBElu\xC5\xA5.dll", "app.exe.bak", "app.sys",
         "readme", "exe", "lib/x.dll.txt"});
  EXPECT_TRUE(Run()) << error_;
  std::error_code ec;
  const fs::Path root = fs::WeaklyCanonical(root_, ec);
  Paths absolute;
  for (const std::string& name : verified_) {
    absolute.push_back(PathToUtf8((root / PathOrEmpty(name)).make_preferred()));
  }
  EXPECT_EQ(asked_, absolute);
  std::sort(verified_.begin(), verified_.end());
  EXPECT_EQ(verified_, (Paths{"APP.EXE", "lib/deep/\xC5\xBElu\xC5\xA5.dll", "lib/engine.Dll"}));
}

TEST_F(SignaturePass, EndsAtTheFirstBinaryThatIsNotValid) {
  Stage({"lib/a.dll", "b.exe", "c.exe", "d.dll"});
  ASSERT_TRUE(Run());
  const Paths order = verified_;
  bad_name_ = order[1];
  // Without a detail the message has the word only.
  for (const std::string detail : {"", "why"}) {
    bad_ = {detail.empty() ? Status::kVerificationError : Status::kInvalid, detail, {}};
    EXPECT_FALSE(Run());
    EXPECT_EQ(error_, "Staged update binary is not signed by a trusted publisher: '" + order[1] +
                          "' (" + (detail.empty() ? "verification_error" : "invalid: why") + ")");
    EXPECT_EQ(asked_.size(), 2u);
    EXPECT_EQ(verified_, Paths(order.begin(), order.begin() + 2));
  }
}

TEST_F(SignaturePass, ReadsNothingUnlessSignaturesAreRequired) {
  EXPECT_TRUE(VerifyStagedPayloadSignatures(root_, false, {}, &verified_, &error_)) << error_;
  EXPECT_EQ(verified_, Paths{});
  EXPECT_FALSE(VerifyStagedPayloadSignatures(root_, true, {}, nullptr, &error_));
  EXPECT_EQ(error_, "Update payload binary signature verifier is not configured.");
  EXPECT_FALSE(Run());  // there is no tree
  const std::string start = "Cannot enumerate staged update tree for signature validation: '" +
                            PathToUtf8(root_) + "' (code=";
  EXPECT_TRUE(error_.starts_with(start) && error_.ends_with("')")) << error_;
}

TEST_F(SignaturePass, RefusesAFileWhoseResolvedPathIsOutside) {
  const std::string unsafe =
      "Staged update contains an unsafe payload path during signature validation: '";
  Stage({"app.exe", "lib/x.dll"});
  test::WriteFile(folder_ / "outside/evil.dll", "");
  if (!test::MakeLink(folder_ / "outside", root_ / "data")) GTEST_SKIP() << "no links here";
  ASSERT_TRUE(test::MakeLink(folder_ / "none", root_ / "dangling.dll"));
  EXPECT_TRUE(Run()) << error_;  // links to folders are not entered, dangling ones are not files
  EXPECT_EQ(verified_.size(), 2u);
  ASSERT_TRUE(test::MakeLink(folder_ / "outside/evil.dll", root_ / "lib/y.dll"));
  EXPECT_FALSE(Run());
  EXPECT_EQ(error_, unsafe + PathToUtf8(fs::Path("..") / "outside" / "evil.dll") + "'");
}

TEST(MapTrustStatus, SeparatesUnsignedFromInvalid) {
  EXPECT_EQ(MapTrustStatus(0).status, Status::kValid);
  for (const std::uint32_t code : {0x800B0100u, 0x800B0003u, 0x800B0001u}) {
    EXPECT_EQ(MapTrustStatus(static_cast<std::int32_t>(code)).status, Status::kUnsigned) << code;
  }
  EXPECT_EQ(MapTrustStatus(1).status, Status::kInvalid);
  EXPECT_EQ(MapTrustStatus(-2146869232).detail, "WinVerifyTrust status=-2146869232");
}

TEST(VerifyBinarySignature, NeverAcceptsAFileThatItCannotRead) {
  EXPECT_NE(VerifyBinarySignature("missing.exe").status, Status::kValid);
  if (!test::kOnWindows) return;
  EXPECT_EQ(VerifyBinarySignature("C:\\\xFF.exe").detail, "path conversion failed");
  EXPECT_EQ(VerifyBinarySignature("").status, Status::kVerificationError);
}

}  // namespace
}  // namespace zul

#include "package/payload_signatures.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "core/file_layer.h"
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
    const PayloadSignatureVerifier verifier = [this](const std::string& path) {
      asked_.push_back(path);
      const bool bad = path.ends_with(bad_.name);
      return UpdatePayloadBinarySignatureResult{bad ? bad_.status : Status::kValid,
                                                bad ? bad_.detail : "valid", "Somebody"};
    };
    return VerifyStagedPayloadSignatures(root_, true, verifier, &verified_, &error_);
  }

  const test::TempFolder folder_;
  const fs::Path root_ = folder_ / "stage";
  struct {
    std::string name = "?";
    Status status = Status::kValid;
    std::string detail;
  } bad_;
  Paths asked_;
  Paths verified_{"left over"};
  std::string error_;
};

TEST_F(SignaturePassTest, AsksForBinariesByExtensionInTheOrderOfTheWalk) {
  Stage({"APP.EXE", "lib/engine.Dll", "lib/deep/\xC5\xBElu\xC5\xA5.dll", "app.exe.bak", "app.sys",
         "readme", "exe", "lib/x.dll.txt"});
  EXPECT_TRUE(Run()) << error_;

  Paths walked;
  fs::TreeWalker walker(root_);
  std::error_code ec;
  for (fs::DirectoryEntry entry; walker.Next(&entry, ec);) {
    if (std::count_if(verified_.begin(), verified_.end(), [&](const std::string& name) {
          return root_ / *PathFromUtf8(name) == entry.path;
        }) == 1) {
      walked.push_back(PathToGenericUtf8(entry.path.lexically_relative(root_)));
    }
  }
  EXPECT_EQ(verified_, walked);
  Paths sorted = verified_;
  std::sort(sorted.begin(), sorted.end());
  EXPECT_EQ(sorted, (Paths{"APP.EXE", "lib/deep/\xC5\xBElu\xC5\xA5.dll", "lib/engine.Dll"}));

  const fs::Path resolved_root = fs::WeaklyCanonical(root_, ec);
  Paths absolute;
  for (const std::string& name : verified_) {
    absolute.push_back(PathToUtf8((resolved_root / *PathFromUtf8(name)).make_preferred()));
  }
  EXPECT_EQ(asked_, absolute);
}

TEST_F(SignaturePassTest, EndsAtTheFirstBinaryThatIsNotValid) {
  Stage({"lib/a.dll", "b.exe", "c.exe", "d.dll"});
  ASSERT_TRUE(Run());
  const Paths order = verified_;
  const struct {
    Status status;
    std::string detail;
    std::string reason;
  } cases[] = {
      {Status::kUnsigned, "unsigned", "unsigned: unsigned"},
      {Status::kInvalid, "WinVerifyTrust status=-2146869232",
       "invalid: WinVerifyTrust status=-2146869232"},
      {Status::kVerificationError, "", "verification_error"},
      {static_cast<Status>(7), "odd", "unknown: odd"},
  };
  for (const auto& c : cases) {
    bad_ = {order[1], c.status, c.detail};
    asked_.clear();
    EXPECT_FALSE(Run());
    EXPECT_EQ(error_, "Staged update binary is not signed by a trusted publisher: '" + order[1] +
                          "' (" + c.reason + ")");
    EXPECT_EQ(asked_.size(), 2u);
    EXPECT_EQ(verified_, Paths(order.begin(), order.begin() + 2));
  }
}

TEST_F(SignaturePassTest, LooksAtNothingUnlessItHasTo) {
  const fs::Path missing = folder_ / "missing";
  int asked = 0;
  const PayloadSignatureVerifier verifier = [&asked](const std::string&) {
    ++asked;
    return UpdatePayloadBinarySignatureResult{};
  };
  EXPECT_TRUE(VerifyStagedPayloadSignatures(missing, false, verifier, &verified_, &error_));
  EXPECT_TRUE(VerifyStagedPayloadSignatures(missing, false, {}, nullptr, nullptr));
  EXPECT_EQ(verified_, Paths{});
  EXPECT_EQ(error_, "");

  verified_ = {"left over"};
  EXPECT_FALSE(VerifyStagedPayloadSignatures(missing, true, {}, &verified_, &error_));
  EXPECT_EQ(error_, "Update payload binary signature verifier is not configured.");
  EXPECT_EQ(verified_, Paths{});

  test::WriteFile(folder_ / "file", "");
  for (const fs::Path& root : {missing, folder_ / "file"}) {
    EXPECT_FALSE(VerifyStagedPayloadSignatures(root, true, verifier, nullptr, &error_));
    EXPECT_TRUE(
        error_.starts_with("Cannot enumerate staged update tree for signature validation: '" +
                           PathToUtf8(root) + "' (code="))
        << error_;
    EXPECT_TRUE(error_.ends_with("')")) << error_;
  }
  Stage({"data.bin"});
  EXPECT_TRUE(VerifyStagedPayloadSignatures(root_, true, verifier, &verified_, nullptr));
  EXPECT_EQ(asked, 0);
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
  if (!test::MakeLink(folder_ / "outside", folder_ / "probe")) GTEST_SKIP() << "no links here";
  // Links to folders are not entered, and what hangs is no file.
  ASSERT_TRUE(test::MakeLink(folder_ / "outside", root_ / "data"));
  ASSERT_TRUE(test::MakeLink(folder_ / "none", root_ / "hanging.dll"));
  EXPECT_TRUE(Run()) << error_;
  EXPECT_EQ(verified_.size(), 2u);

  ASSERT_TRUE(test::MakeLink(folder_ / "outside/evil.dll", root_ / "lib/y.dll"));
  EXPECT_FALSE(Run());
  EXPECT_EQ(error_, unsafe + PathToUtf8(fs::Path("..") / "outside" / "evil.dll") + "'");
}

TEST(MapTrustStatusTest, TellsUnsignedFromInvalid) {
  const struct {
    std::uint32_t status;
    Status expected;
    std::string detail;
  } cases[] = {
      {0, Status::kValid, "valid"},
      {0x800B0100, Status::kUnsigned, "unsigned"},
      {0x800B0003, Status::kUnsigned, "unsigned"},
      {0x800B0001, Status::kUnsigned, "unsigned"},
      {0x80096010, Status::kInvalid, "WinVerifyTrust status=-2146869232"},  // TRUST_E_BAD_DIGEST
      {0x800B0109, Status::kInvalid, "WinVerifyTrust status=-2146762487"},  // CERT_E_UNTRUSTEDROOT
      {0x800B0101, Status::kInvalid, "WinVerifyTrust status=-2146762495"},  // CERT_E_EXPIRED
      {1, Status::kInvalid, "WinVerifyTrust status=1"},
  };
  for (const auto& c : cases) {
    const auto result = MapTrustStatus(static_cast<std::int32_t>(c.status));
    EXPECT_EQ(result.status, c.expected) << std::hex << c.status;
    EXPECT_EQ(result.detail, c.detail);
    EXPECT_EQ(result.publisher, "");
  }
}

TEST(VerifyBinarySignatureTest, NeverFindsAnUnsignedFileValid) {
  const test::TempFolder folder;
  test::WriteFile(folder / "plain.exe", "not even a program");
  const auto plain = VerifyBinarySignature(PathToUtf8(folder / "plain.exe"));
  EXPECT_EQ(plain.status, test::kOnWindows ? Status::kUnsigned : Status::kVerificationError)
      << plain.detail;
  EXPECT_NE(VerifyBinarySignature(PathToUtf8(folder / "missing.exe")).status, Status::kValid);
  EXPECT_EQ(ReadSignerDisplayName(PathToUtf8(folder / "plain.exe")), "");
  if (test::kOnWindows) {
    for (const char* malformed : {"C:\\\xFF.exe", ""}) {
      const auto result = VerifyBinarySignature(malformed);
      EXPECT_EQ(result.status, Status::kVerificationError);
      EXPECT_EQ(result.detail, "path conversion failed");
    }
  }
}

}  // namespace
}  // namespace zul

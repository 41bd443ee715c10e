#include "transfer/checksum.h"

#include <gtest/gtest.h>

#include "tests/support/trace_reader.h"
#include "tests/ui/fake_screen.h"

namespace zul {
namespace {

const char* const kAbcDigest = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";

TEST(ComputeFileSha256, MatchesPublishedVectorsAndBlockBounds) {
  const std::pair<std::string, const char*> rows[] = {
      // FIPS 180-4's examples.
      {"abc", kAbcDigest},
      {"abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq",
       "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1"},
      {std::string(1000000, 'a'),
       "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0"},
      // Where the padding needs a second block, and where the read buffer ends.
      {"", "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"},
      {std::string(55, 'a'), "9f4390f8d30c2dd92ec9f095b65e2b9ae9b0a925a5258e241c9f1e910f734318"},
      {std::string(56, 'a'), "b35439a4ac6f0948b6d6f9e3c6af0f5f590ce20f1bde7090ef7970686ec6738a"},
      {std::string(63, 'a'), "7d3e74a05d7db15bce4ad9ec0658ea98e3f06eeecf16b4c6fff2da457ddc2f34"},
      {std::string(64, 'a'), "ffe054fe7ae0cb6dc65c3af9b61d5209f439851db43d0ba5997337df154668eb"},
      {std::string(65536, 'a'), "bf718b6f653bebc184e1479f1935b8da974d701b893afcf49e701f3e2f9f9c5a"},
      {std::string(65537, 'a'), "008ffc88d3c96a9f307524eb361e47c5222a887fc45fa0c1fb8d429c5c23b430"},
  };
  const test::TempFolder folder;
  const fs::Path path = folder / "\xC5\xBElu\xC5\xA5.bin";
  for (const auto& [contents, digest] : rows) {
    test::WriteFile(path, contents);
    std::string hex = "stale";
    std::string error;
    EXPECT_TRUE(ComputeFileSha256(path, hex, &error)) << error;
    EXPECT_EQ(hex, digest) << contents.size();
  }
}

TEST(VerifyFileSha256, ComparesTextsAndNamesWhatFailed) {
  const test::TempFolder folder;
  test::WriteFile(folder / "abc", "abc");
  std::string upper = kAbcDigest;
  for (char& c : upper) c = c >= 'a' ? static_cast<char>(c - 'a' + 'A') : c;
  const std::string mismatch = "Downloaded package checksum mismatch.";
  const struct {
    const char* file;
    std::string expected, error;
  } rows[] = {{"abc", kAbcDigest, ""},
              {"abc", " \t" + upper + "\r\n", ""},
              {"abc", std::string(kAbcDigest).substr(1), mismatch},
              {"abc", "", mismatch},
              {"absent", kAbcDigest, "Cannot open file for SHA-256."}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.file + row.expected);
    std::string error;
    EXPECT_EQ(VerifyFileSha256(folder / row.file, row.expected, &error), row.error.empty());
    EXPECT_EQ(error, row.error);
    EXPECT_EQ(VerifyFileSha256(folder / row.file, row.expected, nullptr), row.error.empty());
  }
  // A folder opens on some systems; reading it fails, and then the comparison does.
  EXPECT_FALSE(VerifyFileSha256(folder.path(), kAbcDigest, nullptr));
}

TEST(VerifyPackageChecksum, TellsWindowAndTrace) {
  using Strings = std::vector<std::string>;
  const test::TraceInTempFolder trace;
  const fs::Path package = trace.folder() / "package.zip";
  test::WriteFile(package, "abc");
  test::FakeScreen screen;
  UpdateProgressWindow window(std::make_unique<test::FakeSurface>(screen));
  UpdateRequest request;
  std::string error;

  request.sha256 = kAbcDigest;
  EXPECT_TRUE(VerifyPackageChecksum({&window, request, package, error}, "primary"));
  EXPECT_EQ(error, "");
  request.sha256 = "00";
  EXPECT_FALSE(VerifyPackageChecksum({nullptr, request, package, error}, "rf_fallback"));
  EXPECT_EQ(error, "Downloaded package checksum mismatch.");

  EXPECT_EQ(
      screen.paints,
      Strings{"Verifying update package... | Checking downloaded package SHA-256. | 100% | "});
  EXPECT_EQ(trace.Events(),
            (Strings{"checksum_verify checksum_stage=start origin_role=primary phase=start "
                     "sha256_expected=" +
                         std::string(kAbcDigest),
                     "checksum_verify checksum_stage=ok origin_role=primary phase=ok",
                     "checksum_verify checksum_stage=start origin_role=rf_fallback phase=start "
                     "sha256_expected=00",
                     "checksum_verify checksum_stage=fail error=" + error +
                         " origin_role=rf_fallback phase=fail"}));
}

}  // namespace
}  // namespace zul

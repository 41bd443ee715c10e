#include "transfer/checksum.h"

#include <gtest/gtest.h>

#include "tests/support/temp_folder.h"

namespace zul {
namespace {

TEST(VerifyFileSha256, AcceptsOnlyTheDigestOfTheFile) {
  const std::string abc = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";
  const std::string mismatch = "Downloaded package checksum mismatch.";
  const struct {
    std::string contents, digest, error = {};
  } rows[] = {
      // Examples of FIPS 180-4, a padding of two blocks, and the end of the read buffer.
      {"abc", abc},
      {std::string(1000000, 'a'),
       "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0"},
      {"", "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"},
      {std::string(56, 'a'), "b35439a4ac6f0948b6d6f9e3c6af0f5f590ce20f1bde7090ef7970686ec6738a"},
      {std::string(65536, 'a'), "bf718b6f653bebc184e1479f1935b8da974d701b893afcf49e701f3e2f9f9c5a"},
      {"abc", " \tBA7816BF8F01CFEA414140DE5DAE2223B00361A396177A9CB410FF61F20015AD\r\n"},
      {"abc", abc.substr(1), mismatch},
      {"abc", "", mismatch},
  };
  const test::TempFolder folder;
  for (const auto& row : rows) {
    test::WriteFile(folder / "\xC5\xBE", row.contents);
    std::string error;
    EXPECT_EQ(VerifyFileSha256(folder / "\xC5\xBE", row.digest, &error), row.error.empty());
    EXPECT_EQ(error, row.error) << row.digest;
  }
  std::string error;
  EXPECT_FALSE(VerifyFileSha256(folder / "absent", abc, &error));
  EXPECT_EQ(error, "Cannot open file for SHA-256.");
}

}  // namespace
}  // namespace zul

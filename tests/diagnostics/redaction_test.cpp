#include "diagnostics/redaction.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>

#include "core/text.h"
#include "tests/support/hostile_texts.h"

namespace zul {
namespace {

// The steps that stand for an expression are held against it in redaction_oracle_test_native.cpp.
TEST(RedactSupportText, ReplacesWhatIsPrivateAndNothingElse) {
  const struct {
    std::string text;
    std::string redacted;
  } rows[] = {
      // URLs lose query and fragment and keep everything else.
      {"GET https://a.example/p?t=1#f done", "GET https://a.example/p done"},
      {"<http://a.example?x>'HTTPS://a.example#y?z'", "<http://a.example>'HTTPS://a.example'"},
      {"xhttps://a/?https://b/?c", "xhttps://a/"},
      {"ftp://a.example/?x=1 ://?", "ftp://a.example/?x=1 ://?"},
      {"https://a.example/jan@b.example/x.zip", "https://a.example/[redacted-email]/x.zip"},
      // Headers, command lines, keys, names.
      {"Proxy-Authorization:basic dTpw\r\n", "Proxy-Authorization:basic [redacted-token]\r\n"},
      {"--API_TOKEN=a -password x", "--API_TOKEN=[redacted-token] -password x"},
      {"aws_secret_access-key\n=\nx", "aws_secret_access-key\n=\n[redacted-token]"},
      {"Job Name: Wedding cards 12, copies=2", "Job Name: [redacted-name], copies=2"},
      // Paths end at a blank; what may stand before one differs.
      {"open 'C:\\Users\\jan\\a.tif' failed", "open '[redacted-path]' failed"},
      {"d:/x|\"E:\\\"<F:/y>", "[redacted-path]|\"[redacted-path]\"<[redacted-path]>"},
      {"abC:\\x 1C:\\x _C:\\x -C:\\x C:x C:", "abC:\\x 1C:\\x _C:\\x -C:\\x C:x C:"},
      {"ž:C:\\x at\\\\server\\share\\a b", "ž:[redacted-path] at[redacted-path] b"},
      {"{\"p\":\"C:\\\\Users\\\\jan\"}", "{\"p\":\"[redacted-path]\"}"},
      {"/usr/bin /home/jan /Users/jan x/tmp/y /var/folders/z /Home/jan",
       "/usr/bin [redacted-path] [redacted-path] x[redacted-path] [redacted-path] /Home/jan"},
      // File names with a listed extension.
      {"art/work.v2.pdf, x.pdfs .pdf a.pdf. y.exe",
       "art/[redacted-filename], x.pdfs .pdf a.pdf. y.exe"},
      {"x=\u017ei.png)b.png a.png://", "x=[redacted-filename] a.png://"},
      // The result of one step is the text of the next.
      {"token=C:\\x job_name=token=a@b.example", "token=[redacted-token] job_name=[redacted-name]"},
      {"/home/secret x a@b.example_.png", "[redacted-path] [redacted-token] [[redacted-filename]"},
  };
  for (const auto& row : rows) EXPECT_EQ(RedactSupportText(row.text), row.redacted) << row.text;
  for (const std::string extension : {"png", "JPG", "jpeg", "tif", "TIFF", "pdf", "zip", "prt",
                                      "prn", "txt", "log", "dmp", "zulcolor"}) {
    EXPECT_EQ(RedactSupportText("(a." + extension + ") x"), "([redacted-filename]) x");
  }
}

/// The shorter of two runs.
std::chrono::nanoseconds TimeOf(const std::string& text) {
  auto best = std::chrono::nanoseconds::max();
  for (int run = 0; run < 2; ++run) {
    const auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(IsValidUtf8(RedactSupportText(text)));
    best = std::min<std::chrono::nanoseconds>(best, std::chrono::steady_clock::now() - start);
  }
  return best;
}

TEST(RedactSupportText, TakesLinearTimeOnAnyShape) {
  constexpr std::size_t kSize = 131072;
  const auto ordinary = TimeOf(test::OrdinaryLogText(kSize));
  for (const test::NamedText& hostile : test::HostileTexts(kSize)) {
    EXPECT_LT(TimeOf(hostile.text).count(), (20 * ordinary).count()) << hostile.shape;
  }
}

}  // namespace
}  // namespace zul

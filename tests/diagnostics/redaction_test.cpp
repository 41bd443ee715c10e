#include "diagnostics/redaction.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>

#include "core/text.h"
#include "diagnostics/redaction_steps.h"
#include "tests/support/hostile_texts.h"

namespace zul {
namespace {

using namespace std::string_literals;

struct Row {
  std::string text;
  std::string redacted;
};

const Row kRows[] = {
    // URLs lose query and fragment and keep everything else.
    {"", ""},
    {"GET https://a.example/p?t=1#f done", "GET https://a.example/p done"},
    {"https://a.example#f?t", "https://a.example"},
    {"<http://a.example?x>'HTTPS://a.example?y'", "<http://a.example>'HTTPS://a.example'"},
    {"xhttps://a/?https://b/?c", "xhttps://a/"},
    {"ftp://a.example/?x=1 ://?", "ftp://a.example/?x=1 ://?"},
    {"https://a.example/pack.zip", "https://a.example/pack.zip"},
    {"https://a.example/jan@b.example/x", "https://a.example/[redacted-email]/x"},
    // E-mail addresses.
    {"to Jan.Novak+rip@Mail.Example, cc", "to [redacted-email], cc"},
    {"a@b.example.c1 a@b.c a@.example @b.example a@b",
     "[redacted-email].c1 a@b.c a@.example @b.example a@b"},
    {"a@b.c@d.example@e.example", "a@[redacted-email]@e.example"},
    {"a@..example-b@c.example", "[redacted-email][redacted-email]"},
    // Headers.
    {"authorization :\tBearer  abc.def==, x", "authorization :\tBearer  [redacted-token], x"},
    {"Proxy-Authorization:basic dTpw\r\n", "Proxy-Authorization:basic [redacted-token]\r\n"},
    {"Authorization: Bearer \"x\" Authorization: Digest y",
     "Authorization: Bearer \"x\" Authorization: Digest y"},
    // Command lines.
    {"--API_TOKEN=a /secret b --client-secret\tc,d",
     "--API_TOKEN=[redacted-token] /secret "
     "[redacted-token] --client-secret\t"
     "[redacted-token],d"},
    {"/accesstoken==x --refresh_token  y",
     "/accesstoken=[redacted-token] --refresh_token  "
     "[redacted-token]"},
    {"---password x -password x --passwords x --token",
     "---password [redacted-token] -password x "
     "--passwords x --token"},
    // Keys and values.
    {"License-Key: ABCD-1234;licensekey=x",
     "License-Key: [redacted-token];licensekey="
     "[redacted-token]"},
    {"PassWord=hunter2 next", "PassWord=[redacted-token] next"},
    {"aws_secret_access-key\n=\nx 'session_token:y'",
     "aws_secret_access-key\n=\n[redacted-token] "
     "'session_token:[redacted-token]'"},
    {"api-key=1,accesskey=2;access_token=3\"refreshtoken:4 secret=5'",
     "api-key=[redacted-token],accesskey=[redacted-token];access_token=[redacted-token]\""
     "refreshtoken:[redacted-token] secret=[redacted-token]'"},
    {"token = : x, token=\"x\", token x, token_=x, tok\xC5\xBE"
     "en=x",
     "token = [redacted-token] x, token=\"x\", token x, token_=x, tok\xC5\xBE"
     "en=x"},
    // Names run on over blanks.
    {"Job Name: Wedding cards 12, copies=2", "Job Name: [redacted-name], copies=2"},
    {"source-label=A \"b\" <c>\r\nnext", "source-label=[redacted-name]\r\nnext"},
    {"filename=a;shop_name=b;customer_name=c;personname=d;operator-name=\xC5\xBD"
     "an",
     "filename=[redacted-name];shop_name=[redacted-name];customer_name=[redacted-name];"
     "personname=[redacted-name];operator-name=[redacted-name]"},
    {"job_name:\r\nVelk\xC3\xA1 zak\xC3\xA1zka", "job_name:\r\n[redacted-name]"},
    {"job_name= \t\n, job__name=x, job_name=,",
     "job_name= [redacted-name]\n, job__name=x, job_name=,"},
    // Paths end at a blank; what may stand before one differs.
    {"open 'C:\\Users\\jan\\a.tif' failed", "open '[redacted-path]' failed"},
    {"d:/x|\"E:\\\"<F:/y>G:\\z",
     "[redacted-path]|\"[redacted-path]\"<[redacted-path]>"
     "[redacted-path]"},
    {"abC:\\x 1C:\\x _C:\\x -C:\\x C:x C:", "abC:\\x 1C:\\x _C:\\x -C:\\x C:x C:"},
    {"\xC5\xBE"
     "C:\\x at\\\\server\\share\\a b",
     "\xC5\xBE[redacted-path] at[redacted-path] b"},
    {"{\"p\":\"C:\\\\Users\\\\jan\"}", "{\"p\":\"[redacted-path]\"}"},
    {"/usr/bin /home/jan /Users/jan x/tmp/y /var/folders/z /Home/jan",
     "/usr/bin [redacted-path] [redacted-path] x[redacted-path] [redacted-path] /Home/jan"},
    {"C:\\a\0b"s, "[redacted-path]\0b"s},
    // File names with a listed extension.
    {"a.png B.JPG c.jpeg d.tif e.TIFF f.pdf g.zip h.prt i.prn j.txt k.log l.dmp m.zulcolor",
     "[redacted-filename] [redacted-filename] [redacted-filename] [redacted-filename] "
     "[redacted-filename] [redacted-filename] [redacted-filename] [redacted-filename] "
     "[redacted-filename] [redacted-filename] [redacted-filename] [redacted-filename] "
     "[redacted-filename]"},
    {"art/work.v2.pdf, x.pdfs .pdf a.pdf. y.exe",
     "art/[redacted-filename], x.pdfs .pdf a.pdf. "
     "y.exe"},
    {"(a.png) [b.png] {c.png} 'd.png' \"e.png\" f.png;",
     "([redacted-filename]) [[redacted-filename]] {[redacted-filename]} '[redacted-filename]' "
     "\"[redacted-filename]\" [redacted-filename];"},
    {"x=\xC5\xBEi.png)b.png a.png://", "x=[redacted-filename] a.png://"},
    {"app://h/a.png>b.png", "app://h/a.png>[redacted-filename]"},
    // The result of one step is the text of the next.
    {"token=C:\\x job_name=token=a@b.example", "token=[redacted-token] job_name=[redacted-name]"},
    {"/home/secret x a@b.example_.png", "[redacted-path] [redacted-token] [[redacted-filename]"},
};

TEST(RedactSupportText, ReplacesWhatIsPrivateAndNothingElse) {
  for (const Row& row : kRows) {
    EXPECT_EQ(RedactSupportText(row.text), row.redacted) << row.text;
    EXPECT_EQ(RedactSupportText(row.redacted), row.redacted) << "again: " << row.text;
  }
}

TEST(RedactSupportText, LeavesNoPlantedSecret) {
  const std::string log =
      "12:30:05 [WARN ] [updater] GET https://dist.example/p.zip?sig=PLANTED&u=1#PLANTED refused\n"
      "Authorization: Bearer PLANTED\r\nProxy-Authorization: Basic PLANTED\r\n"
      "run: \"C:\\Users\\PLANTED\\qorva.exe\" --token=PLANTED --client-secret PLANTED "
      "/password PLANTED\n"
      "home=/home/PLANTED/x share=\\\\PLANTED\\jobs\\PLANTED.tif mail=PLANTED@PLANTED.example\n"
      "license_key: PLANTED, api-key=PLANTED; customer name = PLANTED and PLANTED\n"
      "job_name=PLANTED 12 x 18, print \"PLANTED.prn\" (PLANTED.zulcolor) done\n";
  const std::string redacted = RedactSupportText(log);
  EXPECT_EQ(redacted.find("PLANTED"), std::string::npos) << redacted;
  EXPECT_TRUE(redacted.starts_with("12:30:05 [WARN ] [updater] GET https://dist.example/p.zip "));
  EXPECT_TRUE(redacted.ends_with(") done\n"));
}

// The exception that the docstring names: the name took the blank that had ended the URL.
TEST(RedactSupportText, CutsAUrlOnceItsBlankIsGone) {
  const std::string once = RedactSupportText("http://h/job_name=a b,c?d e");
  EXPECT_EQ(once, "http://h/job_name=[redacted-name],c?d e");
  EXPECT_EQ(RedactSupportText(once), "http://h/job_name=[redacted-name],c e");
}

TEST(SanitizeStateValue, JudgesTheValueWithItsKey) {
  struct Field {
    const char* key;
    const char* value;
    const char* sanitized;
  };
  const Field fields[] = {
      {"customer_name", "Jan & daughters", "[redacted-name]"},
      {"token", "abc", "[redacted-token]"},
      {"my-Password", "a b", "[redacted-token] b"},
      {"job_name", "a, b", "[redacted-name], b"},
      {"job_name", "see C:\\x a", "see [redacted-path] a"},  // it did not look harmless
      {"", "Jan", "Jan"},
      {"stage", "apply", "apply"},
      {"job_name", "", ""},
      {"token=x", "y", "y"},  // the key itself changes
      {"a/home/b", "c.d", "c.d"},
      {"x", "/usr", "/usr"},
  };
  for (const Field& field : fields) {
    EXPECT_EQ(SanitizeStateValue(field.key, field.value), field.sanitized)
        << field.key << '=' << field.value;
  }
}

/// The shorter of two runs.
double Milliseconds(const std::string& text) {
  double best = 1e9;
  for (int run = 0; run < 2; ++run) {
    const auto start = std::chrono::steady_clock::now();
    const std::string redacted = RedactSupportText(text);
    const std::chrono::duration<double, std::milli> elapsed =
        std::chrono::steady_clock::now() - start;
    EXPECT_TRUE(IsValidUtf8(redacted));
    best = std::min(best, elapsed.count());
  }
  return best;
}

TEST(RedactSupportText, TakesLinearTimeOnAnyShape) {
  constexpr std::size_t kSize = 131072;
  const double ordinary = Milliseconds(test::OrdinaryLogText(kSize));
  for (const test::NamedText& hostile : test::HostileTexts(kSize)) {
    EXPECT_LT(Milliseconds(hostile.text), 20 * ordinary) << hostile.shape;
  }
}

}  // namespace
}  // namespace zul

#include <gtest/gtest.h>

#include "core/text.h"
#include "request/update_request.h"

namespace zul {
namespace {

UpdateRequest Parse(const std::vector<std::wstring>& arguments) {
  std::vector<const wchar_t*> argv = {L"qorva_updater.exe"};
  for (const std::wstring& argument : arguments) argv.push_back(argument.c_str());
  return ParseUpdateRequest(static_cast<int>(argv.size()), argv.data());
}

TEST(UpdateRequest, ReadsThePidAsTheCLibraryDoes) {
  const std::pair<const wchar_t*, std::uint32_t> cases[] = {{L"5", 5},
                                                            {L"12abc", 12},
                                                            {L"abc", 0},
                                                            {L"0x10", 0},
                                                            {L" \t\v+7", 7},
                                                            {L"- 7", 0},
                                                            {L"-1", 4294967295},
                                                            {L"4294967295", ~0U},
                                                            {L"4294967296", ~0U},
                                                            {L"-4294967296", ~0U},
                                                            {L"99999999999999999999999", ~0U},
                                                            {L"007", 7}};
  for (const auto& [text, pid] : cases) {
    EXPECT_EQ(Parse({std::wstring(L"--pid=") + text}).pid, pid) << WideToUtf8Lossy(text);
  }
}

TEST(UpdateRequest, EmptyUnknownAndMalformedArgumentsChangeNothing) {
  const UpdateRequest request =
      Parse({L"--pid=5", L"--pid=", L"--target-dir=C:\\a", L"--target-dir=C:\\b", L"--target-dir=",
             L"--target-dir", L"C:\\x", L"--Sha256=x", L" --sha256=x", L"-sha256=x", L"--sha256",
             L"", L"--download-url=\xD800", L"--restart-exe=a=b", L"--pid:9"});
  UpdateRequest expected;
  expected.pid = 5;
  expected.target_dir = "C:\\b";
  expected.restart_exe = "a=b";
  EXPECT_EQ(request, expected);

  const wchar_t* const with_null[] = {L"--pid=1", nullptr, L"--pid=2"};
  EXPECT_EQ(ParseUpdateRequest(3, with_null).pid, 2U);
  EXPECT_EQ(ParseUpdateRequest(0, nullptr), UpdateRequest{});
}

TEST(UpdateRequest, TheTwoBoolsTakeDifferentWords) {
  const struct {
    const wchar_t* word;
    bool headless, require_signed;
  } cases[] = {{L"1", true, true},      {L" 1\t", true, true}, {L"true", false, true},
               {L" YES ", false, true}, {L"On", false, true},  {L"0", false, false},
               {L" ", false, false},    {L"11", false, false}, {L"y", false, false}};
  for (const auto& c : cases) {
    // Each word also has to win over an earlier "1".
    const UpdateRequest request =
        Parse({L"--headless-restart-version-proof=1", L"--require-signed-payload-binaries=1",
               std::wstring(L"--headless-restart-version-proof=") + c.word,
               std::wstring(L"--require-signed-payload-binaries=") + c.word});
    EXPECT_EQ(request.headless_restart_version_proof, c.headless) << WideToUtf8Lossy(c.word);
    EXPECT_EQ(request.require_signed_payload_binaries, c.require_signed) << WideToUtf8Lossy(c.word);
  }
}

// That the system splits it into the same request again is shown on Windows.
TEST(HelperCommandLine, LooksAsThePlatformWantsIt) {
  const std::pair<const wchar_t*, const wchar_t*> quoted[] = {{L"", L"\"\""},
                                                              {L"a\\b\\", L"a\\b\\"},
                                                              {L"a b\\", L"\"a b\\\\\""},
                                                              {L"\t", L"\"\t\""},
                                                              {L"\\\\\"x", L"\"\\\\\\\\\\\"x\""}};
  for (const auto& [text, expected] : quoted) EXPECT_EQ(QuoteCommandArgument(text), expected);
  UpdateRequest request;
  request.pid = 12;
  request.target_dir = "C:\\a b";
  request.required_payload_files = {"x", "y"};
  EXPECT_EQ(WideToUtf8(RenderHelperCommandLine("h.exe", request)),
            "h.exe --pid=12 --download-url=\"\" --sha256=\"\" --target-dir=\"C:\\a b\" "
            "--restart-exe=\"\" --required-payload-file=x --required-payload-file=y");
  request.download_url = "d";
  request.fallback_download_url = "f";
  request.sha256 = "s";
  request.restart_args = "\xF0\x9F\x96\xA8";
  request.headless_restart_version_proof = request.require_signed_payload_binaries = true;
  EXPECT_EQ(WideToUtf8(RenderHelperCommandLine("h.exe", request)),
            "h.exe --pid=12 --download-url=d --fallback-download-url=f --sha256=s "
            "--target-dir=\"C:\\a b\" --restart-exe=\"\" --restart-args=\xF0\x9F\x96\xA8 "
            "--headless-restart-version-proof=1 --required-payload-file=x "
            "--required-payload-file=y --require-signed-payload-binaries=1");
  EXPECT_EQ(Parse({L"--pid=12", L"--download-url=d", L"--fallback-download-url=f", L"--sha256=s",
                   L"--target-dir=C:\\a b", L"--restart-args=\U0001F5A8",
                   L"--headless-restart-version-proof=1", L"--required-payload-file=x",
                   L"--required-payload-file=y", L"--require-signed-payload-binaries=1"}),
            request);
}

}  // namespace
}  // namespace zul

#include <gtest/gtest.h>

#include "core/text.h"
#include "request/update_request.h"
#include "tests/request/sample_requests.h"
#include "tests/support/split_command_line.h"

namespace zul {
namespace {

UpdateRequest Parse(const std::vector<std::wstring>& arguments) {
  std::vector<const wchar_t*> argv = {L"qorva_updater.exe"};
  for (const std::wstring& argument : arguments) argv.push_back(argument.c_str());
  return ParseUpdateRequest(static_cast<int>(argv.size()), argv.data());
}

TEST(UpdateRequest, ReadsThePidAsTheCLibraryDoes) {
  struct Case {
    const wchar_t* text;
    std::uint32_t pid;
  };
  const Case cases[] = {
      {L"5", 5},
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
      {L"007", 7},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(Parse({std::wstring(L"--pid=") + c.text}).pid, c.pid) << WideToUtf8Lossy(c.text);
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
  struct Case {
    const wchar_t* word;
    bool headless, require_signed;
  };
  const Case cases[] = {{L"1", true, true},      {L" 1\t", true, true}, {L"true", false, true},
                        {L" YES ", false, true}, {L"On", false, true},  {L"0", false, false},
                        {L" ", false, false},    {L"11", false, false}, {L"y", false, false}};
  for (const Case& c : cases) {
    // Each word also has to win over an earlier "1".
    const UpdateRequest request =
        Parse({L"--headless-restart-version-proof=1", L"--require-signed-payload-binaries=1",
               std::wstring(L"--headless-restart-version-proof=") + c.word,
               std::wstring(L"--require-signed-payload-binaries=") + c.word});
    EXPECT_EQ(request.headless_restart_version_proof, c.headless) << WideToUtf8Lossy(c.word);
    EXPECT_EQ(request.require_signed_payload_binaries, c.require_signed) << WideToUtf8Lossy(c.word);
  }
}

TEST(HelperCommandLine, LooksAsThePlatformWantsIt) {
  EXPECT_EQ(QuoteCommandArgument(L""), L"\"\"");
  EXPECT_EQ(QuoteCommandArgument(L"a\\b\\"), L"a\\b\\");
  EXPECT_EQ(QuoteCommandArgument(L"a b\\"), L"\"a b\\\\\"");
  EXPECT_EQ(QuoteCommandArgument(L"\t"), L"\"\t\"");
  EXPECT_EQ(QuoteCommandArgument(L"\\\\\"x"), L"\"\\\\\\\\\\\"x\"");
  UpdateRequest request;
  request.pid = 12;
  request.target_dir = "C:\\a b";
  request.required_payload_files = {"x", "y"};
  EXPECT_EQ(WideToUtf8(RenderHelperCommandLine("h.exe", request)),
            "h.exe --pid=12 --download-url=\"\" --sha256=\"\" --target-dir=\"C:\\a b\" "
            "--restart-exe=\"\" --required-payload-file=x --required-payload-file=y");
}

TEST(HelperCommandLine, ParsesBackToTheSameRequest) {
  for (const UpdateRequest& request : test::SampleRequests()) {
    const std::wstring line = RenderHelperCommandLine("C:\\temp dir\\zul_updater.exe", request);
    std::vector<std::wstring> arguments = test::SplitCommandLine(line);
    EXPECT_EQ(arguments.front(), L"C:\\temp dir\\zul_updater.exe");
    arguments.erase(arguments.begin());
    EXPECT_EQ(Parse(arguments), request) << WideToUtf8Lossy(line);
  }
}

}  // namespace
}  // namespace zul

#include <gtest/gtest.h>

#include <tuple>

#include "core/text.h"
#include "request/update_request.h"

namespace zul {
namespace {

UpdateRequest Parse(const std::vector<std::wstring>& arguments) {
  std::vector<const wchar_t*> argv = {L"qorva_updater.exe", nullptr};
  for (const std::wstring& argument : arguments) argv.push_back(argument.c_str());
  return ParseUpdateRequest(static_cast<int>(argv.size()), argv.data());
}

// The replayed inputs of the fuzzer show that a rendered line is parsed to the same request.

TEST(ParseUpdateRequest, ReadsThePidAsStrtoulDoes) {
  const std::pair<const wchar_t*, std::uint32_t> cases[] = {
      {L"12abc", 12}, {L"0x10", 0},         {L" \t\v+7", 7},      {L"- 7", 0},
      {L"-1", ~0U},   {L"4294967295", ~0U}, {L"4294967296", ~0U}, {L"-4294967296", ~0U}};
  for (const auto& [text, pid] : cases) {
    EXPECT_EQ(Parse({std::wstring(L"--pid=") + text}).pid, pid) << WideToUtf8Lossy(text);
  }
}

TEST(ParseUpdateRequest, IgnoresEmptyUnknownAndMalformedArguments) {
  UpdateRequest expected;
  expected.pid = 5;
  expected.target_dir = "C:\\b";
  expected.restart_exe = "a=b";
  expected.unreadable_switch = "--download-url";
  EXPECT_EQ(Parse({L"--pid=5", L"--pid=", L"--target-dir=C:\\a", L"--target-dir=C:\\b",
                   L"--target-dir=", L"--target-dir", L"C:\\x", L"--Sha256=x", L" --sha256=x",
                   L"--sha256", L"", L"--download-url=\xD800", L"--sha256=\xDC00", L"-x=\xD800",
                   L"--restart-exe=a=b", L"--pid:9"}),
            expected);
}

TEST(ParseUpdateRequest, AcceptsDifferentWordsForTheTwoBools) {
  const std::tuple<const wchar_t*, bool, bool> cases[] = {
      {L" 1\t", true, true}, {L"true", false, true}, {L" YES ", false, true}, {L"On", false, true},
      {L"0", false, false},  {L" ", false, false},   {L"11", false, false}};
  for (const auto& [word, headless, require_signed] : cases) {
    // Each word overrides an earlier "1".
    const UpdateRequest request =
        Parse({L"--headless-restart-version-proof=1", L"--require-signed-payload-binaries=1",
               std::wstring(L"--headless-restart-version-proof=") + word,
               std::wstring(L"--require-signed-payload-binaries=") + word});
    EXPECT_EQ(request.headless_restart_version_proof, headless) << WideToUtf8Lossy(word);
    EXPECT_EQ(request.require_signed_payload_binaries, require_signed) << WideToUtf8Lossy(word);
  }
}

}  // namespace
}  // namespace zul

// The decisions of the observer: what it accepts, what it does with a request, and how it
// classifies an end.

#include "collector/observer.h"

#include <bit>

#include "collector/incident.h"
#include "tests/collector/records.h"
#include "tests/support/file_tricks.h"
#include "tests/support/temp_folder.h"

namespace zul {
namespace {

using nlohmann::json;

TEST(ObserverInput, IsFourHandlesInDecimal) {
  const auto accepts = [](const std::wstring& text) {
    const wchar_t* const argv[] = {L"x", L"--observe", L"1", L"2", L"3", text.c_str(), L"5"};
    EXPECT_FALSE(NarrowObserverArguments(5, argv) || NarrowObserverArguments(7, argv));
    const auto arguments = NarrowObserverArguments(6, argv);
    return arguments && ParseObserverHandles(*arguments);
  };
  EXPECT_TRUE(accepts(L"00000000000018446744073709551614"));
  for (const wchar_t* text : {L"", L"0", L"+4", L"4:", L"000000000000018446744073709551614",
                              L"18446744073709551615", L"18446744073709551616"}) {
    EXPECT_FALSE(accepts(text)) << text;
  }
}

TEST(ObserverInput, IsABlockOfTheProcessAndTheSameBuild) {
  CollectorBlock block;
  block.pid = 7;
  block.process_identity = 8;
  EXPECT_TRUE(IsBlockOf(block, 7, 8));
  EXPECT_FALSE(DeclaredExit(block)) << "the exit code counts only after it was declared";
  for (const std::size_t offset : {3u, 4u, 8u, 48u, 0x2036u}) {
    auto bytes = std::bit_cast<std::array<char, sizeof block>>(block);
    ++bytes[offset];
    EXPECT_FALSE(IsBlockOf(std::bit_cast<CollectorBlock>(bytes), 7, 8)) << offset;
  }
  const json own = BuildBaseRecord({7, "8"}, 9);
  EXPECT_TRUE(IsOfThisBuild(own));
  for (const char* key : {"build_id", "version", "channel", "platform", "arch"}) {
    json metadata = own;
    metadata[key] = "another";
    EXPECT_FALSE(IsOfThisBuild(metadata)) << key;
  }
}

TEST(Incident, IsCapturedForEachCrashAndForOneHangBeforeIt) {
  std::string answers;  // none, release, crash, hang
  for (unsigned i = 0; i < 16; ++i) {
    const RequestAnswer answer = AnswerTo(ObserverRequest{i / 4}, (i & 2) != 0, (i & 1) != 0);
    answers += "-rch"[static_cast<int>(answer)];
  }
  EXPECT_EQ(answers, "----cccchrrrrrrr") << "by request, captured crash, captured hang";
}

/// The bytes of emergency.bin after a crash of `kind` in thread 77.
std::string Crash(EmergencyKind kind) {
  EmergencyRecord crash;
  crash.kind = static_cast<std::uint32_t>(kind);
  crash.thread_id = 77;
  return {reinterpret_cast<const char*>(&crash), sizeof crash};
}

TEST(Incident, IsClassifiedByItsCrashAndElseByItsExitCode) {
  const std::string clean = "clean_exit exit_status_only - - true 6";
  const std::string unclassified = "process_exit_cause_unclassified exit_status_only - - true 6";
  const std::string unseen = " partial process_exited_before_stack_capture 77 true 6";
  const struct {
    std::optional<std::uint32_t> declared, exit;
    std::string emergency;
    /// event, capture_status, capture_error, thread_id, finalized, process_uptime_ms
    std::string expected;
    bool captured = false;
  } cases[] = {
      {0, 0, "", clean},
      {0, 1, "", unclassified},
      {{}, 0, "", unclassified},
      {{}, {}, "", unclassified},
      {0, 0, Crash(EmergencyKind::kNativeException), "native_exception" + unseen},
      {0, 0, Crash(EmergencyKind::kTerminate), "std_terminate" + unseen},
      {0, 0, Crash(EmergencyKind::kTerminate), "native_exception collecting_stack - 0 true 6",
       true},
  };
  const test::TempFolder session;
  for (const auto& c : cases) {
    test::WriteFile(session / "emergency.bin", c.emergency);
    json record = {{"event", "observer_started"}};
    if (c.captured) {
      record["capture_error"] = "of an earlier capture";
      BeginCapture({4, 5, {}}, &record);
      NoteCrash({}, &record);
    }
    FinishIncident({{5, 6, c.declared}, c.exit, c.captured}, session.path(), &record);
    EXPECT_EQ(test::Fields(record, {"event", "capture_status", "capture_error", "thread_id",
                                    "finalized", "process_uptime_ms"}),
              c.expected);
    EXPECT_EQ(record["clean_shutdown_intent"], c.declared.has_value());
    EXPECT_EQ(record["exit_code_known"], c.exit.has_value());
  }
}

TEST(EmergencyFile, HoldsARecordOnlyWhenItIsWholeAndNoLink) {
  const test::TempFolder folder, linked;
  const std::string crash = Crash(EmergencyKind::kNativeException);
  std::vector<std::string> damaged = {crash.substr(1), crash + "x", crash, crash};
  ++damaged[2][0];
  ++damaged[3][4];
  json record = json::object();
  for (const std::string& bytes : damaged) {
    test::WriteFile(folder / "emergency.bin", bytes);
    ReadEmergencyFile(folder.path(), &record);
  }
  test::WriteFile(folder / "target", crash);
  if (!test::RunsUnderWine() && test::MakeLink(folder / "target", linked / "emergency.bin")) {
    ReadEmergencyFile(linked.path(), &record);  // Wine shows only links to folders as links
  }
  EXPECT_EQ(record, json::object());
}

}  // namespace
}  // namespace zul

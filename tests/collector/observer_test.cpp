// What an observer accepts, what it answers, and what it makes of an ending.

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "collector/collector_block.h"
#include "collector/evidence_record.h"
#include "collector/incident.h"
#include "collector/observer_input.h"
#include "tests/support/temp_folder.h"

namespace zul {
namespace {

using nlohmann::json;

std::string Bytes(const EmergencyRecord& record) {
  return {reinterpret_cast<const char*>(&record), sizeof record};
}

EmergencyRecord Crash(EmergencyKind kind) {
  EmergencyRecord record;
  record.kind = static_cast<std::uint32_t>(kind);
  record.exception_code = kind == EmergencyKind::kTerminate ? 0 : 0xC0000005;
  record.thread_id = 77;
  return record;
}

// The arguments as the two judgements take them, one behind the other.
std::string Parsed(const std::vector<const wchar_t*>& arguments) {
  const auto narrow = NarrowObserverArguments(static_cast<int>(arguments.size()), arguments.data());
  if (!narrow) return "not digits";
  std::array<const char*, 6> texts{};
  for (std::size_t i = 0; i < texts.size(); ++i) texts[i] = (*narrow)[i].c_str();
  const auto handles = ParseObserverArguments(6, texts.data());
  if (!handles) return "no handles";
  std::string all;
  for (const std::uintptr_t handle : *handles) all += std::to_string(handle) + " ";
  return all;
}

TEST(ObserverArguments, AreFourHandlesInDecimal) {
  const std::wstring digits_32 = std::wstring(31, L'0') + L"9";
  const std::wstring digits_33 = L"0" + digits_32;
  const struct {
    std::vector<const wchar_t*> arguments;
    std::string parsed;
  } cases[] = {
      {{L"x", L"--observe", L"1", L"20", L"0300", L"18446744073709551614"},
       "1 20 300 18446744073709551614 "},
      {{L"", L"--observe", L"1", L"2", L"3", digits_32.c_str()}, "1 2 3 9 "},
      {{L"", L"--observe", L"1", L"2", L"3", digits_33.c_str()}, "not digits"},
      {{L"", L"--observe", L"1", L"2", L"3"}, "not digits"},
      {{L"", L"--observe", L"1", L"2", L"3", L"4", L"5"}, "not digits"},
      {{L"", L"--observe", L"1", L"2", L"3", nullptr}, "not digits"},
      {{L"", L"--observe", L"1", L"2", L"3", L"x"}, "not digits"},
      {{L"", L"--observe", L"-1", L"2", L"3", L"4"}, "not digits"},
      {{L"", L"--observe", L"1", L" 2", L"3", L"4"}, "not digits"},
      {{L"", L"--observe", L"1", L"2", L"\uFF13", L"4"}, "not digits"},
      {{L"", L"--observe", L"", L"2", L"3", L"4"}, "no handles"},
      {{L"", L"--observe", L"1", L"0", L"3", L"4"}, "no handles"},
      {{L"", L"--observe", L"1", L"2", L"18446744073709551615", L"4"}, "no handles"},
      {{L"", L"--observe", L"1", L"2", L"3", L"18446744073709551617"}, "no handles"},
  };
  for (const auto& c : cases) EXPECT_EQ(Parsed(c.arguments), c.parsed);
  EXPECT_FALSE(NarrowObserverArguments(6, nullptr));
  const char* const other[] = {"x", "--Observe", "1", "2", "3", "4"};
  EXPECT_FALSE(ParseObserverArguments(6, other));
}

TEST(CollectorBlocks, BelongToOneProcessAndOneLayout) {
  CollectorBlock sound;
  sound.pid = 7;
  sound.process_identity = 70;
  EXPECT_TRUE(IsBlockOf(sound, 7, 70));
  EXPECT_FALSE(IsBlockOf(sound, 8, 70));
  EXPECT_FALSE(IsBlockOf(sound, 7, 71));
  for (const std::size_t byte : {0u, 3u, 4u, 7u, 0x2036u, 0x2037u}) {
    CollectorBlock other = sound;
    reinterpret_cast<unsigned char*>(&other)[byte] ^= 0x80;
    EXPECT_FALSE(IsBlockOf(other, 7, 70)) << byte;
  }
  EXPECT_EQ(DeclaredExit(sound), std::nullopt);
  DeclareExit(sound, 0);
  EXPECT_EQ(DeclaredExit(sound), 0u);
}

TEST(ObserverBuild, IsThatOfTheObservedProcess) {
  const json metadata = BuildBaseRecord({1, "1"}, 1);
  EXPECT_TRUE(IsOfThisBuild(metadata));
  for (const char* key : {"build_id", "version", "channel", "platform", "arch"}) {
    json other = metadata;
    other[key] = metadata[key].get<std::string>() + "x";
    EXPECT_FALSE(IsOfThisBuild(other)) << key;
    other.erase(key);
    EXPECT_FALSE(IsOfThisBuild(other)) << key;
  }
}

TEST(ObserverRequests, AreAnsweredByWhatWasCapturedBefore) {
  using enum RequestAnswer;
  const struct {
    std::uint32_t request;
    bool crash, hang;
    RequestAnswer answer;
  } cases[] = {
      {0, false, false, kNone},         {0, true, true, kNone},
      {1, false, false, kCaptureCrash}, {1, true, true, kCaptureCrash},
      {2, false, false, kCaptureHang},  {2, false, true, kRelease},
      {2, true, false, kRelease},       {3, false, false, kRelease},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(AnswerTo(ObserverRequest{c.request}, c.crash, c.hang), c.answer) << c.request;
  }
}

TEST(Captures, TellWhatTheyAreDoing) {
  json record = {{"event", "observer_started"}, {"capture_error", "old"}, {"frames", 1}};
  BeginCapture({5, 6, 7}, &record);
  EXPECT_EQ(record, json::parse(R"({"capture_status": "complete", "clean_shutdown_intent": true,
      "event": "observer_started", "frames": [], "observed_at_unix_ms": 5,
      "process_uptime_ms": 6})"));
  json hang = record;
  NoteHang(9, 45000, &hang);
  record.update({{"capture_status", "collecting_stack"}, {"event", "ui_hang"}, {"thread_id", 9}});
  record.update({{"ui_heartbeat_age_ms", 45000}, {"live_stack_best_effort", true}});
  EXPECT_EQ(hang, record);
  NoteCrash(Crash(EmergencyKind::kTerminate), &record);
  EXPECT_EQ(record["event"], "std_terminate");
  EXPECT_EQ(record["capture_status"], "collecting_stack");
  EXPECT_EQ(record["thread_id"], 77);
}

TEST(Endings, AreStatedOnlyAsFarAsTheyAreKnown) {
  const std::string native = Bytes(Crash(EmergencyKind::kNativeException));
  const std::string terminate = Bytes(Crash(EmergencyKind::kTerminate));
  const json captured = {{"event", "native_exception"},
                         {"exception_observed", true},
                         {"capture_status", "partial"},
                         {"capture_error", "stack_unwind_incomplete"}};
  const std::string cleanly = "clean_exit exit_status_only -";
  const std::string somehow = "process_exit_cause_unclassified exit_status_only -";
  const std::string too_late = " partial process_exited_before_stack_capture";
  using Code = std::optional<std::uint32_t>;
  const struct {
    const char* ending;
    json before;
    std::string emergency;
    Code declared, exit;
    std::string told;
  } cases[] = {
      {"declared, and that code came", {}, "", 0, 0, cleanly},
      {"declared as another than 0", {}, "", 18, 18, cleanly},
      {"declared, and another code came", {}, "", 0, 2, somehow},
      {"not declared, and 0 came", {}, "", {}, 0, somehow},
      {"killed", {}, "", {}, 1, somehow},
      {"declared, and the code is not known", {}, "", 0, {}, somehow},
      {"nothing is known", {}, "", {}, {}, somehow},
      {"crashed unseen", {}, native, {}, 0xC0000005, "native_exception" + too_late},
      {"terminated unseen", {}, terminate, {}, 3, "std_terminate" + too_late},
      {"crashed unseen behind its declaration", {}, native, 0, 0, "native_exception" + too_late},
      {"died while it wrote its record", {}, native.substr(1), {}, 3, somehow},
      {"captured", captured, terminate, {}, 5, "native_exception partial stack_unwind_incomplete"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.ending);
    const test::TempFolder session;
    test::WriteFile(session / "emergency.bin", c.emergency);
    json record = BuildBaseRecord({1, "1"}, 1);
    record.update(c.before.is_null() ? json::object() : c.before);
    FinishIncident({{5, 6, c.declared}, c.exit, !c.before.is_null()}, session.path(), &record);
    EXPECT_EQ(record.value("event", "-") + " " + record.value("capture_status", "-") + " " +
                  record.value("capture_error", "-"),
              c.told);
    EXPECT_EQ(record["finalized"], true);
    EXPECT_EQ(record["clean_shutdown_intent"], c.declared.has_value());
    EXPECT_EQ(record["exit_code_known"], c.exit.has_value());
    EXPECT_EQ(record.value("exit_code", Code::value_type{99}), c.exit.value_or(99));
  }
}

}  // namespace
}  // namespace zul

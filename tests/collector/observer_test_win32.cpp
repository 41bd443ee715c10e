// The observer's judgement and its loop, in a thread of this process, on a child that never runs.

#include <windows.h>

#include <gtest/gtest.h>

#include <functional>
#include <future>
#include <nlohmann/json.hpp>

#include "collector/evidence_record.h"
#include "collector/observer.h"
#include "collector/process_life_win32.h"
#include "collector/session_directory.h"
#include "collector/shared_block_win32.h"
#include "core/process_environment.h"
#include "tests/support/temp_folder.h"

namespace zul {
namespace {

using nlohmann::json;

constexpr DWORD kChildExit = 9;

class Observer : public testing::Test {
 protected:
  Observer() {
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION created{};
    const fs::Path program = CurrentExecutablePath(32768);
    EXPECT_TRUE(::CreateProcessW(program.c_str(), nullptr, nullptr, nullptr, FALSE,
                                 CREATE_SUSPENDED, nullptr, nullptr, &startup, &created));
    process_.Reset(created.hProcess);
    thread_.Reset(created.hThread);
    CollectorBlock& block = *new (block_.get()) CollectorBlock;
    block.pid = created.dwProcessId;
    block.process_identity = CreationTimeOf(created.hProcess).value_or(0);
    block.start_tick = ::GetTickCount64() - 1000;
    block.last_heartbeat_tick = ::GetTickCount64() - 500;
    block.ui_thread_id = created.dwThreadId;
    SetSessionDirectory(block, session_);
    const ProcessKey child{block.pid, std::to_string(block.process_identity)};
    test::WriteFile(session_ / "emergency.bin", "");
    EXPECT_TRUE(
        CommitEvidenceRecord(session_ / "metadata.json", BuildBaseRecord(child, 1), nullptr));
  }
  ~Observer() override { EndChild(); }

  void EndChild() const {
    ::TerminateProcess(process_.get(), kChildExit);
    ::WaitForSingleObject(process_.get(), 10000);
  }

  /// Runs an observer, which closes the handles that it is given, to its end.
  int Observe() const {
    std::wstring handles[4];
    const HANDLE own[] = {mapping_.get(), crash_event_.get(), ready_event_.get(), process_.get()};
    for (std::size_t i = 0; i < 4; ++i) {
      HANDLE copy = nullptr;
      ::DuplicateHandle(::GetCurrentProcess(), own[i], ::GetCurrentProcess(), &copy, 0, FALSE,
                        DUPLICATE_SAME_ACCESS);
      handles[i] = std::to_wstring(reinterpret_cast<std::uintptr_t>(copy));
    }
    std::wstring program = L"x";
    std::wstring mode = L"--observe";
    wchar_t* const argv[] = {program.data(),    mode.data(),       handles[0].data(),
                             handles[1].data(), handles[2].data(), handles[3].data()};
    return RunObserver(6, argv);
  }

  /// Asks as the observed process does. True when the observer answered within the time.
  bool Ask(ObserverRequest request, DWORD timeout_ms = 10000) const {
    ::ResetEvent(ready_event_.get());
    PlaceRequest(*block_.get(), request);
    ::SetEvent(crash_event_.get());
    return ::WaitForSingleObject(ready_event_.get(), timeout_ms) == WAIT_OBJECT_0;
  }

  json Read(const char* name) const { return json::parse(test::ReadFile(session_ / name)); }

  const test::TempFolder crash_;
  const fs::Path session_ = CompactDirectory(crash_.path()) / "process_1";
  const UniqueKernelHandle mapping_ = CreateBlockMapping();
  const UniqueKernelHandle crash_event_{::CreateEventW(nullptr, FALSE, FALSE, nullptr)};
  const UniqueKernelHandle ready_event_{::CreateEventW(nullptr, TRUE, FALSE, nullptr)};
  const UniqueSharedBlock block_ = MapBlock(mapping_.get());
  UniqueKernelHandle process_;
  UniqueKernelHandle thread_;
};

TEST_F(Observer, LeavesAloneWhatDoesNotMatch) {
  CollectorBlock& block = *block_.get();
  const CollectorBlock sound = block;
  const fs::Path metadata = session_ / "metadata.json";
  const std::string sound_metadata = test::ReadFile(metadata);
  const struct {
    const char* what;
    int exit_code;
    std::function<void()> change;
  } cases[] = {
      {"creation time", 65, [&] { ++block.process_identity; }},
      {"process id", 65, [&] { ++block.pid; }},
      {"directory without an end", 65, [&] { block.session_directory.back() = u'x'; }},
      {"directory elsewhere", 65, [&] { SetSessionDirectory(block, crash_ / "process_1"); }},
      {"directory of another name", 65,
       [&] { SetSessionDirectory(block, session_.parent_path() / "Process_1"); }},
      {"no metadata", 65, [&] { test::WriteFile(metadata, ""); }},
      {"another build", 66,
       [&] {
         json other = json::parse(sound_metadata);
         other["build_id"] = "another";
         EXPECT_TRUE(CommitEvidenceRecord(metadata, other, nullptr));
       }},
      {"no place for its record", 68,
       [&] { test::WriteFile(session_ / "collector.json.partial" / "x", ""); }},
  };
  for (const auto& c : cases) {
    c.change();
    EXPECT_EQ(Observe(), c.exit_code) << c.what;
    EXPECT_FALSE(test::Exists(session_ / "collector.json")) << c.what;
    EXPECT_EQ(::WaitForSingleObject(ready_event_.get(), 0), WAIT_TIMEOUT) << c.what;
    block = sound;
    test::WriteFile(metadata, sound_metadata);
  }
}

TEST_F(Observer, AnswersRequestsUntilTheEnd) {
  auto observer = std::async(std::launch::async, [this] { return Observe(); });
  ASSERT_EQ(::WaitForSingleObject(ready_event_.get(), 10000), WAIT_OBJECT_0);
  EXPECT_EQ(ProcessKeyOf(Read("collector.json"))->pid, ::GetCurrentProcessId());

  EXPECT_FALSE(Ask(ObserverRequest::kNone, 300));
  EXPECT_FALSE(test::Exists(session_ / "incident.json"));

  ASSERT_TRUE(Ask(ObserverRequest::kHang));
  const json hang = Read("hang.json");
  EXPECT_EQ(hang["event"], "ui_hang");
  EXPECT_EQ(hang["thread_id"], block_.get()->ui_thread_id);
  EXPECT_GE(hang["ui_heartbeat_age_ms"], 500);
  EXPECT_GE(hang["process_uptime_ms"], 1000);
  EXPECT_NE(hang["capture_status"], "collecting_stack");
  EXPECT_TRUE(hang["frames"].is_array());
  json after = Read("incident.json");
  after["observed_at_unix_ms"] = 1;
  EXPECT_EQ(after, Read("metadata.json")) << "as if nothing had been";
  test::WriteFile(session_ / "hang.json", "untouched");
  ASSERT_TRUE(Ask(ObserverRequest::kHang));

  EmergencyRecord& emergency = block_.get()->emergency;
  emergency.kind = 1;
  emergency.exception_code = 0xC0000005;
  emergency.thread_id = block_.get()->ui_thread_id;
  ASSERT_TRUE(Ask(ObserverRequest::kCrash));
  json crash = Read("incident.json");
  EXPECT_EQ(crash["event"], "native_exception");
  EXPECT_EQ(crash["frames"][0], json({{"module_resolved", false}})) << "nothing lies at 0";
  EXPECT_NE(crash["capture_status"], "collecting_stack");
  EXPECT_FALSE(crash["finalized"]);
  ASSERT_TRUE(Ask(ObserverRequest::kHang)) << "answered, and ignored behind a crash";

  DeclareExit(*block_.get(), kChildExit);
  EndChild();
  EXPECT_EQ(observer.get(), 0);
  for (const char* key : {"event", "capture_status", "frames", "capture_duration_ms"}) {
    EXPECT_EQ(Read("incident.json")[key], crash[key]) << "the ending changes nothing of a crash";
  }
  EXPECT_EQ(Read("incident.json")["exit_code"], kChildExit);
  EXPECT_EQ(test::ReadFile(session_ / "hang.json"), "untouched");
}

TEST_F(Observer, RemovesTheEvidenceOfACleanEnd) {
  DeclareExit(*block_.get(), kChildExit);
  EndChild();
  EXPECT_EQ(Observe(), 0);
  EXPECT_FALSE(test::Exists(session_));
}

}  // namespace
}  // namespace zul

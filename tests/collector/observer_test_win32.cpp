// The observer on real handles. It runs in a thread of this process and observes a child process
// that stays suspended.

#include <windows.h>

#include <future>

#include "collector/collector_block_win32.h"
#include "collector/observer.h"
#include "collector/session_directory.h"
#include "core/process_environment.h"
#include "tests/collector/records.h"
#include "tests/support/temp_folder.h"

namespace zul {
namespace {

using nlohmann::json;

class Observer : public testing::Test {
 protected:
  Observer() {
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION created{};
    EXPECT_TRUE(::CreateProcessW(CurrentExecutablePath().c_str(), nullptr, nullptr, nullptr, FALSE,
                                 CREATE_SUSPENDED, nullptr, nullptr, &startup, &created));
    process_.Reset(created.hProcess);
    ::CloseHandle(created.hThread);
    new (&block_) CollectorBlock;
    block_.pid = created.dwProcessId;
    block_.process_identity = CreationTimeOf(created.hProcess).value_or(0);
    block_.last_heartbeat_tick = ::GetTickCount64() - 500;
    block_.ui_thread_id = created.dwThreadId;
    SetSessionDirectory(session_, &block_);
    const ProcessKey child{block_.pid, std::to_string(block_.process_identity)};
    test::WriteFile(session_ / "emergency.bin", "");
    EXPECT_EQ(test::Commit(session_ / "metadata.json", BuildBaseRecord(child, 1)), "");
  }
  ~Observer() override { ::TerminateProcess(process_.get(), 9); }

  /// Runs an observer to its end. It closes the handles that it gets, so it gets duplicates.
  int Observe() const {
    std::vector<std::wstring> texts = {L"x", L"--observe"};
    for (const HANDLE own :
         {mapping_.get(), crash_event_.get(), ready_event_.get(), process_.get()}) {
      HANDLE copy = nullptr;
      ::DuplicateHandle(::GetCurrentProcess(), own, ::GetCurrentProcess(), &copy, 0, FALSE,
                        DUPLICATE_SAME_ACCESS);
      texts.push_back(std::to_wstring(reinterpret_cast<std::uintptr_t>(copy)));
    }
    std::vector<wchar_t*> argv;
    for (std::wstring& text : texts) argv.push_back(text.data());
    return RunObserver(static_cast<int>(argv.size()), argv.data());
  }
  bool IsReady(DWORD timeout_ms) const {
    return ::WaitForSingleObject(ready_event_.get(), timeout_ms) == WAIT_OBJECT_0;
  }
  /// Sends a request as the observed process does. True when the observer answered.
  bool Ask(ObserverRequest request) {
    ::ResetEvent(ready_event_.get());
    PlaceRequest(block_, request);
    ::SetEvent(crash_event_.get());
    return IsReady(10000);
  }
  json Read(const char* name) const { return test::Record(session_ / name); }

  const test::TempFolder crash_;
  const fs::Path session_ = CompactDirectory(crash_.path()) / "process_1";
  const UniqueKernelHandle mapping_ = CreateBlockMapping();
  const UniqueKernelHandle crash_event_{::CreateEventW(nullptr, FALSE, FALSE, nullptr)};
  const UniqueKernelHandle ready_event_{::CreateEventW(nullptr, TRUE, FALSE, nullptr)};
  const UniqueSharedBlock view_ = MapBlock(mapping_.get());
  CollectorBlock& block_ = *view_.get();
  UniqueKernelHandle process_;
};

TEST_F(Observer, RefusesInputThatDoesNotMatch) {
  const json metadata = Read("metadata.json");
  json other_build = metadata;
  other_build["build_id"] = "another";
  EXPECT_EQ(test::Commit(session_ / "metadata.json", other_build), "");
  test::WriteFile(session_ / "collector.json.partial" / "x", "");
  ++block_.process_identity;
  EXPECT_EQ(Observe(), 65);
  --block_.process_identity;
  SetSessionDirectory(crash_ / "process_1", &block_);
  EXPECT_EQ(Observe(), 65);
  SetSessionDirectory(session_, &block_);
  EXPECT_EQ(Observe(), 66);
  EXPECT_EQ(test::Commit(session_ / "metadata.json", metadata), "");
  EXPECT_EQ(Observe(), 68);
  EXPECT_FALSE(test::Exists(session_ / "collector.json") || IsReady(0));
}

TEST_F(Observer, CapturesAHangAndThenACrash) {
  auto observer = std::async(std::launch::async, [this] { return Observe(); });
  EXPECT_TRUE(IsReady(10000));
  EXPECT_TRUE(Ask(ObserverRequest::kHang));
  json hang = Read("hang.json");
  EXPECT_EQ(hang["event"], "ui_hang");
  EXPECT_EQ(hang["thread_id"], block_.ui_thread_id);
  EXPECT_GE(hang["ui_heartbeat_age_ms"], 500);
  json after = Read("incident.json");
  after["observed_at_unix_ms"] = 1;
  EXPECT_EQ(after, Read("metadata.json")) << "a hang does not change the incident";
  EXPECT_TRUE(Ask(ObserverRequest::kHang)) << "answered, but not captured again";
  block_.emergency.exception_code = 0xC0000005;
  EXPECT_TRUE(Ask(ObserverRequest::kCrash));
  json crash = Read("incident.json");
  EXPECT_EQ(crash["event"], "native_exception");
  EXPECT_EQ(crash["frames"][0], json({{"module_resolved", false}})) << "no module is at 0";
  ::TerminateProcess(process_.get(), 9);
  EXPECT_EQ(observer.get(), 0);
  EXPECT_EQ(Read("incident.json")["exit_code"], 9);
  EXPECT_EQ(Read("hang.json"), hang);
}

}  // namespace
}  // namespace zul

#include "collector/collector.h"

#include <windows.h>

#include <atomic>
#include <mutex>
#include <new>
#include <system_error>

#include "collector/crash_handlers_win32.h"
#include "collector/evidence_record.h"
#include "collector/observer_launch_win32.h"
#include "collector/process_life_win32.h"
#include "collector/retention.h"
#include "collector/session_directory.h"
#include "collector/shared_block_win32.h"
#include "core/process_environment.h"
#include "core/text.h"

namespace zul {

namespace {

constexpr DWORD kReadyWaitMs = 5000;
constexpr DWORD kTerminationWaitMs = 1000;
constexpr UINT kExitHandshakeFailed = 72;

// The block and what belongs to it. Once published it stays until the process ends, whatever else
// fails: a crash may come at any time, also behind the destructors of static objects. Its memory is
// no heap's, which a broken process may have damaged.
alignas(CrashChannel) constinit std::byte g_channel_memory[sizeof(CrashChannel)]{};
constinit std::atomic<CrashChannel*> g_channel{nullptr};
std::mutex g_start_mutex;

bool Fail(const char* word, std::string* reason) {
  *reason = word;
  return false;
}

/// This process and its observer's objects. What is not given to the channel goes with it.
struct Beginnings {
  UniqueKernelHandle mapping;
  UniqueKernelHandle crash_event;
  UniqueKernelHandle ready_event;
  UniqueKernelHandle process;  ///< of this process, for the observer to wait on and look into
  UniqueSharedBlock block;

  [[nodiscard]] bool Create();
};

bool Beginnings::Create() {
  mapping = CreateBlockMapping();
  if (!mapping) return false;
  crash_event.Reset(::CreateEventW(nullptr, FALSE, FALSE, nullptr));
  ready_event.Reset(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
  block = MapBlock(mapping.get());
  if (!crash_event || !ready_event || !block) return false;
  HANDLE self = nullptr;
  if (!::DuplicateHandle(::GetCurrentProcess(), ::GetCurrentProcess(), ::GetCurrentProcess(), &self,
                         SYNCHRONIZE | PROCESS_QUERY_INFORMATION | PROCESS_VM_READ, TRUE, 0)) {
    return false;
  }
  process.Reset(self);
  return true;
}

void FillBlock(CollectorBlock* memory, const fs::Path& session, std::uint64_t creation_time) {
  CollectorBlock& block = *new (memory) CollectorBlock;
  block.pid = ::GetCurrentProcessId();
  block.start_tick = ::GetTickCount64();
  block.last_heartbeat_tick = block.start_tick;
  block.process_identity = creation_time;
  SetSessionDirectory(block, session);
}

/// Takes over what the crash path needs and makes it known for good.
CrashChannel* PublishChannel(Beginnings& beginnings, fs::File emergency_file) {
  auto* const channel = new (g_channel_memory) CrashChannel;
  channel->block = beginnings.block.Release();
  channel->crash_event = beginnings.crash_event.Release();
  channel->ready_event = beginnings.ready_event.Release();
  channel->emergency_file = std::move(emergency_file);
  g_channel.store(channel);
  return channel;
}

bool CommitFirstRecords(const fs::Path& session, const ProcessKey& self) {
  return CommitEvidenceRecord(session / kMetadataFile, BuildBaseRecord(self, UnixTimeMs()),
                              nullptr) &&
         CommitEvidenceRecord(session / kIncidentFile, BuildBaseRecord(self, UnixTimeMs()),
                              nullptr);
}

/// Throws when it cannot be told whether the executable is there.
bool IsObserverThere(const fs::Path& executable) {
  std::error_code ec;
  const fs::EntryKind kind = fs::KindOf(executable, fs::Links::kFollow, ec);
  if (kind == fs::EntryKind::kUnknown) throw std::system_error(ec, "observer executable");
  return kind == fs::EntryKind::kRegular;
}

/// Waits until the observer has found everything in order. One that has not is ended.
bool AwaitReady(CrashChannel& channel) {
  const HANDLE awaited[] = {channel.ready_event, channel.observer.load()};
  if (::WaitForMultipleObjects(2, awaited, FALSE, kReadyWaitMs) == WAIT_OBJECT_0) {
    ::ResetEvent(channel.ready_event);
    return true;
  }
  ::TerminateProcess(channel.observer.load(), kExitHandshakeFailed);
  ::WaitForSingleObject(channel.observer.load(), kTerminationWaitMs);
  const UniqueKernelHandle closed(channel.observer.exchange(nullptr));
  return false;
}

/// All that happens once the session folder stands.
bool StartObserved(const fs::Path& session, const fs::Path& install_directory,
                   std::uint64_t creation_time, std::string* reason) {
  Beginnings beginnings;
  if (!beginnings.Create()) return Fail("collector_ipc_creation_failed", reason);
  FillBlock(beginnings.block.get(), session, creation_time);
  std::error_code ec;
  fs::File emergency_file = CreateEmergencyFile(session, ec);
  if (!emergency_file.is_open()) return Fail("emergency_record_open_failed", reason);
  CrashChannel* const channel = PublishChannel(beginnings, std::move(emergency_file));
  const ProcessKey self{channel->block->pid, std::to_string(creation_time)};
  if (!CommitFirstRecords(session, self)) {
    return Fail("collector_metadata_write_failed", reason);
  }
  InstallCrashHandlers(channel);
  const fs::Path executable = install_directory / "qorva_updater.exe";
  if (!IsObserverThere(executable)) return Fail("collector_executable_missing", reason);
  UniqueKernelHandle observer = LaunchObserver(executable, install_directory,
                                               {beginnings.mapping.get(), channel->crash_event,
                                                channel->ready_event, beginnings.process.get()},
                                               reason);
  if (!observer) return false;
  channel->observer.store(observer.Release());
  if (!AwaitReady(*channel)) return Fail("collector_ready_handshake_failed", reason);
  return true;
}

/// The answer to a repeated start.
CollectorStartResult StateOf(const CrashChannel& channel) {
  CollectorStartResult result;
  const HANDLE observer = channel.observer.load();
  result.ready = observer != nullptr && ::WaitForSingleObject(observer, 0) == WAIT_TIMEOUT;
  result.session_directory = PathToUtf8(SessionDirectoryIn(*channel.block));
  if (!result.ready) result.failure_reason = "collector_not_running";
  return result;
}

}  // namespace

CollectorStartResult StartCompactCollector(const fs::Path& crash_directory,
                                           const fs::Path& install_directory) {
  const std::scoped_lock lock(g_start_mutex);
  if (const CrashChannel* channel = g_channel.load()) return StateOf(*channel);
  CollectorStartResult result;
  EnforceCompactRetention(crash_directory, UnixTimeMs());
  const std::uint64_t creation_time = CreationTimeOf(::GetCurrentProcess()).value_or(0);
  fs::Path session;
  if (!CreateCompactSession(crash_directory, UnixTimeMs(), ::GetCurrentProcessId(), creation_time,
                            &session, &result.failure_reason)) {
    return result;
  }
  result.session_directory = PathToUtf8(session);
  result.ready = StartObserved(session, install_directory, creation_time, &result.failure_reason);
  return result;
}

void RecordProcessExitCode(std::uint32_t code) noexcept {
  if (CrashChannel* channel = g_channel.load()) DeclareExit(*channel->block, code);
}

fs::Path CompactSessionDirectory() {
  const CrashChannel* const channel = g_channel.load();
  return channel != nullptr ? SessionDirectoryIn(*channel->block) : fs::Path();
}

}  // namespace zul

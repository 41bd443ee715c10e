#include "collector/collector.h"

#include <windows.h>

#include <atomic>
#include <mutex>
#include <new>
#include <system_error>

#include "collector/collector_block_win32.h"
#include "collector/crash_handlers_win32.h"
#include "collector/evidence_record.h"
#include "collector/observer_launch_win32.h"
#include "collector/retention.h"
#include "collector/session_directory.h"
#include "core/failure.h"
#include "core/process_environment.h"
#include "core/text.h"

namespace zul {

namespace {

constexpr DWORD kReadyWaitMs = 5000;
constexpr DWORD kTerminationWaitMs = 1000;
constexpr UINT kExitHandshakeFailed = 72;

// The channel of the crash path. Once published it stays until the process ends, also when the rest
// of the start fails: a crash can happen at any time, even after the destructors of static objects.
// It is in static memory, since the heap of a crashing process may be damaged.
alignas(CrashChannel) constinit std::byte g_channel_memory[sizeof(CrashChannel)]{};
constinit std::atomic<CrashChannel*> g_channel{nullptr};
std::mutex g_start_mutex;

/// The kernel objects that this process and its observer share. Those that the crash channel does
/// not take over are closed after the start.
struct SharedObjects {
  UniqueKernelHandle mapping;
  UniqueKernelHandle crash_event;
  UniqueKernelHandle ready_event;
  UniqueKernelHandle process;  ///< this process, for the observer to wait for and to read
  UniqueSharedBlock block;

  [[nodiscard]] bool Create();
};

bool SharedObjects::Create() {
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
  auto* const block = new (memory) CollectorBlock;
  block->pid = ::GetCurrentProcessId();
  block->start_tick = ::GetTickCount64();
  block->last_heartbeat_tick = block->start_tick;
  block->process_identity = creation_time;
  SetSessionDirectory(session, block);
}

/// Moves what the crash path needs into the channel and publishes it.
CrashChannel* PublishChannel(SharedObjects* objects, fs::File emergency_file) {
  auto* const channel = new (g_channel_memory) CrashChannel;
  channel->block = objects->block.Release();
  channel->crash_event = objects->crash_event.Release();
  channel->ready_event = objects->ready_event.Release();
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

/// Throws when the query fails.
bool IsRegularExecutable(const fs::Path& executable) {
  std::error_code ec;
  const fs::EntryKind kind = fs::KindOf(executable, fs::Links::kFollow, ec);
  if (kind == fs::EntryKind::kUnknown) throw std::system_error(ec, "observer executable");
  return kind == fs::EntryKind::kRegular;
}

/// Waits until the observer signals that it accepts its input. Ends an observer that does not.
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

/// The part of a start that needs the session folder.
bool StartObserved(const fs::Path& session, const fs::Path& install_directory,
                   std::uint64_t creation_time, std::string* reason) {
  SharedObjects objects;
  if (!objects.Create()) return Fail(reason, "collector_ipc_creation_failed");
  FillBlock(objects.block.get(), session, creation_time);
  std::error_code ec;
  fs::File emergency_file = CreateEmergencyFile(session, ec);
  if (!emergency_file.is_open()) return Fail(reason, "emergency_record_open_failed");
  const ProcessKey self{::GetCurrentProcessId(), std::to_string(creation_time)};
  if (!CommitFirstRecords(session, self)) return Fail(reason, "collector_metadata_write_failed");
  CrashChannel* const channel = PublishChannel(&objects, std::move(emergency_file));
  InstallCrashHandlers(channel);
  const fs::Path executable = install_directory / "qorva_updater.exe";
  if (!IsRegularExecutable(executable)) return Fail(reason, "collector_executable_missing");
  const ObserverHandles handles = {objects.mapping.get(), channel->crash_event,
                                   channel->ready_event, objects.process.get()};
  UniqueKernelHandle observer;
  if (!LaunchObserver(executable, install_directory, handles, &observer, reason)) return false;
  channel->observer.store(observer.Release());
  if (!AwaitReady(*channel)) return Fail(reason, "collector_ready_handshake_failed");
  return true;
}

/// The result of a repeated start.
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
  if (g_channel.load() == nullptr) {  // no crash of this process can be recorded
    DeleteCompactSession(session);
    result.session_directory.clear();
  }
  return result;
}

void RecordProcessExitCode(std::uint32_t code) noexcept {
  if (CrashChannel* channel = g_channel.load()) DeclareExit(*channel->block, code);
}

void EndUnobservedSession() noexcept {
  CrashChannel* const channel = g_channel.load();
  if (channel == nullptr || channel->observer.load() != nullptr) return;
  try {
    std::error_code ec;
    static_cast<void>(channel->emergency_file.Close(ec));
    DeleteCompactSession(SessionDirectoryIn(*channel->block));
  } catch (...) {  // out of memory: the folder remains
  }
}

fs::Path CompactSessionDirectory() {
  const CrashChannel* const channel = g_channel.load();
  return channel != nullptr ? SessionDirectoryIn(*channel->block) : fs::Path();
}

}  // namespace zul

// Holds a file open, so that others meet a sharing violation.
//
//   file_holder --file PATH [--share MODE] [--access ACCESS] [trigger ...] [--timeout-ms MS]
//               [--for-ms MS] [--stop-file PATH] [--from-child]
//
//   --share    none (as is), read, write, read-write, read-delete, all: what others may still do
//   --access   read (as is), write, read-write: what it is opened for
//   triggers   all of them must be met at the same moment before the file is opened, looked at
//   every
//              millisecond:
//     --wait-for PATH              the path exists
//     --wait-for-gone PATH         the path does not exist
//     --wait-for-size PATH BYTES   the file exists and has exactly this size
//     --wait-for-change PATH       its size, its time or its existence differ from when this
//     program
//                                  was started
//   --timeout-ms   60000 as is: how long triggers and opening may take
//   --from-child   a child process does all of this, and this one ends at once
//   --for-ms, --stop-file   hold for that long; hold, or wait, until that path exists. Without
//              either the file is held until standard input ends.
//
// In PATHs each part may have the wildcards * and ?; the first match in the file system's order is
// taken, so that "C:\temp\qorva_updater_*\rollback_backup" needs no knowledge of the part's name.
// A file that does not exist yet or that another process holds is tried again until the time is
// over. PATH may be a folder.
//
// Standard output, one line each: "parent" and the pid of a process that leaves the work to its
// child, "waiting" at once, "held" and the holder's pid, and "released" at the end. Exit codes:
// 0 held and released; 1 "timeout", "timeout 32" with the last error of opening; 2 "stopped" by the
// stop file before the file was held; 64 usage.

#include <windows.h>

#include <timeapi.h>

#include <algorithm>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "core/handle_win32.h"
#include "tests/rig/programs/program_support_win32.h"

namespace zul::rig {
namespace {

constexpr char kUsage[] =
    "usage: file_holder --file PATH [--share none|read|write|read-write|read-delete|all]\n"
    "                   [--access read|write|read-write] [--wait-for PATH] [--wait-for-gone PATH]\n"
    "                   [--wait-for-size PATH BYTES] [--wait-for-change PATH] [--timeout-ms MS]\n"
    "                   [--for-ms MS] [--stop-file PATH] [--from-child]";

struct Word {
  const char* name;
  DWORD value;
};
constexpr Word kShares[] = {{"none", 0},
                            {"read", FILE_SHARE_READ},
                            {"write", FILE_SHARE_WRITE},
                            {"read-write", FILE_SHARE_READ | FILE_SHARE_WRITE},
                            {"read-delete", FILE_SHARE_READ | FILE_SHARE_DELETE},
                            {"all", FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE}};
constexpr Word kAccesses[] = {
    {"read", GENERIC_READ}, {"write", GENERIC_WRITE}, {"read-write", GENERIC_READ | GENERIC_WRITE}};

template <std::size_t count>
std::optional<DWORD> ValueOf(const Word (&words)[count], const std::string& name) {
  for (const Word& word : words) {
    if (word.name == name) return word.value;
  }
  return std::nullopt;
}

/// What tells one state of a file from another.
struct Snapshot {
  bool exists = false;
  std::uint64_t size = 0;
  std::uint64_t time = 0;
  bool operator==(const Snapshot&) const = default;
};

std::uint64_t Join(DWORD high, DWORD low) {
  return (std::uint64_t{high} << 32) | low;
}

struct FindTraits {
  using Type = HANDLE;
  static HANDLE Invalid() { return INVALID_HANDLE_VALUE; }
  static void Close(HANDLE handle) { ::FindClose(handle); }
};

/// The first existing path that a pattern matches; empty for none. `done` parts are plain already.
std::wstring Resolve(const std::wstring& pattern, std::size_t done = 0) {
  const std::size_t wildcard = pattern.find_first_of(L"*?", done);
  if (wildcard == std::wstring::npos) {
    return GetFileAttributesW(pattern.c_str()) == INVALID_FILE_ATTRIBUTES ? L"" : pattern;
  }
  const std::size_t begin = pattern.find_last_of(L"\\/", wildcard) + 1;
  const std::size_t end = std::min(pattern.find_first_of(L"\\/", wildcard), pattern.size());
  WIN32_FIND_DATAW data{};
  const UniqueHandle<FindTraits> find(FindFirstFileW(pattern.substr(0, end).c_str(), &data));
  if (!find) return L"";
  do {
    const std::wstring name = data.cFileName;
    if (name == L"." || name == L"..") continue;
    std::wstring found =
        Resolve(pattern.substr(0, begin) + name + pattern.substr(end), begin + name.size());
    if (!found.empty()) return found;
  } while (FindNextFileW(find.get(), &data));
  return L"";
}

Snapshot Look(const std::wstring& pattern) {
  Snapshot snapshot;
  WIN32_FILE_ATTRIBUTE_DATA data{};
  const std::wstring path = Resolve(pattern);
  snapshot.exists =
      !path.empty() && GetFileAttributesExW(path.c_str(), GetFileExInfoStandard, &data);
  if (snapshot.exists) {
    snapshot.size = Join(data.nFileSizeHigh, data.nFileSizeLow);
    snapshot.time = Join(data.ftLastWriteTime.dwHighDateTime, data.ftLastWriteTime.dwLowDateTime);
  }
  return snapshot;
}

struct Trigger {
  enum class Kind { kExists, kGone, kSize, kChange };
  Kind kind;
  std::wstring path;
  std::uint64_t size = 0;
  Snapshot at_start;

  [[nodiscard]] bool met() const {
    const Snapshot now = Look(path);
    switch (kind) {
      case Kind::kExists:
        return now.exists;
      case Kind::kGone:
        return !now.exists;
      case Kind::kSize:
        return now.exists && now.size == size;
      case Kind::kChange:
        return now != at_start;
    }
    return false;
  }
};

struct Job {
  std::wstring file;
  DWORD share = 0;
  DWORD access = GENERIC_READ;
  std::vector<Trigger> triggers;
  std::uint64_t timeout_ms = 60000;
  std::optional<std::uint64_t> for_ms;
  std::wstring stop_file;
};

bool TakeTriggers(Options& options, std::vector<Trigger>& triggers) {
  using Kind = Trigger::Kind;
  struct Plain {
    const char* name;
    Kind kind;
  };
  for (const Plain& plain :
       {Plain{"--wait-for", Kind::kExists}, Plain{"--wait-for-gone", Kind::kGone},
        Plain{"--wait-for-change", Kind::kChange}}) {
    while (const auto path = options.TakeValue(plain.name)) {
      triggers.push_back({plain.kind, Widen(*path), 0, Look(Widen(*path))});
    }
  }
  while (const auto pair = options.TakePair("--wait-for-size")) {
    Options number({"--bytes", pair->second});
    const auto bytes = number.TakeNumber("--bytes");
    if (!bytes) return false;
    triggers.push_back({Kind::kSize, Widen(pair->first), *bytes, {}});
  }
  return true;
}

std::optional<Job> ParseJob(Options options) {
  Job job;
  const auto file = options.TakeValue("--file");
  const auto share = ValueOf(kShares, options.TakeValue("--share").value_or("none"));
  const auto access = ValueOf(kAccesses, options.TakeValue("--access").value_or("read"));
  const bool triggers_sound = TakeTriggers(options, job.triggers);
  job.timeout_ms = options.TakeNumber("--timeout-ms").value_or(job.timeout_ms);
  job.for_ms = options.TakeNumber("--for-ms");
  job.stop_file = Widen(options.TakeValue("--stop-file").value_or(""));
  if (!file || !share || !access || !triggers_sound || !options.empty()) return std::nullopt;
  job.file = Widen(*file);
  job.share = *share;
  job.access = *access;
  return job;
}

bool Stopped(const Job& job) {
  return !job.stop_file.empty() && Look(job.stop_file).exists;
}

bool TriggersMet(const Job& job) {
  for (const Trigger& trigger : job.triggers) {
    if (!trigger.met()) return false;
  }
  return true;
}

UniqueFileHandle Open(const Job& job) {
  const std::wstring path = Resolve(job.file);
  if (path.empty()) {
    SetLastError(ERROR_FILE_NOT_FOUND);
    return {};
  }
  return UniqueFileHandle(CreateFileW(path.c_str(), job.access, job.share, nullptr, OPEN_EXISTING,
                                      FILE_FLAG_BACKUP_SEMANTICS, nullptr));
}

void HoldUntilTheEnd(const Job& job) {
  if (!job.for_ms && job.stop_file.empty()) {
    char byte = 0;
    DWORD read = 0;
    while (ReadFile(GetStdHandle(STD_INPUT_HANDLE), &byte, 1, &read, nullptr) && read != 0) {
    }
    return;
  }
  const std::uint64_t end = GetTickCount64() + job.for_ms.value_or(UINT64_MAX / 2);
  while (GetTickCount64() < end && !Stopped(job)) Sleep(1);
}

/// Starts this program again with the same command line but for the name of `flag`.
int StartChild(const std::wstring& flag) {
  std::wstring command = GetCommandLineW();
  command.replace(command.find(flag), flag.size(), L"");
  STARTUPINFOW startup{};
  startup.cb = sizeof startup;
  PROCESS_INFORMATION child{};
  PrintLine("parent " + std::to_string(GetCurrentProcessId()));
  if (!CreateProcessW(nullptr, command.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr,
                      &startup, &child)) {
    return 1;
  }
  CloseHandle(child.hThread);
  CloseHandle(child.hProcess);
  return 0;
}

int Run() {
  Options options(CommandLineArguments());
  if (options.TakeFlag("--from-child")) return StartChild(L"--from-child");
  const std::optional<Job> parsed = ParseJob(std::move(options));
  if (!parsed) return Usage(kUsage);
  const Job& job = *parsed;
  timeBeginPeriod(1);
  PrintLine("waiting");
  const std::uint64_t end = GetTickCount64() + job.timeout_ms;
  UniqueFileHandle file;
  bool triggered = false;
  while (!file) {
    if (Stopped(job)) {
      PrintLine("stopped");
      return 2;
    }
    // Once met, the triggers have done their work: the file is then tried until it opens.
    triggered = triggered || TriggersMet(job);
    if (triggered) file = Open(job);
    if (file) break;
    const DWORD code = GetLastError();
    if (GetTickCount64() >= end) {
      PrintLine(triggered ? "timeout " + std::to_string(code) : "timeout");
      return 1;
    }
    Sleep(1);
  }
  PrintLine("held " + std::to_string(GetCurrentProcessId()));
  HoldUntilTheEnd(job);
  file.Reset();
  PrintLine("released");
  return 0;
}

}  // namespace
}  // namespace zul::rig

int wmain() {
  return zul::rig::Run();
}

// The cost of an observer for the observed process.
//
//   collector_cost.exe INSTALL_FOLDER CRASH_FOLDER ROUNDS
//       INSTALL_FOLDER has qorva_updater.exe, the observer; CRASH_FOLDER is created. Prints
//       "plain_s observed_s handshake_s private_bytes": the median seconds of a process from start
//       to end without a collector and with one, the part of the difference that the observer's
//       start and its handshake take, and the private memory of an idle observer.
//
// The three kinds of process take turns. The handshake's part is the difference between a start
// with an observer and a start that finds no observer. The exit code of each process says whether
// its collector reached the expected state. Exits with 1 and a message when something fails.

#include <windows.h>

#include <psapi.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <vector>

#include "collector/collector.h"
#include "collector/evidence_record.h"
#include "collector/orphan_sessions.h"
#include "collector/session_directory.h"
#include "core/handle_win32.h"
#include "core/process_environment.h"

namespace {

using namespace zul;

constexpr wchar_t kObserved[] = L"--be-observed";
constexpr wchar_t kPlain[] = L"--be-plain";
constexpr DWORD kSettleMs = 1500;

int Fail(const char* what) {
  std::fprintf(stderr, "%s (%lu)\n", what, ::GetLastError());
  return 1;
}

/// The measured process: starts its collector and ends.
int BeObserved(const wchar_t* install, const wchar_t* crash, bool with_observer) {
  const CollectorStartResult started = StartCompactCollector(crash, install);
  RecordProcessExitCode(0);
  if (with_observer) return started.ready ? 0 : 1;
  return started.failure_reason == "collector_executable_missing" ? 0 : 1;
}

/// The seconds of one process from start to end; no value when it failed.
std::optional<double> TimeProcess(const std::wstring& arguments) {
  const std::filesystem::path program = CurrentExecutablePath(32768);
  std::wstring command_line = L'"' + program.native() + L"\" " + arguments;
  STARTUPINFOW startup{};
  startup.cb = sizeof startup;
  PROCESS_INFORMATION created{};
  const auto began = std::chrono::steady_clock::now();
  if (!::CreateProcessW(program.c_str(), command_line.data(), nullptr, nullptr, FALSE, 0, nullptr,
                        nullptr, &startup, &created)) {
    return std::nullopt;
  }
  const UniqueKernelHandle thread(created.hThread);
  const UniqueKernelHandle process(created.hProcess);
  ::WaitForSingleObject(process.get(), INFINITE);
  const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - began;
  DWORD exit_code = 1;
  if (!::GetExitCodeProcess(process.get(), &exit_code) || exit_code != 0) return std::nullopt;
  return seconds.count();
}

double Median(std::vector<double> values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

/// Waits for the end of the last observers and removes the evidence of unobserved processes, so
/// that every process finds the same folder.
void TidyUp(const fs::Path& crash) {
  for (int waited = 0; waited < 50; ++waited) {
    std::error_code ec;
    for (const OrphanSession& orphan : FinalizeOrphanSessions(crash)) {
      DeleteCompactSession(orphan.directory);
    }
    if (ListCompactSessions(crash, ec).empty()) return;
    ::Sleep(20);
  }
}

/// Starts an observer for this process and queries its private memory while it is idle.
std::optional<std::size_t> ObserverMemory(const fs::Path& install, const fs::Path& crash) {
  if (!StartCompactCollector(crash, install).ready) return std::nullopt;
  RecordProcessExitCode(0);
  nlohmann::json record;
  if (!ReadEvidenceRecord(CompactSessionDirectory() / kCollectorFile, &record, nullptr)) {
    return std::nullopt;
  }
  const UniqueKernelHandle observer(::OpenProcess(PROCESS_QUERY_INFORMATION | PROCESS_VM_READ,
                                                  FALSE, record.at("pid").get<DWORD>()));
  ::Sleep(kSettleMs);
  PROCESS_MEMORY_COUNTERS_EX counters{};
  if (!::K32GetProcessMemoryInfo(
          observer.get(), reinterpret_cast<PROCESS_MEMORY_COUNTERS*>(&counters), sizeof counters)) {
    return std::nullopt;
  }
  // Two fields for one value: Wine sets only the first, older systems only the second.
  return std::max(counters.PagefileUsage, counters.PrivateUsage);
}

int Measure(const wchar_t* install, const wchar_t* crash, int rounds) {
  const std::wstring folders = L" \"" + std::wstring(crash) + L"\" \"";
  const std::array<std::wstring, 3> kinds = {kPlain, kObserved + folders + install + L"\"",
                                             kObserved + folders + crash + L"\" without"};
  std::array<std::vector<double>, 3> seconds;
  for (int round = 0; round < rounds; ++round) {
    for (std::size_t kind = 0; kind < kinds.size(); ++kind) {
      const std::optional<double> taken = TimeProcess(kinds[kind]);
      if (!taken) return Fail("a measured process failed");
      seconds[kind].push_back(*taken);
      TidyUp(crash);
    }
  }
  const std::optional<std::size_t> memory = ObserverMemory(install, crash);
  if (!memory) return Fail("no observer to measure");
  const double plain = Median(seconds[0]);
  const double observed = Median(seconds[1]);
  std::printf("%.6f %.6f %.6f %zu\n", plain, observed, observed - Median(seconds[2]), *memory);
  return 0;
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
  const std::wstring mode = argc > 1 ? argv[1] : L"";
  if (mode == kPlain) return 0;
  if (mode == kObserved && argc >= 4) return BeObserved(argv[3], argv[2], argc == 4);
  const int rounds = argc == 4 ? static_cast<int>(std::wcstol(argv[3], nullptr, 10)) : 0;
  return rounds > 0 ? Measure(argv[1], argv[2], rounds) : 64;
}

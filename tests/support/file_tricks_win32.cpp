#include "tests/support/file_tricks.h"

#include <windows.h>

#include <stdexcept>

#include "core/api_path_win32.h"
#include "core/handle_win32.h"
#include "core/process_environment.h"
#include "core/text.h"

namespace zul::test {

namespace {

/// Wine's function that converts a path to the host's path; null on Windows.
using ToHostPath = char*(CDECL*)(const wchar_t*);

ToHostPath HostPathFunction() {
  const HMODULE kernel = ::GetModuleHandleW(L"kernel32.dll");
  return reinterpret_cast<ToHostPath>(
      reinterpret_cast<void*>(::GetProcAddress(kernel, "wine_get_unix_file_name")));
}

/// The host's path. A relative path only gets the host's separators.
std::wstring HostPath(const fs::Path& path) {
  if (!path.is_absolute()) return path.generic_wstring();
  char* const text = HostPathFunction()(path.c_str());
  if (text == nullptr) throw std::runtime_error("no host path for " + PathToUtf8(path));
  std::wstring host = Utf8ToWide(text).value();
  ::HeapFree(::GetProcessHeap(), 0, text);
  return host;
}

/// Runs a command line of the host's shell with two words as $0 and $1. Wine offers no way to wait
/// for it or to get its result.
bool StartHostShell(const wchar_t* script, const std::wstring& word0, const std::wstring& word1) {
  // Without a field separator $0 and $1 need no quotes in the script.
  std::wstring command =
      std::wstring(L"sh -c \"IFS=;") + script + L"\" \"" + word0 + L"\" \"" + word1 + L"\"";
  STARTUPINFOW startup{};
  startup.cb = sizeof startup;
  PROCESS_INFORMATION process{};
  if (!::CreateProcessW(L"\\\\?\\unix\\bin\\sh", command.data(), nullptr, nullptr, FALSE, 0,
                        nullptr, nullptr, &startup, &process)) {
    return false;
  }
  const UniqueKernelHandle thread(process.hThread);
  const UniqueKernelHandle handle(process.hProcess);
  return true;
}

/// Creates the link with the host's tools. They create a second file when the link exists.
bool MakeHostLink(const fs::Path& target, const fs::Path& link) {
  // A path of the host ("/dev/full") is not converted. The link does not exist yet, so its folder
  // is converted and the name appended.
  const bool is_host_path = target.native().starts_with(L'/');
  const std::wstring place = HostPath(link.parent_path()) + L"/" + link.filename().native();
  const std::wstring mark = fs::ApiPath(link) + L".made";
  bool made = StartHostShell(L"ln -s $0 $1&&touch $1.made",
                             is_host_path ? target.native() : HostPath(target), place);
  for (int waited_ms = 0; made && !::DeleteFileW(mark.c_str()); ::Sleep(1)) {
    made = ++waited_ms < 10000;
  }
  return made;
}

}  // namespace

bool RunsUnderWine() {
  return HostPathFunction() != nullptr;
}

bool MakeLink(const fs::Path& target, const fs::Path& link) {
  if (RunsUnderWine()) return MakeHostLink(target, link);
  std::error_code ec;
  const fs::Path resolved = target.is_absolute() ? target : link.parent_path() / target;
  const bool to_folder = fs::KindOf(resolved, fs::Links::kFollow, ec) == fs::EntryKind::kDirectory;
  const DWORD flags = (to_folder ? SYMBOLIC_LINK_FLAG_DIRECTORY : 0) |
                      0x2 /* SYMBOLIC_LINK_FLAG_ALLOW_UNPRIVILEGED_CREATE */;
  return ::CreateSymbolicLinkW(fs::ApiPath(link).c_str(), target.c_str(), flags) != 0;
}

void RemoveHostTree(const fs::Path& path) {
  if (!RunsUnderWine()) return;
  static_cast<void>(StartHostShell(L"rm -rf $0 $1", HostPath(path), HostPath(path)));
}

void MakeOlder(const fs::Path& path, std::chrono::seconds age) {
  constexpr std::uint64_t kTicksPerSecond = 10'000'000;
  // With this access right a folder opens too.
  const UniqueFileHandle entry(::CreateFileW(fs::ApiPath(path).c_str(), FILE_WRITE_ATTRIBUTES,
                                             FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                             OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr));
  FILETIME time;
  ::GetSystemTimeAsFileTime(&time);
  ULARGE_INTEGER ticks{{time.dwLowDateTime, time.dwHighDateTime}};
  ticks.QuadPart -= static_cast<std::uint64_t>(age.count()) * kTicksPerSecond;
  time = {ticks.LowPart, ticks.HighPart};
  if (::SetFileTime(entry.get(), nullptr, nullptr, &time) == 0) {
    throw std::runtime_error("cannot set the time of " + PathToUtf8(path));
  }
}

SmallVolume::SmallVolume() {
  std::error_code ec;
  const std::string drive = GetEnvironmentPath("QORVA_TEST_SMALL_DRIVE");
  path_ = drive.empty() ? fs::Path() : PathFromUtf8(drive + "\\work").value();
  fs::RemoveTree(path_, ec);  // a crashed run may have left it
  if (path_.empty() || !fs::CreateDirectories(path_, ec)) {
    path_.clear();
    why_not_ = "QORVA_TEST_SMALL_DRIVE is not the name of a small volume";
  }
}

SmallVolume::~SmallVolume() {
  std::error_code ignored;
  if (!path_.empty()) fs::RemoveTree(path_, ignored);
}

}  // namespace zul::test

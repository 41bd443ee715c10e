#include "tests/support/file_tricks.h"

#include <windows.h>

#include <stdexcept>

#include "core/api_path_win32.h"
#include "core/handle_win32.h"
#include "core/process_environment.h"
#include "core/text.h"

namespace zul::test {

namespace {

/// Wine's own way from one of its paths to the host's; null on Windows.
using ToHostPath = char*(CDECL*)(const wchar_t*);

ToHostPath HostPathFunction() {
  const HMODULE kernel = ::GetModuleHandleW(L"kernel32.dll");
  return reinterpret_cast<ToHostPath>(
      reinterpret_cast<void*>(::GetProcAddress(kernel, "wine_get_unix_file_name")));
}

/// A relative path only needs the host's separators.
std::wstring HostPath(const fs::Path& path) {
  if (!path.is_absolute()) return path.generic_wstring();
  char* const text = HostPathFunction()(path.c_str());
  if (text == nullptr) throw std::runtime_error("no host path for " + PathToUtf8(path));
  std::wstring host = Utf8ToWide(text).value();
  ::HeapFree(::GetProcessHeap(), 0, text);
  return host;
}

/// Starts a line of the host's shell with two words as its $0 and $1. It can be neither waited for
/// nor asked for its result.
bool StartHostShell(const wchar_t* script, const std::wstring& word0, const std::wstring& word1) {
  // With no field separator the words need no quotes inside the quoted script.
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

/// Makes the link with the host's own tools, which leave a file when it is there.
bool MakeHostLink(const fs::Path& target, const fs::Path& link) {
  // A target of the host's own ("/dev/full") stays as it is. The link itself is not there yet, so
  // its folder is converted and the name appended.
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
  if (RunsUnderWine()) (void)StartHostShell(L"rm -rf $0 $1", HostPath(path), HostPath(path));
}

void MakeReadOnly(const fs::Path& path) {
  ::SetFileAttributesW(fs::ApiPath(path).c_str(), FILE_ATTRIBUTE_READONLY);
}

bool IsReadOnly(const fs::Path& path) {
  return (::GetFileAttributesW(fs::ApiPath(path).c_str()) & FILE_ATTRIBUTE_READONLY) != 0;
}

void MakeOlder(const fs::Path& path, std::chrono::seconds age) {
  constexpr std::uint64_t kTicksPerSecond = 10'000'000;
  // The access right that folders can be opened with, too.
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
  fs::RemoveTree(path_, ec);  // of a run that died
  if (path_.empty() || !fs::CreateDirectories(path_, ec)) {
    path_.clear();
    why_not_ = "QORVA_TEST_SMALL_DRIVE names no small volume";
  }
}

SmallVolume::~SmallVolume() {
  std::error_code ignored;
  if (!path_.empty()) fs::RemoveTree(path_, ignored);
}

}  // namespace zul::test

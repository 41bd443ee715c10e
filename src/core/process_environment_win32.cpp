#include "core/process_environment.h"

#include <windows.h>

#include <shlobj.h>

#include <string>
#include <vector>

#include "core/text.h"

namespace zul {

std::string GetEnvironmentPath(std::string_view name) {
  const std::optional<std::wstring> wide_name = Utf8ToWide(name);
  if (!wide_name || wide_name->empty()) return {};
  const DWORD needed = ::GetEnvironmentVariableW(wide_name->c_str(), nullptr, 0);
  if (needed == 0) return {};
  std::vector<wchar_t> buffer(needed);
  const DWORD length = ::GetEnvironmentVariableW(wide_name->c_str(), buffer.data(), needed);
  // When the value has grown since the first call, `length` is the size that it needs now.
  if (length == 0 || length >= needed) return {};
  return WideToUtf8({buffer.data(), length}).value_or(std::string());
}

std::uint32_t CurrentProcessId() {
  return ::GetCurrentProcessId();
}

fs::Path CurrentExecutablePath(std::uint32_t max_units) {
  std::vector<wchar_t> buffer(max_units);
  const DWORD length = ::GetModuleFileNameW(nullptr, buffer.data(), max_units);
  if (length == 0 || length >= max_units) return {};
  return fs::Path(std::wstring(buffer.data(), length));
}

fs::Path TempDirectory() {
  wchar_t buffer[260];
  const DWORD length = ::GetTempPathW(static_cast<DWORD>(std::size(buffer)), buffer);
  if (length == 0 || length >= std::size(buffer)) return {};
  return fs::Path(std::wstring(buffer, length));
}

std::uint64_t TickCountMs() {
  return ::GetTickCount64();
}

std::uint64_t PerformanceCounter() {
  LARGE_INTEGER counter{};
  ::QueryPerformanceCounter(&counter);
  return static_cast<std::uint64_t>(counter.QuadPart);
}

std::tm LocalCalendarTime(std::time_t time) {
  std::tm result{};
  ::localtime_s(&result, &time);
  return result;
}

std::tm UtcCalendarTime(std::time_t time) {
  std::tm result{};
  ::gmtime_s(&result, &time);
  return result;
}

std::optional<fs::Path> RoamingAppDataDirectory(std::uint32_t* hresult) {
  wchar_t buffer[MAX_PATH] = {};
  const HRESULT result =
      ::SHGetFolderPathW(nullptr, CSIDL_APPDATA, nullptr, SHGFP_TYPE_CURRENT, buffer);
  if (FAILED(result)) {
    *hresult = static_cast<std::uint32_t>(result);
    return std::nullopt;
  }
  return fs::Path(std::wstring(buffer));
}

}  // namespace zul

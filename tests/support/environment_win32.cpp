#include "tests/support/environment.h"

#include <windows.h>

#include <vector>

#include "core/text.h"

namespace zul::test {

std::optional<std::string> ReadVariable(const std::string& name) {
  std::vector<wchar_t> buffer(32768);  // the longest value that the system has
  ::SetLastError(ERROR_SUCCESS);
  const DWORD length =
      ::GetEnvironmentVariableW(Utf8ToWide(name).value().c_str(), buffer.data(), 32768);
  if (length == 0 && ::GetLastError() == ERROR_ENVVAR_NOT_FOUND) return std::nullopt;
  return WideToUtf8({buffer.data(), length});
}

void WriteVariable(const std::string& name, const std::optional<std::string>& value) {
  const std::wstring wide_name = Utf8ToWide(name).value();
  const std::wstring wide_value = Utf8ToWide(value.value_or(std::string())).value();
  ::SetEnvironmentVariableW(wide_name.c_str(), value ? wide_value.c_str() : nullptr);
}

}  // namespace zul::test

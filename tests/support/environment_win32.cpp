#include "tests/support/environment.h"

#include <windows.h>

#include "core/text.h"

namespace zul::test {

void ScopedEnvironment::Write(const std::string& name, const std::optional<std::string>& value) {
  const std::wstring wide_name = Utf8ToWide(name).value();
  const std::wstring wide_value = Utf8ToWide(value.value_or(std::string())).value();
  ::SetEnvironmentVariableW(wide_name.c_str(), value ? wide_value.c_str() : nullptr);
}

}  // namespace zul::test

#include "tests/apply/environment.h"

#include <windows.h>

#include "core/text.h"

namespace zul::test {

void SetEnvironment(const std::string& name, const std::string& value) {
  ::SetEnvironmentVariableW(Utf8ToWide(name).value().c_str(),
                            value.empty() ? nullptr : Utf8ToWide(value).value().c_str());
}

}  // namespace zul::test

#include "tests/support/environment.h"

#include <cstdlib>

namespace zul::test {

void ScopedEnvironment::Write(const std::string& name, const std::optional<std::string>& value) {
  static_cast<void>(value ? ::setenv(name.c_str(), value->c_str(), 1) : ::unsetenv(name.c_str()));
}

}  // namespace zul::test

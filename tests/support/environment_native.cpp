#include "tests/support/environment.h"

#include <cstdlib>

namespace zul::test {

std::optional<std::string> ReadVariable(const std::string& name) {
  const char* value = std::getenv(name.c_str());
  if (value == nullptr) return std::nullopt;
  return std::string(value);
}

void WriteVariable(const std::string& name, const std::optional<std::string>& value) {
  if (value) {
    ::setenv(name.c_str(), value->c_str(), 1);
  } else {
    ::unsetenv(name.c_str());
  }
}

}  // namespace zul::test

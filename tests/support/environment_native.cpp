#include "tests/support/environment.h"

#include <cstdlib>

namespace zul::test {

std::optional<std::string> ReadVariable(const std::string& name) {
  const char* value = std::getenv(name.c_str());
  return value == nullptr ? std::nullopt : std::optional<std::string>(value);
}

void WriteVariable(const std::string& name, const std::optional<std::string>& value) {
  (void)(value ? ::setenv(name.c_str(), value->c_str(), 1) : ::unsetenv(name.c_str()));
}

}  // namespace zul::test

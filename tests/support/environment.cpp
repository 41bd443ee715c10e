#include "tests/support/environment.h"

#include <utility>

namespace zul::test {

ScopedEnvironment::ScopedEnvironment(std::string name, const std::optional<std::string>& value)
    : name_(std::move(name)), before_(ReadVariable(name_)) {
  WriteVariable(name_, value);
}

ScopedEnvironment::~ScopedEnvironment() {
  WriteVariable(name_, before_);
}

}  // namespace zul::test

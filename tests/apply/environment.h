#pragma once

// Environment variables of this process, for tests.

#include <string>

namespace zul::test {

/// Both UTF-8. An empty value removes the variable.
void SetEnvironment(const std::string& name, const std::string& value);

}  // namespace zul::test

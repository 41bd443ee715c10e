#pragma once

// Environment variables of this process for the length of one test.

#include <optional>
#include <string>
#include <utility>

namespace zul::test {

/// The raw calls of the system. Texts UTF-8.
[[nodiscard]] std::optional<std::string> ReadVariable(const std::string& name);
void WriteVariable(const std::string& name, const std::optional<std::string>& value);

/// Sets `name` to `value`, or unsets it, and puts the old value back at the end of the scope.
/// (An empty value is set as empty; Windows may then report it as unset.)
class ScopedEnvironment {
 public:
  ScopedEnvironment(std::string name, const std::optional<std::string>& value)
      : name_(std::move(name)), before_(ReadVariable(name_)) {
    WriteVariable(name_, value);
  }
  ~ScopedEnvironment() { WriteVariable(name_, before_); }
  ScopedEnvironment(const ScopedEnvironment&) = delete;
  ScopedEnvironment& operator=(const ScopedEnvironment&) = delete;

 private:
  std::string name_;
  std::optional<std::string> before_;
};

}  // namespace zul::test

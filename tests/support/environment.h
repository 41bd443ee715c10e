#pragma once

// Environment variables of this process for the length of one test.

#include <optional>
#include <string>
#include <utility>

#include "core/process_environment.h"

namespace zul::test {

/// Sets a variable, or unsets it. Texts UTF-8.
void WriteVariable(const std::string& name, const std::optional<std::string>& value);

/// Sets `name` to `value`, or unsets it, and puts the old value back at the end of the scope. One
/// that was empty is unset then, which Windows does not tell apart.
class ScopedEnvironment {
 public:
  ScopedEnvironment(std::string name, const std::optional<std::string>& value)
      : name_(std::move(name)), before_(GetEnvironmentPath(name_)) {
    WriteVariable(name_, value);
  }
  ~ScopedEnvironment() {
    WriteVariable(name_, before_.empty() ? std::nullopt : std::optional(before_));
  }
  ScopedEnvironment(const ScopedEnvironment&) = delete;
  ScopedEnvironment& operator=(const ScopedEnvironment&) = delete;

 private:
  std::string name_;
  std::string before_;
};

}  // namespace zul::test

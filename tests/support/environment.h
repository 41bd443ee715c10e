#pragma once

// Environment variables of this process for one test.

#include <optional>
#include <string>
#include <utility>

#include "core/process_environment.h"

namespace zul::test {

/// Sets the variable `name` to `value`, or unsets it, and restores it at the end of the scope.
/// Texts are UTF-8. An empty variable is unset at the end; Windows does not distinguish the two.
class ScopedEnvironment {
 public:
  ScopedEnvironment(std::string name, const std::optional<std::string>& value)
      : name_(std::move(name)), before_(GetEnvironmentPath(name_)) {
    Write(name_, value);
  }
  ~ScopedEnvironment() { Write(name_, before_.empty() ? std::nullopt : std::optional(before_)); }
  ScopedEnvironment(const ScopedEnvironment&) = delete;
  ScopedEnvironment& operator=(const ScopedEnvironment&) = delete;

 private:
  static void Write(const std::string& name, const std::optional<std::string>& value);

  std::string name_;
  std::string before_;
};

}  // namespace zul::test

#pragma once

// The trace of one test: a new configuration folder, and the trace's lines in a form for
// comparisons.

#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "core/text.h"
#include "tests/support/environment.h"
#include "tests/support/temp_folder.h"
#include "trace/chain_events.h"

namespace zul::test {

/// Redirects the trace of this process to a new folder.
class TraceInTempFolder {
 public:
  [[nodiscard]] const TempFolder& folder() const { return folder_; }

  /// The whole trace file; empty when it does not exist.
  [[nodiscard]] std::string Text() const {
    const fs::Path path = PathFromUtf8(TraceLogPath()).value();
    return Exists(path) ? ReadFile(path) : std::string();
  }

  /// Each line as "stage key=value ...", with sorted keys and without those that the trace derives.
  [[nodiscard]] std::vector<std::string> Events() const {
    std::vector<std::string> events;
    std::istringstream lines(Text());
    for (std::string line; std::getline(lines, line);) {
      nlohmann::json json = nlohmann::json::parse(line);
      std::string event = json["stage"];
      for (const char* key : {"stage", "ts", "action_id", "correlation_id", "chain_event", "result",
                              "user_error_id"}) {
        json.erase(key);
      }
      for (const auto& [key, value] : json.items()) {
        event += " " + key + "=" + value.get<std::string>();
      }
      events.push_back(event);
    }
    return events;
  }

 private:
  TempFolder folder_;
  ScopedEnvironment config_home_{"QORVA_CONFIG_HOME", PathToUtf8(folder_ / "config")};
};

}  // namespace zul::test

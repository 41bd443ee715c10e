#pragma once

// What processes leave that end badly, made by hand.

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>

#include "collector/evidence_record.h"
#include "collector/session_directory.h"
#include "core/process_environment.h"
#include "tests/support/temp_folder.h"

namespace zul::test {

inline const ProcessKey kDeadProcess{4294967280, "1"};

/// The session file of a process that is gone, as its fourth checkpoint left it.
inline nlohmann::json LeftSession() {
  return {{"schema_name", "qorva.diagnostics.session"},
          {"schema_version", 2},
          {"session_id", "session_1"},
          {"pid", kDeadProcess.pid},
          {"process_identity", kDeadProcess.identity},
          {"started_at_local", "2026-01-01 00:00:00"},
          {"updated_at_local", "2026-01-01 00:00:02"},
          {"updated_at_unix_ms", 1767225602000},
          {"termination_state", "active"},
          {"checkpoint_sequence", 4},
          {"host_monotonic_ms", 1},
          {"process_uptime_ms", 1500},
          {"ui_heartbeat", {{"sequence", 0}, {"age_ms", 1500}}},
          {"app", {{"app_name", "QORVA"}, {"version", "0.9"}}},
          {"runtime_state", nlohmann::json::object()},
          {"breadcrumbs",
           {{{"sequence", 1},
             {"time_local", "2026-01-01 00:00:00"},
             {"event", "application_started"},
             {"details", nlohmann::json::object()}}}}};
}

/// A compact session whose process and observer are gone; `incident` changes its base record.
inline void LeaveCompactSession(const fs::Path& crash_directory, const std::string& name,
                                const nlohmann::json& incident) {
  const fs::Path session = CompactDirectory(crash_directory) / name;
  WriteFile(session / "emergency.bin", "");
  nlohmann::json record = BuildBaseRecord(kDeadProcess, 1767225602000);
  EXPECT_TRUE(CommitEvidenceRecord(session / "metadata.json", record, nullptr));
  if (incident.is_object()) record.update(incident);
  EXPECT_TRUE(CommitEvidenceRecord(session / "incident.json", record, nullptr));
}

}  // namespace zul::test

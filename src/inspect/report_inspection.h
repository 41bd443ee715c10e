#pragma once

// What a report says, and whether it holds nothing that it promises to leave out.
// docs/formats/report.md describes the keys.

#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <vector>

#include "inspect/evidence_inspection.h"
#include "inspect/trace_runs.h"

namespace zul {

struct ReportInspection {
  std::string path;
  std::string kind;
  std::string meaning;  ///< of the kind; one sentence
  std::string reason;
  std::string created_at;  ///< local time of the machine
  std::string build;
  std::string stage;                         ///< of an updater_error
  std::string forensics;                     ///< the classification of a recovered session
  std::string upload;                        ///< the result of the last upload
  std::optional<TraceRun> run;               ///< the last run in the report's text
  std::optional<EvidenceFinding> evidence;   ///< of a report about a process that died
  std::size_t withheld = 0;                  ///< markers that stand for private data
  std::vector<std::string> broken_promises;  ///< each with the place in the report
};

/// Inspects the report at `path` (UTF-8). False, with one sentence in `error`, when it is none.
[[nodiscard]] bool InspectReport(const std::string& path, ReportInspection* inspection,
                                 std::string* error);

/// The promises that a report breaks: words of its privacy block, evidence that is not on the
/// allow-list, and texts that the redaction would still change.
[[nodiscard]] std::vector<std::string> BrokenPromises(const nlohmann::json& report);

}  // namespace zul

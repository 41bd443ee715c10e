#pragma once

// Evidence for people and for programs.

#include <nlohmann/json_fwd.hpp>

#include "inspect/evidence_inspection.h"
#include "inspect/paper.h"

namespace zul {

void PrintEvidence(const EvidenceInspection& inspection, Paper* paper);
void PrintFinding(const EvidenceFinding& finding, Paper* paper);

[[nodiscard]] nlohmann::json EvidenceJson(const EvidenceInspection& inspection);
[[nodiscard]] nlohmann::json FindingJson(const EvidenceFinding& finding);

}  // namespace zul

#pragma once

// A report's inspection for people and for programs.

#include <nlohmann/json_fwd.hpp>

#include "inspect/paper.h"
#include "inspect/report_inspection.h"

namespace zul {

void PrintReport(const ReportInspection& inspection, Paper* paper);
[[nodiscard]] nlohmann::json ReportJson(const ReportInspection& inspection);

}  // namespace zul

#pragma once

// A package's inspection for people and for programs.

#include <nlohmann/json_fwd.hpp>

#include "inspect/package_inspection.h"
#include "inspect/paper.h"

namespace zul {

void PrintPackage(const PackageInspection& inspection, Paper* paper);
[[nodiscard]] nlohmann::json PackageJson(const PackageInspection& inspection);

}  // namespace zul

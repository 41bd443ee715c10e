#include "update/workspace.h"

#include <chrono>

#include "core/file_layer.h"
#include "core/process_environment.h"
#include "core/text.h"

namespace zul {

std::string CreateUpdateWorkspace() {
  const fs::Path temp = TempDirectory();
  if (temp.empty()) return {};
  const auto nanoseconds = std::chrono::duration_cast<std::chrono::nanoseconds>(
      std::chrono::steady_clock::now().time_since_epoch());
  const fs::Path workspace = temp / ("qorva_updater_" + std::to_string(nanoseconds.count()));
  std::error_code ec;
  if (!fs::CreateDirectories(temp, ec)) return {};
  // A folder that somebody else made under this name is not ours to fill.
  if (fs::CreateDirectoryOnce(workspace, ec) != fs::CreateResult::kCreated) return {};
  return PathToUtf8(workspace);
}

}  // namespace zul

#include "update/restart.h"

#include "core/text.h"

namespace zul {

std::string BuildRestartArguments(const UpdateRequest& request) {
  if (!request.headless_restart_version_proof) return {};
  const fs::Path folder = PathOrEmpty(request.target_dir);
  return "--write-app-version-json \"" + PathToUtf8(folder / kRestartProofFileName) + "\"";
}

std::string_view RestartModeName(const UpdateRequest& request) {
  return request.headless_restart_version_proof ? "headless_version_proof" : "normal_gui";
}

}  // namespace zul

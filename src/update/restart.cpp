#include "update/restart.h"

#include "core/text.h"

namespace zul {

std::string BuildRestartArguments(const UpdateRequest& request) {
  if (!request.headless_restart_version_proof) return {};
  const std::filesystem::path folder =
      PathFromUtf8(request.target_dir).value_or(std::filesystem::path());
  return "--write-app-version-json \"" + PathToUtf8(folder / kRestartProofFileName) + "\"";
}

std::string_view RestartModeName(const UpdateRequest& request) {
  return request.headless_restart_version_proof ? "headless_version_proof" : "normal_gui";
}

}  // namespace zul

#include "core/system_error.h"
#include "core/text.h"
#include "trace/chain_events.h"
#include "update/update_run.h"

namespace zul {

namespace {

/// No package can contain this name: the extraction skips names that begin with "._" as clutter.
constexpr std::string_view kClaimName = "._qorva_update_in_progress";

}  // namespace

StageResult ClaimTarget(UpdateRun& run) {
  const fs::Path path = PathOrEmpty(run.request.target_dir) / kClaimName;
  std::error_code ec;
  const fs::LockFile::Result result = run.claim.Take(path, ec);
  if (result == fs::LockFile::Result::kTaken) return std::nullopt;
  if (result == fs::LockFile::Result::kHeld) {
    const std::string error =
        "Another updater is already updating the QORVA installation '" + run.request.target_dir +
        "'. This updater has not changed anything. Wait until the other one has finished. If QORVA "
        "does not start then, start the update again.";
    EmitChainEvent("updater_run_claim_fail", {{"error", error}, {"claim_file", PathToUtf8(path)}});
    return FailRun(run, error, "claim_target");
  }
  // Where this file cannot be made, an update usually fails too, and says why.
  EmitChainEvent("updater_run_claim_warning",
                 {{"error", DescribeSystemError(ec)}, {"claim_file", PathToUtf8(path)}});
  return std::nullopt;
}

}  // namespace zul

#include "transfer/checksum.h"

#include <vector>

#include "core/failure.h"
#include "core/file_hash.h"
#include "core/text.h"
#include "trace/chain_events.h"

namespace zul {

bool VerifyFileSha256(const fs::Path& path, std::string_view expected, std::string* error,
                      const fs::KeepAlive& keep_alive) {
  std::string hex;
  if (!ComputeFileSha256(path, &hex, error, keep_alive)) return false;
  if (AsciiLower(TrimWhitespace(expected)) == hex) return true;
  return Fail(error, "Downloaded package checksum mismatch.");
}

bool VerifyPackageChecksum(const ChecksumStageContext& context, std::string_view origin_role) {
  if (context.progress_window != nullptr) {
    context.progress_window->set_status("Verifying update package...",
                                        "Checking downloaded package SHA-256.", 100);
  }
  const auto emit = [&origin_role](std::string phase, ChainEventField detail) {
    std::vector<ChainEventField> fields = {
        {"phase", phase}, {"checksum_stage", phase}, {"origin_role", std::string(origin_role)}};
    if (!detail.first.empty()) fields.push_back(std::move(detail));
    EmitChainEvent("checksum_verify", fields);
  };
  emit("start", {"sha256_expected", context.request.sha256});
  if (!VerifyFileSha256(context.package_path, context.request.sha256, context.stage_error,
                        KeepingAlive(context.progress_window))) {
    emit("fail", {"error", *context.stage_error});
    return false;
  }
  emit("ok", {});
  return true;
}

}  // namespace zul

#include "transfer/checksum.h"

#include <chrono>
#include <thread>
#include <utility>
#include <vector>

#include "core/failure.h"
#include "core/file_hash.h"
#include "core/keep_alive.h"
#include "core/system_error.h"
#include "core/text.h"
#include "trace/chain_events.h"

namespace zul {

namespace {

constexpr unsigned kHoldAttempts = 12;
constexpr std::chrono::milliseconds kHoldWait{250};

/// Holds the file; not open on a failure. A scanner may have a new file open for a moment.
fs::File Hold(const fs::Path& path, const fs::KeepAlive& keep_alive) {
  for (unsigned attempt = 1;; ++attempt) {
    std::error_code ec;
    fs::File file = fs::HoldForRead(path, ec);
    if (!IsLockedOrDeniedError(ec) || attempt == kHoldAttempts) return file;
    RunKeepingAlive([] { std::this_thread::sleep_for(kHoldWait); }, keep_alive);
  }
}

}  // namespace

bool VerifyFileSha256(const fs::Path& path, std::string_view expected, std::string* error,
                      const fs::KeepAlive& keep_alive, fs::File* verified) {
  fs::File file = Hold(path, keep_alive);
  if (!file.is_open()) return Fail(error, "Cannot open file for SHA-256.");
  std::string hex;
  if (!ComputeFileSha256(file, &hex, error, keep_alive)) return false;
  if (AsciiLower(TrimWhitespace(expected)) != hex) {
    return Fail(error, "Downloaded package checksum mismatch.");
  }
  if (verified != nullptr) *verified = std::move(file);
  return true;
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
                        KeepingAlive(context.progress_window), context.package)) {
    emit("fail", {"error", *context.stage_error});
    return false;
  }
  emit("ok", {});
  return true;
}

}  // namespace zul

#include <string>

#include "core/file_layer.h"
#include "trace/chain_events.h"
#include "transfer/checksum.h"
#include "transfer/url_policy.h"
#include "update/update_run.h"

namespace zul {

namespace {

constexpr std::string_view kPrimary = "primary";
constexpr std::string_view kRfFallback = "rf_fallback";

bool HasDistinctFallback(const UpdateRequest& request) {
  return !request.fallback_download_url.empty() &&
         request.fallback_download_url != request.download_url;
}

bool DownloadFrom(UpdateRun& run, const std::string& url, std::string_view origin_label,
                  DownloadResult& result) {
  return run.world.download_package(url, run.package_path, origin_label, &result, &run.stage_error,
                                    &run.progress_window, {}, {});
}

bool VerifyFrom(UpdateRun& run, std::string_view origin_label) {
  return VerifyPackageChecksum(
      {&run.progress_window, run.request, run.package_path, &run.stage_error, &run.package},
      origin_label);
}

void EmitDownloadFailure(std::string_view event, const std::string& error,
                         const DownloadResult& result) {
  EmitChainEvent(event, {{"error", error},
                         {"failure_kind", std::string(FailureKindName(result.failure_kind))},
                         {"winhttp_error_code", std::to_string(result.winhttp_error_code)},
                         {"http_status", std::to_string(result.http_status)},
                         {"bytes_downloaded", std::to_string(result.bytes_downloaded)},
                         {"elapsed_ms", std::to_string(result.elapsed_ms)},
                         {"avg_throughput_bps", std::to_string(result.avg_throughput_bps)}});
}

StageResult FetchFromFallback(UpdateRun& run) {
  if (!DownloadFrom(run, run.request.fallback_download_url, kRfFallback, run.fallback_result)) {
    EmitDownloadFailure("download_fallback_fail", run.stage_error, run.fallback_result);
    return FailRun(run, "Update download failed on primary and RF fallback: " + run.stage_error);
  }
  run.selected_url = run.request.fallback_download_url;
  if (!VerifyFrom(run, kRfFallback)) {
    return FailRun(run, "Update checksum validation failed on RF fallback: " + run.stage_error);
  }
  EmitChainEvent("download_fallback_ok",
                 {{"selected_url", StripUrlQuery(run.selected_url)},
                  {"bytes_downloaded", std::to_string(run.fallback_result.bytes_downloaded)},
                  {"elapsed_ms", std::to_string(run.fallback_result.elapsed_ms)},
                  {"avg_throughput_bps", std::to_string(run.fallback_result.avg_throughput_bps)}});
  return std::nullopt;
}

/// The primary delivered a package with the wrong digest.
StageResult ReplaceBadPrimaryPackage(UpdateRun& run) {
  if (!HasDistinctFallback(run.request)) {
    return FailRun(run, "Update checksum validation failed: " + run.stage_error);
  }
  EmitChainEvent("checksum_primary_fail",
                 {{"error", run.stage_error},
                  {"bytes_downloaded", std::to_string(run.primary_result.bytes_downloaded)}});
  std::error_code ignored;
  fs::Remove(run.package_path, ignored);
  run.progress_window.set_status("Primary package failed verification.",
                                 "Trying RF fallback download.", 0);
  return FetchFromFallback(run);
}

StageResult FetchFromOrigins(UpdateRun& run) {
  if (DownloadFrom(run, run.request.download_url, kPrimary, run.primary_result)) {
    run.selected_url = run.request.download_url;
    return VerifyFrom(run, kPrimary) ? std::nullopt : ReplaceBadPrimaryPackage(run);
  }
  EmitDownloadFailure("download_primary_fail", run.stage_error, run.primary_result);
  if (!HasDistinctFallback(run.request) || !ShouldTryFallback(run.primary_result)) {
    return FailRun(run, "Update download failed: " + run.stage_error);
  }
  return FetchFromFallback(run);
}

}  // namespace

StageResult FetchPackage(UpdateRun& run) {
  run.selected_url = run.request.download_url;
  if (const StageResult ended = FetchFromOrigins(run)) return ended;
  EmitChainEvent("download_selected", {{"selected_url", StripUrlQuery(run.selected_url)}});
  return std::nullopt;
}

}  // namespace zul

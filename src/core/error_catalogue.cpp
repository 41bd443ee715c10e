#include "core/error_catalogue.h"

#include <stdexcept>

namespace zul {

namespace {

// Codes 15 and 16 and flow 0 belong to the licence checks, which define them.
constexpr UserErrorEntry kUserErrors[] = {
    {0, "missing_resource",
     "A required resource is missing. Reinstall or repair the app resources.",
     "Required resource is missing; operation is blocked."},
    {1, "missing_icc_profile", "The selected ICC/profile resource is missing or unreadable.",
     "Selected ICC/profile resource is missing or unreadable; RIP is blocked."},
    {2, "corrupt_icc_profile", "The selected ICC/profile is corrupt or cannot be initialized.",
     "Selected ICC/profile is corrupt or cannot initialize; RIP is blocked."},
    {3, "lcms_unavailable", "The color conversion runtime is unavailable.",
     "LCMS/color conversion runtime is unavailable; RIP is blocked."},
    {4, "image_decode_failed", "The image could not be decoded.",
     "Image decode failed; job is failed before successful output."},
    {5, "unsupported_image_format", "This image format is not supported by the current build.",
     "Unsupported image format; job is failed before successful output."},
    {6, "unsupported_feature", "This feature is not available in the current build.",
     "Unsupported feature requested; job is blocked fail-closed."},
    {7, "stale_config_unsupported_field",
     "Saved settings contain an unsupported or invalid output-affecting field.",
     "Stale/invalid output-affecting settings are blocked fail-closed."},
    {8, "invalid_output_path", "The output folder is missing or not writable.",
     "Invalid output path; job must not be marked successful."},
    {9, "permission_denied", "The app does not have permission for the requested file or folder.",
     "Permission denied; operation is failed without fake success."},
    {10, "disk_full", "There is not enough disk space to complete the operation.",
     "Disk full or write exhaustion detected; operation is failed."},
    {11, "queue_state_corruption", "The queue state is inconsistent and needs recovery.",
     "Queue state corruption detected; processing is blocked."},
    {12, "hotfolder_unavailable", "The hot folder is unavailable or not configured.",
     "Hot-folder source is unavailable; file is not processed."},
    {13, "printer_send_failed", "Sending output failed. The job was not marked printed.",
     "Printer/output send failed; successful printed state is blocked."},
    {14, "tcp_connection_failed", "TCP output connection failed. The job was not marked printed.",
     "TCP output connection failed; successful printed state is blocked."},
    {17, "secret_store_failed", "Secure storage is unavailable.",
     "Secret store/Keychain operation failed; secure state is rejected."},
    {18, "updater_disabled", "Updates are unavailable in this build.",
     "Updater is disabled by product policy; update flow is blocked."},
    {19, "updater_wrong_platform_manifest", "The update package does not match this platform.",
     "Updater manifest/package platform mismatch; apply is blocked."},
    {20, "signing_delivery_not_runtime",
     "Signing and notarization are delivery checks, not runtime app actions.",
     "Signing/delivery check is not applicable at runtime."},
    {21, "pdf_renderer_unavailable", "PDF rendering is unavailable in this build.",
     "PDF renderer unavailable; PDF job is failed before successful output."},
    {22, "pdf_spot_white_unsupported",
     "PDF spot-white separation is not supported by the current beta.",
     "PDF spot-white request is unsupported; no silent output downgrade allowed."},
    {23, "ai_unavailable_macos", "AI processing is unavailable on macOS beta.",
     "AI requested on macOS beta; job is blocked before RIP."},
    {24, "unexpected_exception", "An unexpected error occurred. The operation did not complete.",
     "Unexpected exception; operation is failed without fake success."},
};

constexpr RecoveryFlowEntry kRecoveryFlows[] = {
    {kRecoveryFlowUpdate, "update", "QORVA-UPDATE-CHECK-FAILED",
     "Retry the update check or use the verified public installer."},
    {2, "input", "QORVA-INPUT-RECOVERY-FAILED",
     "Choose a supported readable file and retry the import."},
    {3, "rip_output", "QORVA-RIP-OUTPUT-FAILED",
     "Repair the reported output problem, then retry the RIP."},
    {4, "ai", "QORVA-AI-RUNTIME-UNAVAILABLE",
     "Install or repair the supported AI runtime, then retry."},
    {5, "diagnostics", "QORVA-DIAGNOSTICS-UPLOAD-FAILED",
     "Retry the diagnostics upload after network access is restored."},
    {6, "settings", "QORVA-SETTINGS-RECOVERY-FAILED",
     "Repair, reset, or temporarily use safe default settings."},
    {7, "hotfolder", "QORVA-HOTFOLDER-UNAVAILABLE",
     "Restore access to the configured Hot Folder, then retry."},
};

}  // namespace

std::span<const UserErrorEntry> UserErrorCatalogue() {
  return kUserErrors;
}

std::span<const RecoveryFlowEntry> RecoveryFlows() {
  return kRecoveryFlows;
}

std::string_view RecoveryFlowErrorId(std::uint32_t flow) {
  for (const RecoveryFlowEntry& entry : kRecoveryFlows) {
    if (entry.flow == flow) return entry.user_error_id;
  }
  throw std::logic_error("Unknown recovery error flow");
}

}  // namespace zul

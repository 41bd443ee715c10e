#include "update/validate_request.h"

#include <algorithm>
#include <string_view>

#include "core/failure.h"
#include "core/text.h"
#include "package/layout.h"
#include "transfer/url_policy.h"

namespace zul {

namespace {

bool ValidateOrigin(const std::string& url, std::string_view default_message, std::string* error) {
  const UpdateUrlParts parts = ParseUpdateUrl(url);
  if (!parts.ok) return Fail(error, parts.error.empty() ? default_message : parts.error);
  return IsAllowedDownloadUrl(url, DefaultUpdateDownloadHosts(), error);
}

bool IsSha256Text(std::string_view text) {
  const auto is_hex_digit = [](char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
  };
  return text.size() == 64 && std::all_of(text.begin(), text.end(), is_hex_digit);
}

}  // namespace

bool ValidateUpdateRequest(const UpdateRequest& request, std::string* error) {
  if (!request.unreadable_switch.empty()) {
    return Fail(error, "Updater argument ", request.unreadable_switch + " is not valid UTF-16.");
  }
  if (request.download_url.empty() || request.sha256.empty() || request.target_dir.empty() ||
      request.restart_exe.empty()) {
    return Fail(error, "Update payload is incomplete.");
  }
  if (!request.restart_args.empty()) {
    return Fail(error, "Updater restart arguments are not supported.");
  }
  if (request.headless_restart_version_proof && request.pid != 0) {
    return Fail(error, "Headless installed-update proof requires an isolated updater request.");
  }
  if (request.headless_restart_version_proof && !request.require_signed_payload_binaries) {
    return Fail(error, "Headless installed-update proof requires signed payload verification.");
  }
  if (!ValidateUpdatePaths(request, error)) return false;
  if (!ValidateOrigin(request.download_url, "Invalid primary download URL.", error)) return false;
  if (!request.fallback_download_url.empty() &&
      !ValidateOrigin(request.fallback_download_url, "Invalid fallback download URL.", error)) {
    return false;
  }
  if (!IsSha256Text(TrimWhitespace(request.sha256))) {
    return Fail(error, "Update SHA-256 must be a 64-character hex string.");
  }
  return request.required_payload_files.empty() ||
         ValidateRequiredFileContract(request.required_payload_files, error);
}

}  // namespace zul

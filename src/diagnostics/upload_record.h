#pragma once

// What a manifest says about its own upload. These functions only edit the JSON; the caller writes
// it to disk after each, so that the file always says how far the upload came.
//
// An attempt is "attempting" from before the request until its result is known. An attempt that is
// still "attempting" in the queue is in progress in another process, or its process died.

#include <cstddef>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "transfer/net/http_client.h"

namespace zul {

/// A manifest keeps this many attempts; older ones are counted and dropped.
inline constexpr std::size_t kUploadAttemptsMax = 8;

/// The path of the endpoint at each origin.
inline constexpr std::string_view kReportPath = "/v1/diagnostics/report";

/// The role word of an origin: that of the first host word that it contains, else "unknown".
[[nodiscard]] std::string_view OriginRole(std::string_view origin);

/// Prepares a manifest from the queue, which anyone may have edited: sanitises its evidence, sets
/// its contract and its promises on privacy, and bounds its attempts.
void PrepareForUpload(nlohmann::json* manifest, std::string_view correlation_id);

/// Adds an attempt with the result "attempting". Its `payload_size_bytes` is the size that
/// UploadPayload then has.
void BeginAttempt(nlohmann::json* manifest, std::string_view origin,
                  std::string_view correlation_id);

/// True when the response confirms the delivery: a status of 200 to 299 and no transport error.
[[nodiscard]] bool IsDelivered(const net::HttpResponse& response);

/// Puts the result into the newest attempt and into the `last_upload_*` fields.
void EndAttempt(nlohmann::json* manifest, const net::HttpResponse& response);

/// Records that the upload was cancelled before the next origin.
void MarkCancelled(nlohmann::json* manifest);

/// Records that no origin accepted the report.
void MarkFailed(nlohmann::json* manifest);

/// The body of the request: the manifest without blanks.
[[nodiscard]] std::string UploadPayload(const nlohmann::json& manifest);

}  // namespace zul

#pragma once

// What a manifest says about its own upload: pure edits of the JSON, so that what is on disk at any
// moment tells how far the upload came. Inside the room only.
//
// An attempt is "attempting" from before it is sent until its result is known; one that is still
// so in the queue belongs to a process that is at it or died in it.

#include <cstddef>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "transfer/net/http_client.h"

namespace zul {

/// Older attempts are counted and dropped.
inline constexpr std::size_t kUploadAttemptsMax = 8;

inline constexpr std::string_view kReportPath = "/v1/diagnostics/report";

/// The word for an origin: of the first host word that stands in it, else "unknown".
[[nodiscard]] std::string_view OriginRole(std::string_view origin);

/// Makes a manifest from the queue fit to be sent, whoever has edited it meanwhile: evidence is
/// sanitised again, the contract and the privacy promises stand, attempts are bounded.
void PrepareForUpload(nlohmann::json* manifest, std::string_view correlation_id);

/// Adds an attempt under way, its `payload_size_bytes` being the size of UploadPayload then.
void BeginAttempt(nlohmann::json* manifest, std::string_view origin,
                  std::string_view correlation_id);

/// True when the response says that the report has arrived.
[[nodiscard]] bool IsDelivered(const net::HttpResponse& response);

/// Puts the result into the newest attempt and into the `last_upload_*` fields.
void EndAttempt(nlohmann::json* manifest, const net::HttpResponse& response);

/// Says that the rest of the upload was given up before the next origin.
void MarkCancelled(nlohmann::json* manifest);

/// Says that no origin took the report.
void MarkFailed(nlohmann::json* manifest);

/// The body to send: the manifest without blanks.
[[nodiscard]] std::string UploadPayload(const nlohmann::json& manifest);

}  // namespace zul

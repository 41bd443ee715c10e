#pragma once

// Downloads one package from one origin into one file, once: no fallback, no retry, no resume. The
// partial file of a failed download stays on disk; the caller owns the workspace.

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "core/path.h"
#include "ui/progress_window.h"

namespace zul {

class DownloadTransport;

enum class DownloadFailureKind : std::int32_t {
  kNone = 0,
  kTransport = 1,
  kTimeout = 2,
  kStall = 3,  ///< reserved: no download reports it, ShouldTryFallback accepts it
  kHttpStatus = 4,
  kFileIo = 5,
};

struct DownloadResult {
  bool success = false;
  DownloadFailureKind failure_kind = DownloadFailureKind::kNone;
  std::string origin_role;    ///< "primary" or "rf_fallback"
  std::string requested_url;  ///< without its query
  std::string effective_url;  ///< after redirects, without its query
  std::int32_t http_status = 0;
  std::uint32_t winhttp_error_code = 0;
  std::uint64_t bytes_downloaded = 0;
  std::uint64_t total_bytes = 0;  ///< declared length; 0 if absent
  std::uint64_t elapsed_ms = 0;
  std::uint64_t avg_throughput_bps = 0;  ///< bytes per second, despite the name
  std::string error;                     ///< the message without any code
};

inline constexpr std::uint64_t kMaxUpdatePackageBytes = 0x40000000;
inline constexpr std::uint64_t kDownloadProgressEventStep = 1048576;  ///< bytes

/// Called after each chunk and at the end: origin role, bytes so far, total, bytes per second.
using DownloadProgressCallback =
    std::function<void(std::string_view, std::uint64_t, std::uint64_t, std::uint64_t)>;
/// Returns true to cancel.
using DownloadCancelCallback = std::function<bool()>;

/// Downloads `url` (UTF-8) to `destination_path` over WinHTTP. Blocks; drives `progress_window`
/// (may be null) from its read loop. `*result` is reset first. On failure `error_text` (may be
/// null) gets the message with the platform's code. With a cancel callback the receive time-out is
/// 5 s instead of 30 s. Windows only.
[[nodiscard]] bool DownloadPackage(std::string_view url, const fs::Path& destination_path,
                                   std::string_view origin_role, DownloadResult* result,
                                   std::string* error_text, UpdateProgressWindow* progress_window,
                                   const DownloadProgressCallback& progress_callback,
                                   const DownloadCancelCallback& cancel_callback);

/// The arguments of DownloadPackage, borrowed for the length of the call.
struct DownloadJob {
  std::string_view url;
  const fs::Path& destination;
  std::string_view origin_role;
  UpdateProgressWindow* progress_window;              ///< may be null
  const DownloadProgressCallback& progress_callback;  ///< may be empty
  const DownloadCancelCallback& cancel_callback;      ///< may be empty
};

/// The outside world of a download.
struct DownloadWorld {
  DownloadTransport& transport;           ///< closed when the download returns
  std::function<std::uint64_t()> now_ms;  ///< a monotonic clock
  std::uint64_t max_bytes = kMaxUpdatePackageBytes;
};

/// As DownloadPackage, over `world`.
[[nodiscard]] bool DownloadPackageOver(const DownloadWorld& world, const DownloadJob& job,
                                       DownloadResult* result, std::string* error_text);

/// True when the mirror may succeed where this download failed: the network failed, or the server
/// answered 5xx.
[[nodiscard]] bool ShouldTryFallback(const DownloadResult& result);

/// The word for a kind in traces; "unknown" for any other value.
[[nodiscard]] std::string_view FailureKindName(DownloadFailureKind kind);

}  // namespace zul

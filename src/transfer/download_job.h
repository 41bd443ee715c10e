#pragma once

// The portable body of DownloadPackage, with the outside world passed in.

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "core/path.h"
#include "transfer/download.h"
#include "transfer/download_transport.h"

namespace zul {

/// What DownloadPackage was asked for; borrowed for the length of the call.
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
  std::function<std::uint64_t()> now_ms;  ///< a clock that never goes back
  std::uint64_t max_bytes = kMaxUpdatePackageBytes;
};

/// As DownloadPackage, over `world`.
[[nodiscard]] bool DownloadPackageOver(const DownloadWorld& world, const DownloadJob& job,
                                       DownloadResult& result, std::string* error_text);

}  // namespace zul

#pragma once

// Compares a downloaded package with the SHA-256 of the request.

#include <string>
#include <string_view>

#include "core/file_layer.h"
#include "request/update_request.h"
#include "ui/progress_window.h"

namespace zul {

/// True when the SHA-256 of the file equals `expected`: hexadecimal digits in either case, with or
/// without white space around them. On failure `error` (may be null) has the reason. On success
/// `verified` (may be null) receives the file, opened by HoldForRead before its first byte was
/// read: it stays the verified one until the caller closes it.
[[nodiscard]] bool VerifyFileSha256(const fs::Path& path, std::string_view expected,
                                    std::string* error, const fs::KeepAlive& keep_alive = {},
                                    fs::File* verified = nullptr);

/// What the checksum stage uses of the run, borrowed for the length of the call.
struct ChecksumStageContext {
  UpdateProgressWindow* progress_window;  ///< may be null
  const UpdateRequest& request;
  const fs::Path& package_path;
  std::string* stage_error;  ///< receives the reason of a failure
  fs::File* package;         ///< receives the verified package, as VerifyFileSha256's `verified`
};

/// The checksum stage: sets the window's text, writes the trace events and compares the digests.
[[nodiscard]] bool VerifyPackageChecksum(const ChecksumStageContext& context,
                                         std::string_view origin_role);

}  // namespace zul

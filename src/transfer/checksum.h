#pragma once

// The check of a downloaded package against the digest of the request.

#include <string>
#include <string_view>

#include "core/file_layer.h"
#include "request/update_request.h"
#include "ui/progress_window.h"

namespace zul {

/// True when the file's digest equals `expected`, which may have white space around it and upper
/// case.
[[nodiscard]] bool VerifyFileSha256(const fs::Path& path, std::string_view expected,
                                    std::string* error, const fs::KeepAlive& keep_alive = {});

/// What the checksum stage borrows from the run, for the length of the call.
struct ChecksumStageContext {
  UpdateProgressWindow* progress_window;  ///< may be null
  const UpdateRequest& request;
  const fs::Path& package_path;
  std::string& stage_error;
};

/// The checksum stage: window text, trace events and the check. On false `stage_error` has the
/// reason.
[[nodiscard]] bool VerifyPackageChecksum(const ChecksumStageContext& context,
                                         std::string_view origin_role);

}  // namespace zul

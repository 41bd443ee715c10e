#pragma once

// The file operations of the apply stage, which ride out short locks: virus scanners, indexers, the
// application on its way out. Each tries up to 8 times and waits 200 ms after a failure that looks
// like a lock (IsLockedOrDeniedError); any other failure ends it at once. They block for the waits.

#include <chrono>
#include <functional>
#include <string>
#include <string_view>
#include <system_error>

#include "core/file_layer.h"

namespace zul {

struct RetryPolicy {
  unsigned attempts = 8;
  std::chrono::milliseconds wait{200};                     ///< between two attempts
  std::function<void(std::chrono::milliseconds)> sleep{};  ///< empty: the thread sleeps
  fs::KeepAlive keep_alive{};  ///< for large files, and all through a sleep of the thread
};

/// Copies `source` over `target`; the copy is durable when this returns true. A failure may leave a
/// partial target: for backups only, never for an installed file. `error` may be null here and
/// below; it receives the text of FormatFileFailure, which begins with `context`.
[[nodiscard]] bool RetryCopyFile(const fs::Path& source, const fs::Path& target,
                                 std::string_view context, std::string* error,
                                 const RetryPolicy& policy = {});

/// Replaces `target`, which need not exist, with a durable copy of `source` in one step, so that it
/// is never seen half-written. After a failure the target is what it was. The copy is made beside
/// the target under a temporary name, which does not outlive the call.
[[nodiscard]] bool RetryReplaceFile(const fs::Path& source, const fs::Path& target,
                                    std::string_view context, std::string* error,
                                    const RetryPolicy& policy = {});

/// Removes `target` and confirms that it is gone. One that never existed is a success; one that is
/// still there after a removal that reported success is a failure with the generic code 16.
[[nodiscard]] bool RetryRemoveFile(const fs::Path& target, std::string_view context,
                                   std::string* error, const RetryPolicy& policy = {});

/// The one failure text of these operations. An empty `source` or `target` is left out, as is
/// `attempts` up to 1:
///   context: source='..', target='..', reason=permission_or_lock, code=32, message='..',
///   attempts=8
/// `reason` is "missing_path", "permission_or_lock" or "filesystem_error".
[[nodiscard]] std::string FormatFileFailure(std::string_view context, const fs::Path& source,
                                            const fs::Path& target, const std::error_code& code,
                                            unsigned attempts);

/// `prefix`, which ends in an opening quote, the path, and the code with its message in brackets:
///   Cannot create target directory for update: 'C:\app\x' (code=5, message='Access denied.').
[[nodiscard]] std::string FormatSystemFailure(std::string_view prefix, const fs::Path& path,
                                              const std::error_code& code);

}  // namespace zul

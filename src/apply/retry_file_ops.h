#pragma once

// File operations that outlast the short locks of virus scanners, search indexers and an
// application that is about to end. Each operation makes up to 8 attempts and blocks for 200 ms
// after a failure that looks like a lock (IsLockedOrDeniedError). Any other failure ends the
// operation at once.

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "core/file_layer.h"

namespace zul {

/// How often and how an operation waits for a lock. The product changes the last two only.
struct RetryPolicy {
  unsigned attempts = 8;
  std::chrono::milliseconds wait{200};                     ///< between two attempts
  std::function<void(std::chrono::milliseconds)> sleep{};  ///< empty: the thread sleeps
  /// Called during large copies and during the sleep of the thread; may be empty.
  fs::KeepAlive keep_alive{};
  /// Receives the temporary copies that could not be removed, because another process has them
  /// open; may be null.
  std::vector<fs::Path>* leftovers = nullptr;
};

/// Why an attempt failed; nothing when it succeeded. The code may be 0, because a system call can
/// fail without a code.
using AttemptFailure = std::optional<std::error_code>;

/// Copies `source` over `target`; the copy is durable when this returns true. A failure may leave a
/// partial target, so this is for backups and new files, never for an installed file. Here and
/// below, `error` (may be null) receives the text of FormatFileFailure, which begins with
/// `context`.
[[nodiscard]] bool RetryCopyFile(const fs::Path& source, const fs::Path& target,
                                 std::string_view context, std::string* error,
                                 const RetryPolicy& policy = {});

/// The copy beside a target that a replacement begins with, made before the replacement is called.
struct EarlyCopy {
  fs::Path path;           ///< its temporary name
  AttemptFailure failure;  ///< why there is none
};

/// Makes the copy of a later replacement, perhaps on another thread. The target does not change.
[[nodiscard]] EarlyCopy CopyEarly(const fs::Path& source, const fs::Path& target,
                                  const RetryPolicy& policy);

/// Removes a copy whose replacement will not be called.
void DropEarlyCopy(const EarlyCopy& copy, const RetryPolicy& policy);

/// Replaces `target`, which need not exist, with a durable copy of `source` in one step, so that no
/// process sees a partial file. After a failure the target is unchanged. The copy is made beside
/// the target under a temporary name; a failed call removes it again where the system allows that.
/// `early_copy` may be null; otherwise it is the copy of the first attempt, and so is its failure.
[[nodiscard]] bool RetryReplaceFile(const fs::Path& source, const fs::Path& target,
                                    std::string_view context, std::string* error,
                                    const RetryPolicy& policy = {},
                                    const EarlyCopy* early_copy = nullptr);

/// As RetryReplaceFile, for a target that does not exist. A target that exists nevertheless is a
/// failure, and it does not change.
[[nodiscard]] bool RetryPlaceNewFile(const fs::Path& source, const fs::Path& target,
                                     std::string_view context, std::string* error,
                                     const RetryPolicy& policy = {},
                                     const EarlyCopy* early_copy = nullptr);

/// One attempt of RetryReplaceFile.
[[nodiscard]] AttemptFailure ReplaceFileOnce(const fs::Path& source, const fs::Path& target,
                                             const RetryPolicy& policy);

/// The wait between two attempts.
void WaitBeforeRetry(const RetryPolicy& policy);

/// Removes `target` and checks that it is gone. A target that does not exist is a success. A target
/// that still exists after a removal that reported success is a failure with the generic code 16.
[[nodiscard]] bool RetryRemoveFile(const fs::Path& target, std::string_view context,
                                   std::string* error, const RetryPolicy& policy = {});

/// The failure text of these operations:
///   context: source='..', target='..', reason=permission_or_lock, code=32, message='..',
///   attempts=8
/// `reason` is "missing_path", "permission_or_lock" or "filesystem_error". An empty path, an empty
/// message and an `attempts` up to 1 are left out.
[[nodiscard]] std::string FormatFileFailure(std::string_view context, const fs::Path& source,
                                            const fs::Path& target, const std::error_code& code,
                                            unsigned attempts);

/// `prefix`, which ends with an opening quote, then the path, and the code and its text in
/// brackets:
///   Cannot create target directory for update: 'C:\app\x' (code=5, message='Access denied.').
[[nodiscard]] std::string FormatSystemFailure(std::string_view prefix, const fs::Path& path,
                                              const std::error_code& code);

}  // namespace zul

#include "apply/retry_file_ops.h"

#include <utility>

#include "core/failure.h"
#include "core/process_environment.h"
#include "core/system_error.h"
#include "core/text.h"

namespace zul {

namespace {

constexpr unsigned kTemporaryNames = 32;

struct Operation {
  std::string_view verb;
  std::string_view context;
  const fs::Path& source;
  const fs::Path& target;
};

/// Calls `attempt` with its number, from 1, until it succeeds, fails for another reason than a
/// lock, or the policy's attempts are used up.
template <typename Attempt>
bool RetryWhileLocked(const Operation& operation, const RetryPolicy& policy, std::string* error,
                      Attempt&& attempt) {
  for (unsigned number = 1; number <= policy.attempts; ++number) {
    const AttemptFailure failure = attempt(number);
    if (!failure) return true;
    if (!IsLockedOrDeniedError(*failure) || number == policy.attempts) {
      return Fail(error, FormatFileFailure(operation.context, operation.source, operation.target,
                                           *failure, number));
    }
    WaitBeforeRetry(policy);
  }
  return Fail(error, std::string(operation.context) + ": unexpected " +
                         std::string(operation.verb) + " retry failure.");
}

/// Removes an existing target first, for example the remainder of a failed attempt.
AttemptFailure CopyOnce(const fs::Path& source, const fs::Path& target,
                        const fs::KeepAlive& keep_alive) {
  std::error_code ec;
  if (fs::CopyFileDurably(source, target, ec, keep_alive)) return std::nullopt;
  if (!IsExistsError(ec)) return ec;

  std::error_code kind_error;
  if (fs::KindOf(target, fs::Links::kDoNotFollow, kind_error) == fs::EntryKind::kDirectory) {
    return ec;
  }
  fs::Remove(target, ec);
  if (ec) return ec;
  if (fs::CopyFileDurably(source, target, ec, keep_alive)) return std::nullopt;
  return ec;
}

void RemoveTemporary(const fs::Path& copy, const RetryPolicy& policy) {
  std::error_code ec;
  fs::Remove(copy, ec);
  if (ec && policy.leftovers != nullptr) policy.leftovers->push_back(copy);
}

/// Copies `source` to a free name beside `target`. A failed copy is removed. Two updaters use
/// different names because the name holds the process id; two attempts use different names because
/// it holds the attempt number.
EarlyCopy CopyBeside(const fs::Path& source, const fs::Path& target, unsigned attempt,
                     const RetryPolicy& policy) {
  const std::string stem =
      ".zul_update_tmp_" + std::to_string(CurrentProcessId()) + "_" + std::to_string(attempt) + "_";
  for (unsigned suffix = 0; suffix < kTemporaryNames; ++suffix) {
    fs::Path candidate = target;
    candidate += stem + std::to_string(suffix);
    std::error_code ec;
    try {
      // The exclusive creation fails for a name that is taken. A query beforehand would cost time
      // for every file, although the first name is nearly always free.
      if (fs::CopyFileDurably(source, candidate, ec, policy.keep_alive)) {
        return {std::move(candidate), std::nullopt};
      }
    } catch (...) {
      RemoveTemporary(candidate, policy);
      throw;
    }
    if (IsExistsError(ec)) continue;
    std::error_code ignored;
    if (fs::KindOf(candidate, fs::Links::kDoNotFollow, ignored) == fs::EntryKind::kUnknown) {
      continue;
    }
    RemoveTemporary(candidate, policy);
    return {{}, ec};
  }
  return {{}, std::make_error_code(std::errc::file_exists)};
}

/// MoveReplacing or MoveToNewName.
using Move = bool(const fs::Path& from, const fs::Path& to, std::error_code& ec);

/// The copy is on the device before the move makes it the target, so a power failure leaves the old
/// file or the new one.
AttemptFailure MoveCopy(const EarlyCopy& copy, const fs::Path& target, Move* move,
                        const RetryPolicy& policy) {
  if (copy.failure) return copy.failure;
  try {
    std::error_code ec;
    if (move(copy.path, target, ec)) return std::nullopt;
    RemoveTemporary(copy.path, policy);
    return ec;
  } catch (...) {
    RemoveTemporary(copy.path, policy);
    throw;
  }
}

bool RetryCopyAndMove(const Operation& operation, Move* move, const EarlyCopy* early_copy,
                      const RetryPolicy& policy, std::string* error) {
  return RetryWhileLocked(operation, policy, error, [&](unsigned attempt) {
    const bool has_copy = attempt == 1 && early_copy != nullptr;
    return MoveCopy(
        has_copy ? *early_copy : CopyBeside(operation.source, operation.target, attempt, policy),
        operation.target, move, policy);
  });
}

AttemptFailure RemoveOnce(const fs::Path& target) {
  std::error_code ec;
  fs::Remove(target, ec);
  if (ec) return ec;
  switch (fs::KindOf(target, fs::Links::kDoNotFollow, ec)) {
    case fs::EntryKind::kNotFound:
      return std::nullopt;
    case fs::EntryKind::kUnknown:
      return ec ? AttemptFailure(ec) : std::nullopt;
    default:
      return std::make_error_code(std::errc::device_or_resource_busy);
  }
}

std::string_view FailureReason(const std::error_code& code) {
  if (code.category() != std::system_category()) return "filesystem_error";
  if (IsNotFoundError(code)) return "missing_path";
  if (IsLockedOrDeniedError(code)) return "permission_or_lock";
  return "filesystem_error";
}

}  // namespace

bool RetryCopyFile(const fs::Path& source, const fs::Path& target, std::string_view context,
                   std::string* error, const RetryPolicy& policy) {
  return RetryWhileLocked({"copy", context, source, target}, policy, error,
                          [&](unsigned) { return CopyOnce(source, target, policy.keep_alive); });
}

EarlyCopy CopyEarly(const fs::Path& source, const fs::Path& target, const RetryPolicy& policy) {
  return CopyBeside(source, target, 1, policy);
}

void DropEarlyCopy(const EarlyCopy& copy, const RetryPolicy& policy) {
  if (!copy.failure) RemoveTemporary(copy.path, policy);
}

bool RetryReplaceFile(const fs::Path& source, const fs::Path& target, std::string_view context,
                      std::string* error, const RetryPolicy& policy, const EarlyCopy* early_copy) {
  return RetryCopyAndMove({"replace", context, source, target}, fs::MoveReplacing, early_copy,
                          policy, error);
}

bool RetryPlaceNewFile(const fs::Path& source, const fs::Path& target, std::string_view context,
                       std::string* error, const RetryPolicy& policy, const EarlyCopy* early_copy) {
  return RetryCopyAndMove({"replace", context, source, target}, fs::MoveToNewName, early_copy,
                          policy, error);
}

AttemptFailure ReplaceFileOnce(const fs::Path& source, const fs::Path& target,
                               const RetryPolicy& policy) {
  return MoveCopy(CopyBeside(source, target, 1, policy), target, fs::MoveReplacing, policy);
}

void WaitBeforeRetry(const RetryPolicy& policy) {
  if (policy.sleep) return policy.sleep(policy.wait);
  SleepKeepingAlive(policy.wait, policy.keep_alive);
}

bool RetryRemoveFile(const fs::Path& target, std::string_view context, std::string* error,
                     const RetryPolicy& policy) {
  return RetryWhileLocked({"remove", context, {}, target}, policy, error,
                          [&](unsigned) { return RemoveOnce(target); });
}

std::string FormatFileFailure(std::string_view context, const fs::Path& source,
                              const fs::Path& target, const std::error_code& code,
                              unsigned attempts) {
  std::string text(context);
  text += ": ";
  if (!source.empty()) text += "source='" + PathToUtf8(source) + "', ";
  if (!target.empty()) text += "target='" + PathToUtf8(target) + "', ";
  text += "reason=";
  text += FailureReason(code);
  text += ", code=" + std::to_string(code.value());
  const std::string message = SystemErrorText(code);
  if (!message.empty()) text += ", message='" + message + "'";
  if (attempts > 1) text += ", attempts=" + std::to_string(attempts);
  return text;
}

std::string FormatSystemFailure(std::string_view prefix, const fs::Path& path,
                                const std::error_code& code) {
  return std::string(prefix) + PathToUtf8(path) + "' (" + DescribeSystemError(code) + ").";
}

}  // namespace zul

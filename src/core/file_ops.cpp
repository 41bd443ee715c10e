#include "core/file_ops.h"

#include <atomic>
#include <exception>
#include <new>
#include <utility>

#include "core/failure.h"
#include "core/file_layer.h"
#include "core/logger.h"
#include "core/process_environment.h"
#include "core/system_error.h"
#include "core/text.h"

namespace zul {

namespace {

constexpr int kTempNameAttempts = 128;
constexpr std::string_view kPublishOperation = "atomic publish-if-absent";

constexpr std::string_view kNoState = "exclusive file state is unavailable";
constexpr std::string_view kNotOpen = "exclusive file is not open";

/// A new file beside the target. The destructor closes it and, unless it became the target, removes
/// it.
struct UniqueTempFile {
  UniqueTempFile() = default;
  ~UniqueTempFile() {
    std::error_code ignored;
    static_cast<void>(file.Close(ignored));
    if (!name.empty()) fs::Remove(name, ignored);
  }
  UniqueTempFile(const UniqueTempFile&) = delete;
  UniqueTempFile& operator=(const UniqueTempFile&) = delete;

  fs::Path name;  ///< empty while there is nothing to remove
  fs::File file;
};

/// A text that no other temporary name of this or another running process contains.
std::string UniqueToken() {
  static std::atomic<std::uint64_t> counter{0};
  return std::to_string(CurrentProcessId()) + "." + std::to_string(TickCountMs()) + "." +
         std::to_string(PerformanceCounter()) + "." + std::to_string(++counter);
}

FileOpResult Success(const fs::Path& target) {
  return {true, kFileOpOk, 0, {}, target, {}};
}

FileOpResult Failure(FileOpStatus status, const std::error_code& ec, std::string_view what,
                     const fs::Path& target, const fs::Path& temporary = {}) {
  return {false,
          status,
          static_cast<std::uint32_t>(ec.value()),
          std::string(what) + SystemErrorText(ec),
          target,
          temporary};
}

/// The status for a failed step of a publish.
FileOpStatus StatusOf(const std::error_code& ec, FileOpStatus default_status) {
  switch (MeaningOf(ec)) {
    case ErrorMeaning::kPathNotFound:
    case ErrorMeaning::kInvalidName:
      return kFileOpBadPath;
    case ErrorMeaning::kAccessDenied:
      return kFileOpPermissionDenied;
    case ErrorMeaning::kInUse:
      return kFileOpSharingViolation;
    case ErrorMeaning::kDiskFull:
      return kFileOpDiskFull;
    default:
      return default_status;
  }
}

/// The status for a parent folder that could not be created, by the generic condition of the code.
FileOpStatus ParentStatus(const std::error_code& ec) {
  if (ec == std::errc::permission_denied) return kFileOpPermissionDenied;
  if (ec == std::errc::no_space_on_device) return kFileOpDiskFull;
  if (ec == std::errc::device_or_resource_busy) return kFileOpSharingViolation;
  return kFileOpParentNotCreated;
}

FileOpResult CreateTempFile(const fs::Path& target, UniqueTempFile* temp) {
  std::error_code ec;
  for (int attempt = 0; attempt < kTempNameAttempts; ++attempt) {
    fs::Path name = target;
    name += ".tmp." + UniqueToken() + "." + std::to_string(attempt);
    temp->file = fs::CreateNewFile(name, fs::NewFileAccess::kWrite, ec);
    if (!ec) {
      temp->name = std::move(name);
      return Success(target);
    }
    if (!IsExistsError(ec)) break;
  }
  return Failure(StatusOf(ec, kFileOpTempNotCreated), ec,
                 "Cannot create unique temp file for atomic write: ", target);
}

FileOpResult WriteAndCommit(UniqueTempFile& temp, std::string_view contents,
                            const fs::Path& target) {
  std::error_code ec;
  if (!fs::WriteAll(temp.file, contents.data(), contents.size(), ec)) {
    if (!ec) {
      return {false,  kFileOpWriteFailed, 0, "Short write to temp file for atomic write.",
              target, temp.name};
    }
    return Failure(StatusOf(ec, kFileOpWriteFailed), ec,
                   "Cannot write temp file for atomic write: ", target, temp.name);
  }
  if (!temp.file.Flush(ec)) {
    return Failure(StatusOf(ec, kFileOpFlushFailed), ec,
                   "Cannot commit temp file for atomic write: ", target, temp.name);
  }
  if (!temp.file.Close(ec)) {
    return Failure(StatusOf(ec, kFileOpCloseFailed), ec,
                   "Cannot close temp file for atomic write: ", target, temp.name);
  }
  return Success(target);
}

/// Ignores failures: the file is already published.
void FlushParent(const fs::Path& target) {
  try {
    std::error_code ignored;
    fs::FlushDirectory(target.parent_path(), ignored);
  } catch (...) {
    GetLogger().Log(LogCategory::kDiagnostics, LogLevel::kDebug,
                    "FileOps parent directory flush skipped");
  }
}

FileOpResult Publish(const fs::Path& target, std::string_view contents,
                     const AtomicPublishOptions& options) {
  std::error_code ec;
  const fs::Path parent = target.parent_path();
  if (options.create_parent && !parent.empty() && !fs::CreateDirectories(parent, ec)) {
    return Failure(ParentStatus(ec), ec, "Cannot create parent directory: ", target);
  }
  UniqueTempFile temp;
  FileOpResult step = CreateTempFile(target, &temp);
  if (step.ok) step = WriteAndCommit(temp, contents, target);
  if (!step.ok) return step;
  if (!fs::MoveToNewName(temp.name, target, ec)) {
    const FileOpStatus status =
        IsExistsError(ec) ? kFileOpTargetExists : StatusOf(ec, kFileOpMoveFailed);
    return Failure(status, ec, "Cannot atomically publish new file: ", target, temp.name);
  }
  temp.name.clear();  // the file is the target now
  if (options.flush_parent) FlushParent(target);
  return step;
}

void LogException(std::string_view text) {
  GetLogger().Log(LogCategory::kDiagnostics, LogLevel::kWarn, "FileOps ", kPublishOperation,
                  " failed: ", text);
}

}  // namespace

FileOpResult::FileOpResult(bool succeeded, FileOpStatus status_code, std::uint32_t error_number,
                           std::string text, const fs::Path& target, const fs::Path& temporary)
    : ok(succeeded), path(PathToUtf8(target)) {
  if (!temporary.empty()) temp_path = PathToUtf8(temporary);
  if (ok) return;
  status = status_code;
  system_error = error_number;
  message = std::move(text);
}

FileOpResult PublishNewFile(const fs::Path& target, std::string_view contents,
                            const AtomicPublishOptions& options) {
  try {
    return Publish(target, contents, options);
  } catch (const std::exception& exception) {
    LogException(exception.what());
    return {false, kFileOpException, 0, exception.what(), target, {}};
  } catch (...) {
    LogException("non-standard exception");
    return {false, kFileOpUnknownException, 0, "Unknown atomic publish-if-absent error.", target,
            {}};
  }
}

// ---------------------------------------------------------------------------------------------
// ExclusiveFile

struct ExclusiveFile::State {
  State() = default;
  ~State() {
    std::error_code ignored;
    static_cast<void>(file.Close(ignored));
    if (created && !target.empty()) fs::Remove(target, ignored);
  }
  State(const State&) = delete;
  State& operator=(const State&) = delete;

  fs::Path target;  ///< empty when the given path is not valid UTF-8
  fs::File file;
  bool attempted = false;
  bool created = false;  ///< this object created the file and has not released it
};

ExclusiveFile::ExclusiveFile(std::string_view utf8_path) {
  try {
    auto state = std::make_unique<State>();
    state->target = PathOrEmpty(utf8_path);
    state_ = std::move(state);
  } catch (const std::bad_alloc&) {
    // Each operation reports that there is no state.
  }
}

ExclusiveFile::~ExclusiveFile() = default;
ExclusiveFile::ExclusiveFile(ExclusiveFile&&) noexcept = default;
ExclusiveFile& ExclusiveFile::operator=(ExclusiveFile&&) noexcept = default;

int ExclusiveFile::create(std::string* error, const fs::File* folder) {
  constexpr int kCreated = 0;
  constexpr int kExists = 1;
  constexpr int kFailed = 2;
  if (error != nullptr) error->clear();
  if (!state_) {
    Fail(error, kNoState);
    return kFailed;
  }
  if (std::exchange(state_->attempted, true)) {
    Fail(error, "exclusive file creation was already attempted");
    return kFailed;
  }
  std::error_code ec;
  constexpr auto kAccess = fs::NewFileAccess::kReadWrite;
  state_->file = folder == nullptr
                     ? fs::CreateNewFile(state_->target, kAccess, ec)
                     : fs::CreateNewFileIn(*folder, state_->target.filename(), kAccess, ec);
  if (!ec) {
    state_->created = true;
    return kCreated;
  }
  if (IsExistsError(ec)) return kExists;
  Fail(error, SystemErrorText(ec));
  return kFailed;
}

bool ExclusiveFile::write(const void* data, std::size_t size, std::string* error) {
  if (error != nullptr) error->clear();
  if (!state_) return Fail(error, kNoState);
  if (size > 0 && data == nullptr) return Fail(error, "exclusive file write buffer is null");
  if (!state_->file.is_open()) return Fail(error, kNotOpen);
  std::error_code ec;
  if (fs::WriteAll(state_->file, data, size, ec)) return true;
  return Fail(error, ec ? SystemErrorText(ec) : "exclusive file write made no progress");
}

bool ExclusiveFile::flush(std::string* error) {
  if (error != nullptr) error->clear();
  if (!state_) return Fail(error, kNoState);
  if (!state_->file.is_open()) return Fail(error, kNotOpen);
  std::error_code ec;
  return state_->file.Flush(ec) || Fail(error, SystemErrorText(ec));
}

bool ExclusiveFile::close(std::string* error) {
  if (error != nullptr) error->clear();
  std::error_code ec;
  return !state_ || state_->file.Close(ec) || Fail(error, SystemErrorText(ec));
}

void ExclusiveFile::release() {
  if (state_) state_->created = false;
}

}  // namespace zul

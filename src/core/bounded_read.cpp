#include "core/bounded_read.h"

#include <array>
#include <exception>
#include <system_error>

#include "core/file_layer.h"
#include "core/logger.h"
#include "core/system_error.h"
#include "core/text.h"

namespace zul {

namespace {

constexpr std::size_t kGrowthBufferBytes = 65536;

BoundedReadResult Failed(std::string_view what, std::string_view path) {
  return {kBoundedReadFailed, std::string(what).append(path)};
}

BoundedReadResult Failed(std::string_view what, std::string_view path, const std::error_code& ec) {
  return Failed(what, std::string(path) + ": " + SystemErrorText(ec));
}

/// `actual_bytes` is 0 when the size is unknown.
BoundedReadResult TooLarge(std::string_view path, std::uint64_t actual_bytes,
                           std::uint64_t cap_bytes) {
  std::string message = "File exceeds size cap (";
  if (actual_bytes != 0) message += std::to_string(actual_bytes) + " bytes ";
  message += "> " + std::to_string(cap_bytes) + " bytes): ";
  return {kBoundedReadTooLarge, message.append(path)};
}

/// Classifies a file that the open reported as not found. Goes up to the nearest existing ancestor:
/// the file is absent only when that is a folder.
BoundedReadResult ClassifyNotFound(std::string_view path, const fs::Path& full) {
  fs::Path current = full;
  fs::PathProbe probe = fs::ProbePath(current);
  while (probe.kind != fs::PathProbe::kExists) {
    if (probe.kind == fs::PathProbe::kUnresolvedReparsePoint) {
      return Failed("Path contains an unresolved reparse point: ", path);
    }
    if (probe.kind == fs::PathProbe::kInspectionFailed) {
      return Failed("Cannot inspect file path: ", path, probe.system_error);
    }
    fs::Path parent = current.parent_path();
    if (parent == current) return Failed("Cannot resolve file path root: ", path);
    if (parent.empty()) {
      if (fs::ProbePath(".").kind == fs::PathProbe::kExists) return {kBoundedReadAbsent, {}};
      return Failed("Cannot resolve current directory for file path: ", path);
    }
    current = std::move(parent);
    probe = fs::ProbePath(current);
  }
  if (current == full) return Failed("File entry appeared while opening: ", path);
  if (!probe.is_directory) {
    return Failed("Path component is not a directory: ", PathToUtf8(current));
  }
  return {kBoundedReadAbsent, {}};
}

/// Fills `*output` from the file. When the file ends earlier, cuts `*output` to what was read and
/// sets `*ended`.
bool ReadReported(fs::File& file, std::string* output, bool* ended, std::error_code& ec) {
  std::size_t total = 0;
  while (total < output->size()) {
    std::size_t read = 0;
    if (!file.Read(output->data() + total, output->size() - total, &read, ec)) return false;
    if (read == 0) {
      output->resize(total);
      *ended = true;
      return true;
    }
    total += read;
  }
  return true;
}

/// Reads an open file. After a failure the content of `*output` is undefined.
BoundedReadResult ReadOpened(std::string_view path, fs::File& file, std::uint64_t cap_bytes,
                             std::string* output) {
  std::error_code ec;
  fs::FileFacts facts;
  if (!file.Facts(&facts, ec)) return Failed("Cannot inspect opened file: ", path, ec);
  if (!facts.is_disk_file) return Failed("Path is not a regular disk file: ", path);
  if (facts.is_directory) return Failed("Path is not a regular file: ", path);
  std::uint64_t size = 0;
  if (!file.Size(&size, ec)) return Failed("Cannot determine opened file size: ", path, ec);
  const bool capped = cap_bytes != 0;
  if (capped && size > cap_bytes) return TooLarge(path, size, cap_bytes);

  output->resize(static_cast<std::size_t>(size));
  bool ended = false;
  if (!ReadReported(file, output, &ended, ec)) {
    return Failed("Cannot read file contents: ", path, ec);
  }
  // The file may have grown since its size was taken.
  std::array<char, kGrowthBufferBytes> buffer;
  while (!ended) {
    std::size_t read = 0;
    if (!file.Read(buffer.data(), buffer.size(), &read, ec)) {
      return Failed("Cannot read file contents: ", path, ec);
    }
    if (capped && read > cap_bytes - output->size()) return TooLarge(path, 0, cap_bytes);
    output->append(buffer.data(), read);
    ended = read == 0;
  }
  return {kBoundedReadOk, {}};
}

BoundedReadResult Read(std::string_view path, std::uint64_t cap_bytes, std::string* output) {
  const std::optional<fs::Path> full = PathFromUtf8(path);
  if (!full) return Failed("Cannot open file: ", "the path is not valid UTF-8");
  std::error_code ec;
  fs::File file = fs::OpenForRead(*full, ec);
  if (!ec) return ReadOpened(path, file, cap_bytes, output);
  return IsNotFoundError(ec) ? ClassifyNotFound(path, *full)
                             : Failed("Cannot open file: ", path, ec);
}

BoundedReadResult FailedByException(std::string_view logged, std::string_view message) {
  GetLogger().Log(LogCategory::kDiagnostics, LogLevel::kWarn, "JsonFileIo ", "bounded file read",
                  " failed: ", logged);
  return {kBoundedReadFailed, std::string(message)};
}

}  // namespace

BoundedReadResult ReadBounded(std::string_view path, std::uint64_t cap_bytes, std::string* output) {
  output->clear();
  BoundedReadResult result;
  try {
    result = Read(path, cap_bytes, output);
  } catch (const std::exception& exception) {
    result = FailedByException(exception.what(), exception.what());
  } catch (...) {
    result = FailedByException("non-standard exception", "Unknown bounded file read error.");
  }
  if (result.status != kBoundedReadOk) output->clear();
  return result;
}

}  // namespace zul

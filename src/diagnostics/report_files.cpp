#include "diagnostics/report_files.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <utility>

#include "core/file_ops.h"
#include "core/system_error.h"
#include "core/text.h"
#include "diagnostics/diagnostics_log.h"
#include "diagnostics/field_text.h"
#include "diagnostics/json_file.h"

namespace zul {

namespace {

using nlohmann::json;

constexpr std::size_t kReportTextBytesMax = 131072;
// Two processes may choose the same name in the same second.
constexpr int kNameAttempts = 1000;

std::string NewManifestName(const json& manifest) {
  static std::atomic<std::uint64_t> counter{0};
  return "qorva_" + SanitizeIdentifier(TextIn(manifest, "kind")) + "_" + LocalTimeForNames() + "_" +
         std::to_string(++counter) + ".json";
}

void LogReadFailure(const std::error_code& ec) {
  LogDiagnosticsFailure("read text prefix", SystemErrorText(ec));
}

/// Opens a text for reading. A failure other than a missing file is logged.
fs::File OpenText(const fs::Path& path) {
  std::error_code ec;
  if (path.empty()) return {};
  fs::File file = fs::OpenForRead(path, ec);
  if (ec && !IsNotFoundError(ec)) LogReadFailure(ec);
  return file;
}

/// At most `size` bytes of an open file; none of a file that is not open. What was read before a
/// failure counts, and the failure is logged.
std::string ReadFrom(fs::File* file, std::uint64_t offset_bytes, std::size_t size) {
  std::string text(file->is_open() ? size : 0, '\0');
  std::size_t read = 0;
  std::error_code ec;
  if (!fs::ReadUpTo(*file, offset_bytes, text.data(), text.size(), &read, ec)) LogReadFailure(ec);
  text.resize(read);
  return text;
}

/// The position after the first line end; the size of a text without one.
std::size_t EndOfLine(std::string_view text) {
  return std::min(text.find('\n'), text.size() - 1) + 1;
}

}  // namespace

json ArtifactMetadata(const fs::Path& path) {
  if (path.empty()) return {{"present", false}};
  std::error_code ec;
  const fs::EntryKind kind = fs::KindOf(path, fs::Links::kFollow, ec);
  const bool present = kind == fs::EntryKind::kRegular;
  std::uint64_t size_bytes = 0;
  if (present) size_bytes = fs::SizeOf(path, ec);
  if (ec) LogDiagnosticsFailure("path artifact metadata", SystemErrorText(ec));
  return {{"present", present},
          {"extension", PathToUtf8(path.extension())},
          {"size_bytes", ec ? 0 : size_bytes}};
}

std::string ReadReportText(const fs::Path& path) {
  fs::File file = OpenText(path);
  std::string text = ReadFrom(&file, 0, kReportTextBytesMax);
  // Half a line is half an event, and half a secret may match no rule of the redaction.
  const std::size_t last_end = text.rfind('\n');
  if (text.size() == kReportTextBytesMax && last_end != std::string::npos) {
    text.resize(last_end + 1);
  }
  return text;
}

std::string ReadTraceText(const fs::Path& trace, std::string_view run_id) {
  fs::File file = OpenText(trace);
  std::error_code ec;
  std::uint64_t size_bytes = 0;
  if (file.is_open() && !file.Size(&size_bytes, ec)) LogReadFailure(ec);
  // One byte more than the text may have: it shows whether the text begins with a whole line.
  const bool cut = size_bytes > kReportTextBytesMax;
  const std::uint64_t start = cut ? size_bytes - kReportTextBytesMax - 1 : 0;
  std::string text = ReadFrom(&file, start, static_cast<std::size_t>(size_bytes - start));
  if (cut) text.erase(0, EndOfLine(text));
  text.resize(text.rfind('\n') + 1);  // an event that is being written has no end yet
  const std::size_t run = text.find(run_id);
  if (run != std::string::npos) text.erase(0, text.rfind('\n', run) + 1);
  return text;
}

bool WriteReportText(const fs::Path& path, std::string_view text, std::string_view label) {
  std::error_code ec;
  fs::File file = fs::CreateNewFileItself(path, ec);
  if (!file.is_open()) {
    LogDiagnosticsFailure(std::string(label) + " open", "stream open failed");
    return false;
  }
  if (fs::WriteAll(file, text.data(), text.size(), ec) && file.Close(ec)) return true;
  LogDiagnosticsFailure(std::string(label) + " write", "stream write failed");
  fs::Remove(path, ec);
  return false;
}

fs::Path PendingReportsDirectory(const fs::Path& crash_directory) {
  return crash_directory / "pending_reports";
}

bool WriteManifestFile(const fs::Path& crash_directory, const json& manifest,
                       std::string* file_name) {
  const fs::Path queue = PendingReportsDirectory(crash_directory);
  std::error_code ec;
  if (crash_directory.empty() || !fs::CreateDirectories(queue, ec)) {
    LogDiagnosticsFailure("manifest queue directory create",
                          crash_directory.empty() ? "no crash folder" : SystemErrorText(ec));
    return false;
  }
  const std::string text = manifest.dump(2, ' ', false, json::error_handler_t::replace);
  FileOpResult written;
  for (int attempt = 0; attempt < kNameAttempts; ++attempt) {
    std::string name = NewManifestName(manifest);
    written = PublishNewFile(queue / name, text, {});
    if (written.ok && file_name != nullptr) *file_name = std::move(name);
    if (written.status != kFileOpTargetExists) break;
  }
  if (written.ok) return true;
  const bool opened = written.status != kFileOpTempNotCreated &&
                      written.status != kFileOpPermissionDenied &&
                      written.status != kFileOpParentNotCreated;
  if (opened) {
    LogDiagnosticsFailure("manifest file write", "stream write failed");
  } else {
    LogDiagnosticsFailure("manifest file open", "stream open failed");
  }
  return false;
}

void LogReportQueued(std::string_view file_name) {
  LogDiagnostics(LogLevel::kInfo, "Diagnostics report queued: ", file_name);
}

std::vector<fs::Path> ListReports(const fs::Path& queue) {
  std::error_code ignored;
  return ListJsonFiles(queue, ignored);
}

bool IsQueued(const fs::Path& report) {
  std::error_code ec;
  return fs::KindOf(report, fs::Links::kDoNotFollow, ec) == fs::EntryKind::kRegular;
}

}  // namespace zul

#include "diagnostics/report_files.h"

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
  if (path.empty()) return {};
  std::string text;
  std::error_code ec;
  fs::File file = fs::OpenForRead(path, ec);
  if (ec) {
    if (!IsNotFoundError(ec)) LogDiagnosticsFailure("read text prefix", SystemErrorText(ec));
    return {};
  }
  text.resize(kReportTextBytesMax);
  std::size_t filled = 0;
  std::size_t read = 1;
  while (filled < text.size() && read > 0) {
    if (!file.Read(text.data() + filled, text.size() - filled, &read, ec)) {
      LogDiagnosticsFailure("read text prefix", SystemErrorText(ec));
      break;
    }
    filled += read;
  }
  text.resize(filled);
  // Half a line is half an event, and half a secret may match no rule of the redaction.
  const std::size_t last_end = text.rfind('\n');
  if (filled == kReportTextBytesMax && last_end != std::string::npos) text.resize(last_end + 1);
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

std::vector<fs::Path> ListReports(const fs::Path& queue) {
  std::error_code ignored;
  return ListJsonFiles(queue, ignored);
}

bool IsQueued(const fs::Path& report) {
  std::error_code ec;
  return fs::KindOf(report, fs::Links::kDoNotFollow, ec) == fs::EntryKind::kRegular;
}

}  // namespace zul

#include "inspect/package_inspection.h"

#include <algorithm>
#include <future>

#include "core/deployment.h"
#include "core/failure.h"
#include "core/file_hash.h"
#include "core/process_environment.h"
#include "core/text.h"
#include "inspect/binary_identity.h"
#include "package/extract.h"
#include "package/layout.h"
#include "request/update_request.h"
#include "transfer/download.h"

namespace zul {

namespace {

/// A new folder in the temporary folder, removed at the end.
class WorkFolder {
 public:
  WorkFolder() = default;
  ~WorkFolder() {
    std::error_code ignored;
    if (!path_.empty()) fs::RemoveTree(path_, ignored);
  }
  WorkFolder(const WorkFolder&) = delete;
  WorkFolder& operator=(const WorkFolder&) = delete;

  [[nodiscard]] bool Create(std::string* error) {
    if (TempDirectory().empty()) return Fail(error, "the system names no temporary folder");
    const fs::Path path = TempDirectory() / ("qorva_inspect_" + std::to_string(CurrentProcessId()) +
                                             "_" + std::to_string(PerformanceCounter()));
    std::error_code ec;
    if (fs::CreateDirectoryOnce(path, ec) != fs::CreateResult::kCreated) {
      return Fail(error, "cannot create the temporary folder '" + PathToUtf8(path) + "': ", ec);
    }
    path_ = path;
    return true;
  }

  [[nodiscard]] fs::Path stage() const { return path_ / "stage"; }

 private:
  fs::Path path_;
};

void Refuse(std::string message, std::optional<ZipRefusedEntry> entry,
            PackageInspection* inspection) {
  const PackageAdvice* const row = FindPackageAdvice(message);
  std::string advice(row != nullptr ? row->advice : "");
  if (inspection->size_bytes == 0) advice = "The file is empty: make it or copy it again.";
  inspection->refusal = {std::move(message), std::move(advice), std::move(entry),
                         row != nullptr ? row->remedy : Remedy::kPublisher};
}

/// Sets the size of the file. False when it is not a file that can be read.
bool MeasureFile(const fs::Path& path, PackageInspection* inspection, std::string* error) {
  std::error_code ec;
  switch (fs::KindOf(path, fs::Links::kFollow, ec)) {
    case fs::EntryKind::kNotFound:
      return Fail(error, "there is no file '" + inspection->path + "'");
    case fs::EntryKind::kDirectory:
      return Fail(error, "'" + inspection->path + "' is a folder; make a ZIP of it first");
    default:
      break;
  }
  const fs::File file = fs::OpenForRead(path, ec);
  if (file.is_open() && file.Size(&inspection->size_bytes, ec)) return true;
  return Fail(error, "cannot read '" + inspection->path + "': ", ec);
}

/// Unpacks the archive as the updater does and stores what the scan found.
bool Unpack(const fs::Path& archive, const fs::Path& stage, PackageInspection* inspection,
            ZipScanResult* scan) {
  std::string message;
  if (!ExtractPackageToInspect(archive, stage, scan, &message)) {
    Refuse(std::move(message), std::move(scan->refused), inspection);
    return false;
  }
  inspection->unpacked = true;
  inspection->archive_entries = scan->central_entry_count;
  inspection->archive_files = scan->entries.size();
  inspection->unpacked_bytes = scan->total_uncompressed_bytes;
  inspection->skipped_paths = std::move(scan->skipped_paths);
  if (auto collision = FindWindowsCollision(scan->entries)) {
    Refuse(std::move(collision->message), std::move(collision->entry), inspection);
  }
  return true;
}

/// The single top-level folder of an archive whose files are all in it; empty for any other.
std::string OnlyFolder(const std::vector<ZipEntryRecord>& entries) {
  if (entries.empty()) return {};
  const std::string& first = entries.front().path;
  const std::size_t slash = first.find('/');
  const std::string_view folder = std::string_view(first).substr(0, slash + 1);
  const auto is_inside = [folder](const ZipEntryRecord& entry) {
    return entry.path.starts_with(folder);
  };
  if (slash == std::string::npos || !std::all_of(entries.begin(), entries.end(), is_inside))
    return {};
  return first.substr(0, slash);
}

/// Finds the payload root. After a refusal it is what the publisher probably meant.
fs::Path FindPayload(const fs::Path& stage, const ZipScanResult& scan,
                     PackageInspection* inspection) {
  std::string message;
  fs::Path root = stage;
  if (ResolvePayloadLayout(stage, inspection->required, &root, &message)) {
    if (root != stage) inspection->wrapper = PathToUtf8(root.filename());
  } else {
    inspection->wrapper = OnlyFolder(scan.entries);
    root = stage / PathOrEmpty(inspection->wrapper);
    if (!inspection->refusal) Refuse(std::move(message), std::nullopt, inspection);
  }
  return root;
}

/// Gives every program and library of the payload to the platform.
void CheckBinaries(const fs::Path& root, const std::vector<std::string>& paths,
                   std::vector<PayloadBinary>* binaries) {
  for (const std::string& path : paths) {
    BinaryIdentity identity;
    const fs::Path file = root / PathOrEmpty(path);
    static_cast<void>(ReadBinaryIdentity(file, &identity));
    binaries->push_back({path, identity.has_signature, VerifyBinarySignature(PathToUtf8(file))});
  }
}

bool AllSigned(const std::vector<PayloadBinary>& binaries) {
  return !binaries.empty() &&
         std::all_of(binaries.begin(), binaries.end(),
                     [](const PayloadBinary& binary) { return binary.has_signature; });
}

/// What goes into a URL without escapes; any other name is replaced.
std::string UrlName(const std::string& name) {
  const auto is_plain = [](char c) {
    return (AsciiLower(c) >= 'a' && AsciiLower(c) <= 'z') || (c >= '0' && c <= '9') || c == '.' ||
           c == '-' || c == '_';
  };
  return std::all_of(name.begin(), name.end(), is_plain) ? name : "package.zip";
}

void JudgeArchive(const fs::Path& archive, const WorkFolder& work, PackageInspection* inspection) {
  ZipScanResult scan;
  if (!Unpack(archive, work.stage(), inspection, &scan)) return;
  const fs::Path root = FindPayload(work.stage(), scan, inspection);
  inspection->payload = DescribePayload(scan.entries, inspection->wrapper);
  inspection->room =
      RoomFor(inspection->size_bytes, inspection->unpacked_bytes, inspection->payload);
  CheckBinaries(root, inspection->payload.binaries, &inspection->binaries);
}

}  // namespace

bool InspectPackage(const std::string& path, const std::vector<std::string>& required,
                    PackageInspection* inspection, std::string* error) {
  *inspection = PackageInspection();
  inspection->path = path;
  inspection->required = required;
  const fs::Path archive = PathOrEmpty(path);
  if (!MeasureFile(archive, inspection, error)) return false;
  if (inspection->size_bytes > kMaxUpdatePackageBytes) {
    Refuse("Update package exceeds maximum allowed size", std::nullopt, inspection);
    return true;
  }
  WorkFolder work;
  if (!work.Create(error)) return false;
  std::string hash_error;
  auto hash = std::async(std::launch::async, [&] {
    return ComputeFileSha256(archive, &inspection->sha256, &hash_error);
  });
  JudgeArchive(archive, work, inspection);
  if (!hash.get()) return Fail(error, hash_error);
  if (inspection->refusal && inspection->refusal->remedy != Remedy::kPublisher) {
    return Fail(error, "the inspection stopped: " + inspection->refusal->message + ". " +
                           inspection->refusal->advice);
  }
  if (!inspection->refusal) {
    inspection->command_line =
        ExampleCommandLine(PathToUtf8(archive.filename()), inspection->sha256, required,
                           AllSigned(inspection->binaries));
  }
  return true;
}

std::string ExampleCommandLine(const std::string& package_name, const std::string& sha256,
                               const std::vector<std::string>& required, bool require_signed) {
  const std::string folder(kUsualInstallation);
  const auto url = [&package_name](std::size_t host) {
    return "https://" + std::string(deployment::kDownloadHosts[host]) + "/PATH/" +
           UrlName(package_name);
  };
  UpdateRequest request;
  request.download_url = url(1);
  request.fallback_download_url = url(2);
  request.sha256 = sha256;
  request.target_dir = folder;
  request.restart_exe = folder + "\\qorva_gui.exe";
  request.required_payload_files = required;
  request.require_signed_payload_binaries = require_signed;
  const std::wstring line = RenderHelperCommandLine(folder + "\\qorva_updater.exe", request);
  return WideToUtf8Lossy(line);
}

}  // namespace zul

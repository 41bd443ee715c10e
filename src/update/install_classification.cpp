#include "update/install_classification.h"

#include <algorithm>
#include <array>
#include <optional>

#include "core/file_layer.h"
#include "core/process_environment.h"
#include "core/text.h"

namespace zul {

namespace {

constexpr std::string_view kInstallMarker = "qorva_installation.json";
constexpr std::string_view kUninstaller = "unins000.exe";
constexpr std::string_view kArchiveMarker = "qorva_archive_migration_required.json";

constexpr std::array<std::string_view, 3> kLegacyNames = {"zul_rip.exe", "zul_rip_gui.exe",
                                                          "zul_updater.exe"};
constexpr std::array<std::string_view, 3> kCurrentNames = {"qorva.exe", "qorva_gui.exe",
                                                           "qorva_updater.exe"};

template <std::size_t N>
bool Contains(const std::array<std::string_view, N>& names, std::string_view name) {
  return std::find(names.begin(), names.end(), name) != names.end();
}

/// The form in which folders are compared: "/" as separator, no separator at the end, ASCII lower
/// case.
std::string ComparisonKey(const fs::Path& path) {
  std::string key = AsciiLower(PathToGenericUtf8(path));
  while (!key.empty() && key.back() == '/') key.pop_back();
  return key;
}

/// The first folder from `folder` upward that looks like a source tree; empty when there is none.
std::string FindDeveloperRoot(const fs::Path& folder) {
  std::error_code ec;
  fs::Path current = fs::WeaklyCanonical(folder, ec);
  if (ec) return {};
  for (;;) {
    if (fs::Exists(current / "CMakeLists.txt") && fs::Exists(current / ".git")) {
      return PathToUtf8(current);
    }
    const fs::Path parent = current.parent_path();
    if (parent.empty() || parent == current) return {};
    current = parent;
  }
}

InstallClassification Decide(InstallMode mode, std::string install_dir, std::string_view reason) {
  InstallClassification result;
  result.mode = mode;
  result.install_dir = std::move(install_dir);
  result.reason = reason;
  result.is_archive = mode == InstallMode::kArchive;
  result.is_updatable = !result.is_archive;
  return result;
}

InstallSignals GatherInstallSignals(std::string_view executable_path) {
  InstallSignals signals;
  signals.executable_path = executable_path;
  signals.local_app_data = GetEnvironmentPath("LOCALAPPDATA");
  const std::optional<fs::Path> executable = PathFromUtf8(executable_path);
  if (!executable) return signals;
  const fs::Path folder = executable->parent_path();
  signals.developer_root = FindDeveloperRoot(folder);
  signals.install_marker_present = fs::IsRegularFile(folder / kInstallMarker);
  signals.uninstaller_present = fs::IsRegularFile(folder / kUninstaller);
  signals.archive_marker_present = fs::IsRegularFile(folder / kArchiveMarker);
  return signals;
}

}  // namespace

InstallClassification ClassifyInstallSignals(const InstallSignals& signals) {
  const fs::Path executable = PathOrEmpty(signals.executable_path);
  const std::string name = AsciiLower(PathToUtf8(executable.filename()));
  const std::string folder = ComparisonKey(executable.parent_path());
  const std::string developer_root = ComparisonKey(PathOrEmpty(signals.developer_root));
  std::string installer_folder;
  if (!signals.local_app_data.empty()) {
    installer_folder = ComparisonKey(PathOrEmpty(signals.local_app_data) / "Programs" / "QORVA");
  }

  if (signals.install_marker_present) {
    return Decide(InstallMode::kInstalled, folder, "install marker present");
  }
  if (signals.uninstaller_present) {
    return Decide(InstallMode::kInstalled, folder, "installer uninstaller present");
  }
  if (!folder.empty() && folder == installer_folder) {
    return Decide(InstallMode::kInstalled, folder, "standard per-user installer directory");
  }
  if (signals.archive_marker_present) {
    return Decide(InstallMode::kArchive, folder, "archive migration marker present");
  }
  if (!developer_root.empty() &&
      (folder == developer_root || folder.starts_with(developer_root + "/"))) {
    return Decide(InstallMode::kUnknown, folder, "developer tree or local build output");
  }
  if (Contains(kLegacyNames, name)) {
    return Decide(InstallMode::kArchive, folder, "legacy archive executable name");
  }
  if (Contains(kCurrentNames, name)) {
    return Decide(InstallMode::kArchive, folder, "product executable outside installer directory");
  }
  return Decide(InstallMode::kUnknown, folder, "path does not match installer or archive signals");
}

InstallClassification ClassifyInstallTarget(std::string_view executable_path) {
  return ClassifyInstallSignals(GatherInstallSignals(executable_path));
}

InstallClassification ClassifyCurrentProcess() {
  return ClassifyInstallTarget(PathToUtf8(CurrentExecutablePath()));
}

std::string_view InstallerMigrationMessage() {
  return "QORVA now uses the standard Windows installer.\n\n"
         "To continue receiving updates and use this version, you need to migrate to the installed "
         "version.\n\n"
         "Your settings and license will be migrated.\n"
         "Your old folder will not be deleted automatically.\n"
         "After migration, use the Start Menu/Desktop shortcut.";
}

}  // namespace zul

#pragma once

// What kind of installation an executable stands for. Copies that run out of an unpacked archive
// can no longer take a package and must move to the installer. The decision is local and offline:
// the path, three marker files, LOCALAPPDATA and the folders above. The signals overlap, so the
// order of the tests is the point.

#include <cstdint>
#include <string>
#include <string_view>

namespace zul {

enum class InstallMode : std::uint32_t { kInstalled = 0, kArchive = 1, kUnknown = 2 };

/// What the disk and the environment say, gathered before anything is decided. Texts UTF-8.
struct InstallSignals {
  std::string executable_path;
  std::string local_app_data;  ///< empty if unset
  std::string developer_root;  ///< nearest source tree above the executable; may be empty
  bool install_marker_present = false;
  bool uninstaller_present = false;
  bool archive_marker_present = false;
};

struct InstallClassification {
  InstallMode mode = InstallMode::kUnknown;
  std::string install_dir;  ///< the executable's folder as a comparison key, not as a path to open
  std::string reason;       ///< one of a fixed set of texts
  bool is_archive = false;
  bool is_updatable = false;
};

/// Gathers the signals of `executable_path` (UTF-8). A status that cannot be read counts as absent.
[[nodiscard]] InstallSignals GatherInstallSignals(std::string_view executable_path);

/// The decision alone.
[[nodiscard]] InstallClassification ClassifyInstallSignals(const InstallSignals& signals);

/// Gathers and decides.
[[nodiscard]] InstallClassification ClassifyInstallTarget(std::string_view executable_path);

/// The same for the running executable.
[[nodiscard]] InstallClassification ClassifyCurrentProcess();

/// The text that tells the user to move to the installer.
[[nodiscard]] std::string_view InstallerMigrationMessage();

}  // namespace zul

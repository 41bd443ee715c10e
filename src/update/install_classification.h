#pragma once

// The kind of installation that an executable belongs to. A copy that runs from an unpacked archive
// can no longer take a package and must move to the installer. The decision is local and offline:
// it uses the path, three marker files, LOCALAPPDATA and the folders above. The signals overlap, so
// their order decides.

#include <cstdint>
#include <string>
#include <string_view>

namespace zul {

/// The kinds. An installation of an unknown kind may update.
enum class InstallMode : std::uint32_t { kInstalled = 0, kArchive = 1, kUnknown = 2 };

/// What the disk and the environment say about an executable. Texts are UTF-8.
struct InstallSignals {
  std::string executable_path;
  std::string local_app_data;  ///< LOCALAPPDATA; empty if unset
  std::string developer_root;  ///< nearest source tree above the executable; empty for none
  bool install_marker_present = false;
  bool uninstaller_present = false;
  bool archive_marker_present = false;
};

/// The kind of an installation, and why.
struct InstallClassification {
  InstallMode mode = InstallMode::kUnknown;
  std::string install_dir;    ///< the executable's folder as a comparison key; not to be opened
  std::string reason;         ///< one of a fixed set of texts
  bool is_archive = false;    ///< true for kArchive
  bool is_updatable = false;  ///< true for every other mode
};

/// Decides from the signals alone.
[[nodiscard]] InstallClassification ClassifyInstallSignals(const InstallSignals& signals);

/// Gathers the signals of `executable_path` (UTF-8) and decides. Never fails: a marker whose status
/// cannot be read counts as absent.
[[nodiscard]] InstallClassification ClassifyInstallTarget(std::string_view executable_path);

/// The same for the running executable.
[[nodiscard]] InstallClassification ClassifyCurrentProcess();

/// The text that asks the user to move to the installer, UTF-8.
[[nodiscard]] std::string_view InstallerMigrationMessage();

}  // namespace zul

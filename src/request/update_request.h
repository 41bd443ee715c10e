#pragma once

// One complete update, as the application describes it on the updater's command line: reading that
// command line, writing it, and checking the paths in it.

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "core/path.h"

namespace zul {

/// The description of one update. All texts are UTF-8. Paths are kept as texts and converted where
/// they are used.
struct UpdateRequest {
  std::uint32_t pid = 0;  ///< process of the application to wait for; 0 means none
  std::string download_url;
  std::string fallback_download_url;  ///< RF mirror; optional
  std::string sha256;                 ///< expected digest of the package, exactly as passed
  std::string target_dir;             ///< installation folder
  std::string restart_exe;            ///< application to start after the update
  std::string restart_args;           ///< a request that sets this is refused
  bool headless_restart_version_proof = false;
  std::vector<std::string> required_payload_files;  ///< files that the package must hold
  bool require_signed_payload_binaries = false;
  /// The first switch with a value that is not valid UTF-16, without its "="; usually empty. A
  /// request that sets this is refused, since the value may be one that makes the update safe.
  std::string unreadable_switch;

  bool operator==(const UpdateRequest&) const = default;
};

/// Reads the switches from the elements 1 to argc-1. Every argument that is not a known switch with
/// a value is ignored. Never fails: `unreadable_switch` names a value that cannot be read.
[[nodiscard]] UpdateRequest ParseUpdateRequest(int argc, const wchar_t* const* argv);

/// One switch of a command line.
struct UpdateSwitch {
  std::string_view prefix;  ///< for example "--pid="; lives as long as the program
  std::string value;
};

/// The switches that describe `request`, in their order on a command line. Optional ones that are
/// not set are left out.
[[nodiscard]] std::vector<UpdateSwitch> ListUpdateSwitches(const UpdateRequest& request);

/// The command line that starts `helper_path` with the same request: parsing it returns `request`.
[[nodiscard]] std::wstring RenderHelperCommandLine(const fs::Path& helper_path,
                                                   const UpdateRequest& request);

/// Quotes one argument so that CommandLineToArgvW returns it unchanged.
[[nodiscard]] std::wstring QuoteCommandArgument(std::wstring_view text);

/// Checks the paths of a request in a fixed order. False with the first failure in `error` (may be
/// null). Reads the disk and changes nothing.
[[nodiscard]] bool ValidateUpdatePaths(const UpdateRequest& request, std::string* error);

/// Finds the installed updater beside a restart executable that passed ValidateUpdatePaths. False
/// with the reason in `error` (may be null). Throws std::filesystem::filesystem_error when the
/// executable's folder cannot be listed.
[[nodiscard]] bool ResolveUpdaterHelper(std::string_view restart_exe, fs::Path* helper_path,
                                        std::string* error);

/// The executable to start after the update, by what the target folder holds now. A legacy name is
/// mapped to its current name when there is such a file. When `restart_exe` itself is gone, because
/// the update has removed a retired name, this is the application that is there. In every other
/// case it is `restart_exe`, unchanged.
[[nodiscard]] std::string ResolveRestartTarget(std::string_view restart_exe,
                                               std::string_view target_dir);

}  // namespace zul

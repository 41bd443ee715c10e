#pragma once

// One complete update as the application describes it on the command line, and that command line in
// both directions.

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "core/path.h"

namespace zul {

/// The description of one update. Texts are UTF-8 as converted from the arguments; paths stay texts
/// and become paths only where they are used.
struct UpdateRequest {
  std::uint32_t pid = 0;  ///< application process to wait for; 0 means none
  std::string download_url;
  std::string fallback_download_url;  ///< RF mirror; optional
  std::string sha256;                 ///< expected package digest, exactly as passed
  std::string target_dir;
  std::string restart_exe;
  std::string restart_args;  ///< exists only to be refused
  bool headless_restart_version_proof = false;
  std::vector<std::string> required_payload_files;
  bool require_signed_payload_binaries = false;

  bool operator==(const UpdateRequest&) const = default;
};

/// Reads the switches from elements 1 to argc-1. Never fails: what is not understood is ignored.
[[nodiscard]] UpdateRequest ParseUpdateRequest(int argc, const wchar_t* const* argv);

/// The path checks of a request, in their fixed order; the first failure goes to `error` (may be
/// null). Asks the disk, changes nothing.
[[nodiscard]] bool ValidateUpdatePaths(const UpdateRequest& request, std::string* error);

/// The command line that starts `helper_path` with the same request. Parsing it gives `request`.
[[nodiscard]] std::wstring RenderHelperCommandLine(const fs::Path& helper_path,
                                                   const UpdateRequest& request);

/// One argument quoted so that CommandLineToArgvW gives it back unchanged.
[[nodiscard]] std::wstring QuoteCommandArgument(std::wstring_view text);

/// Finds the installed updater beside a restart executable that is already valid. On failure false
/// with a text in `error` (may be null). Throws std::filesystem::filesystem_error when the folder,
/// which was just resolved, cannot be listed.
[[nodiscard]] bool ResolveUpdaterHelper(std::string_view restart_exe, fs::Path& helper_path,
                                        std::string* error);

/// The executable to start after the update: for a legacy name the current one when the target
/// folder holds it, else `restart_exe` unchanged. UTF-8.
[[nodiscard]] std::string ResolveRestartTarget(std::string_view restart_exe,
                                               std::string_view target_dir);

}  // namespace zul

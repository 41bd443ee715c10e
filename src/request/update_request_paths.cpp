#include <algorithm>
#include <array>
#include <optional>
#include <system_error>
#include <vector>

#include "core/failure.h"
#include "core/file_layer.h"
#include "core/text.h"
#include "request/application_owner.h"
#include "request/update_request.h"

namespace zul {

namespace {

constexpr std::string_view kTargetLabel = "Update target directory";
constexpr std::string_view kRestartLabel = "Restart executable";
constexpr std::string_view kRestartParentLabel = "Restart executable parent";
constexpr std::string_view kSeparators = "\\/";

/// How a path text begins, read as Windows reads it, on every system.
struct PathStart {
  bool is_absolute = false;  ///< `C:\x`, `\\server\share`, but not `C:x`, `\x` and `x`
  bool is_root = false;      ///< only a drive or a server: `C:`, `C:\`, `\\server\`
};

bool IsSeparator(char c) {
  return kSeparators.find(c) != std::string_view::npos;
}

/// Length of `X:` or `\\server`; 0 when the text begins with neither.
std::size_t RootNameLength(std::string_view text) {
  const auto is_letter = [](char c) { return AsciiLower(c) >= 'a' && AsciiLower(c) <= 'z'; };
  if (text.size() >= 2 && is_letter(text[0]) && text[1] == ':') return 2;
  if (text.size() >= 3 && IsSeparator(text[0]) && IsSeparator(text[1]) && !IsSeparator(text[2])) {
    return std::min(text.find_first_of(kSeparators, 2), text.size());
  }
  return 0;
}

PathStart PathStartOf(std::string_view text) {
  const std::size_t name = RootNameLength(text);
  if (name == 0) return {};
  const bool is_drive = text[1] == ':';
  const bool has_separator = text.size() > name && IsSeparator(text[name]);
  return {.is_absolute = !is_drive || has_separator,
          .is_root = text.find_first_not_of(kSeparators, name) == std::string_view::npos};
}

bool IsAbsolute(std::string_view text, const fs::Path& path) {
  return PathStartOf(text).is_absolute || path.is_absolute();
}

bool IsRoot(std::string_view text, const fs::Path& path) {
  return PathStartOf(text).is_root || path.relative_path().empty();
}

bool ConvertPath(std::string_view text, std::string_view label, fs::Path* path,
                 std::string* error) {
  *path = PathOrEmpty(text);
  return !path->empty() || Fail(error, label, " path is not valid UTF-8.");
}

/// Replaces `path` by its resolved form, in which a part that does not exist is kept as it is.
bool NormalizeUpdatePath(std::string_view label, fs::Path* path, std::string* error) {
  std::error_code ec;
  fs::Path resolved = fs::Canonical(*path, ec);
  if (ec || resolved.empty()) resolved = fs::WeaklyCanonical(*path, ec);
  if (ec || resolved.empty()) return Fail(error, label, " path cannot be normalized.");
  *path = std::move(resolved);
  return true;
}

/// The checks that do not read the disk.
bool CheckPathTexts(const UpdateRequest& request, fs::Path* target, fs::Path* restart,
                    std::string* error) {
  if (!ConvertPath(request.target_dir, kTargetLabel, target, error)) return false;
  if (!ConvertPath(request.restart_exe, kRestartLabel, restart, error)) return false;
  if (!IsAbsolute(request.target_dir, *target)) {
    return Fail(error, "Update target directory must be an absolute path.");
  }
  if (!IsAbsolute(request.restart_exe, *restart)) {
    return Fail(error, "Restart executable path must be absolute.");
  }
  if (IsRoot(request.target_dir, *target)) {
    return Fail(error, "Update target directory cannot be a filesystem root.");
  }
  if (!IsApplicationImageName(FileNameOf(request.restart_exe))) {
    return Fail(error,
                "Restart executable must be qorva_gui.exe, qorva.exe, zul_rip_gui.exe, or "
                "zul_rip.exe.");
  }
  return true;
}

/// The path of the updater in `folder`, under the first of its names that is there in exactly this
/// spelling; empty when there is none. Throws std::filesystem::filesystem_error when the folder
/// cannot be listed.
fs::Path FindUpdater(const fs::Path& folder) {
  constexpr std::array<std::string_view, 2> kNames = {"qorva_updater.exe", "zul_updater.exe"};
  std::error_code ec;
  const std::vector<fs::DirectoryEntry> entries = fs::ListDirectory(folder, ec);
  if (ec) throw std::filesystem::filesystem_error("directory_iterator::operator++", folder, ec);
  for (const std::string_view name : kNames) {
    for (const fs::DirectoryEntry& entry : entries) {
      if (PathToUtf8(entry.path.filename()) == name &&
          fs::IsSameFile(entry.path, folder / name, ec)) {
        return entry.path;
      }
    }
  }
  return {};
}

}  // namespace

bool ValidateUpdatePaths(const UpdateRequest& request, std::string* error) {
  fs::Path target;
  fs::Path restart;
  if (!CheckPathTexts(request, &target, &restart, error)) return false;
  if (!NormalizeUpdatePath(kTargetLabel, &target, error)) return false;
  if (!NormalizeUpdatePath(kRestartLabel, &restart, error)) return false;
  std::error_code ec;
  if (fs::KindOf(target, fs::Links::kFollow, ec) != fs::EntryKind::kDirectory) {
    return Fail(error, "Update target directory must exist and be a directory.");
  }
  if (!fs::IsRegularFile(restart)) {
    return Fail(error, "Restart executable must exist and be a regular file.");
  }
  fs::Path parent = restart.parent_path();
  if (!NormalizeUpdatePath(kRestartParentLabel, &parent, error)) return false;
  if (parent != target) {
    return Fail(error, "Restart executable must be directly inside the update target directory.");
  }
  return true;
}

bool ResolveUpdaterHelper(std::string_view restart_exe, fs::Path* helper_path, std::string* error) {
  std::optional<fs::Path> restart = PathFromUtf8(restart_exe);
  if (!restart || !IsApplicationImageName(FileNameOf(restart_exe))) {
    return Fail(error, "Restart executable path is invalid.");
  }
  if (!NormalizeUpdatePath(kRestartLabel, &*restart, error)) return false;
  fs::Path folder = restart->parent_path();
  if (!NormalizeUpdatePath(kRestartParentLabel, &folder, error)) return false;
  fs::Path helper = FindUpdater(folder);
  if (helper.empty()) {
    return Fail(error, "Updater helper must be named qorva_updater.exe or zul_updater.exe.");
  }
  if (!NormalizeUpdatePath("Updater helper", &helper, error)) return false;
  if (!fs::IsRegularFile(helper)) {
    return Fail(error, "Updater helper must exist and be a regular file.");
  }
  if (helper.parent_path() != folder) {
    return Fail(error, "Updater helper must be next to the restart executable.");
  }
  *helper_path = std::move(helper);
  return true;
}

std::string ResolveRestartTarget(std::string_view restart_exe, std::string_view target_dir) {
  const std::string name = AsciiLower(FileNameOf(restart_exe));
  const fs::Path target = PathOrEmpty(target_dir);
  std::vector<std::string_view> candidates;
  if (name == "zul_rip_gui.exe") candidates.push_back("qorva_gui.exe");
  if (name == "zul_rip.exe") candidates.push_back("qorva.exe");
  std::error_code ec;
  if (fs::KindOf(PathOrEmpty(restart_exe), fs::Links::kFollow, ec) == fs::EntryKind::kNotFound) {
    candidates.insert(candidates.end(), {"qorva_gui.exe", "qorva.exe"});
  }
  for (const std::string_view candidate : candidates) {
    if (!target.empty() && fs::IsRegularFile(target / candidate)) {
      return PathToUtf8(target / candidate);
    }
  }
  return std::string(restart_exe);
}

}  // namespace zul

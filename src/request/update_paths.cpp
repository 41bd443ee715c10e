#include <array>
#include <optional>
#include <system_error>

#include "core/failure.h"
#include "core/file_layer.h"
#include "core/text.h"
#include "request/path_text.h"
#include "request/update_request.h"

namespace zul {

namespace {

constexpr std::string_view kTargetLabel = "Update target directory";
constexpr std::string_view kRestartLabel = "Restart executable";
constexpr std::string_view kRestartParentLabel = "Restart executable parent";

bool ToPath(std::string_view text, fs::Path& path, std::string* error, std::string_view label) {
  std::optional<fs::Path> converted = PathFromUtf8(text);
  if (!converted || converted->empty()) return Fail(error, label, " path is not valid UTF-8.");
  path = std::move(*converted);
  return true;
}

/// Replaces `path` by its place with every link resolved, as far as it exists.
bool NormalizeUpdatePath(fs::Path& path, std::string* error, std::string_view label) {
  std::error_code ec;
  fs::Path resolved = fs::Canonical(path, ec);
  if (ec || resolved.empty()) resolved = fs::WeaklyCanonical(path, ec);
  if (ec || resolved.empty()) return Fail(error, label, " path cannot be normalized.");
  path = std::move(resolved);
  return true;
}

bool IsAbsolute(std::string_view text, const fs::Path& path) {
  return PathStartOf(text).absolute || path.is_absolute();
}

bool IsRoot(std::string_view text, const fs::Path& path) {
  return PathStartOf(text).root_only || path.relative_path().empty();
}

/// True when `path` leads to an entry of `kind`.
bool Is(fs::EntryKind kind, const fs::Path& path) {
  std::error_code ec;
  return fs::KindOf(path, fs::Links::kFollow, ec) == kind;
}

/// What the texts alone must satisfy.
bool CheckPathTexts(const UpdateRequest& request, fs::Path& target, fs::Path& restart,
                    std::string* error) {
  if (!ToPath(request.target_dir, target, error, kTargetLabel)) return false;
  if (!ToPath(request.restart_exe, restart, error, kRestartLabel)) return false;
  if (!IsAbsolute(request.target_dir, target)) {
    return Fail(error, "Update target directory must be an absolute path.");
  }
  if (!IsAbsolute(request.restart_exe, restart)) {
    return Fail(error, "Restart executable path must be absolute.");
  }
  if (IsRoot(request.target_dir, target)) {
    return Fail(error, "Update target directory cannot be a filesystem root.");
  }
  if (!IsApplicationImageName(FileNameOf(request.restart_exe))) {
    return Fail(error,
                "Restart executable must be qorva_gui.exe, qorva.exe, zul_rip_gui.exe, or "
                "zul_rip.exe.");
  }
  return true;
}

/// The first entry, for the first of the updater's names, that carries exactly this name and is
/// the file that the name opens. Empty when there is none.
/// Throws std::filesystem::filesystem_error when the folder cannot be listed.
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
  if (!CheckPathTexts(request, target, restart, error)) return false;
  if (!NormalizeUpdatePath(target, error, kTargetLabel)) return false;
  if (!NormalizeUpdatePath(restart, error, kRestartLabel)) return false;
  if (!Is(fs::EntryKind::kDirectory, target)) {
    return Fail(error, "Update target directory must exist and be a directory.");
  }
  if (!Is(fs::EntryKind::kRegular, restart)) {
    return Fail(error, "Restart executable must exist and be a regular file.");
  }
  fs::Path parent = restart.parent_path();
  if (!NormalizeUpdatePath(parent, error, kRestartParentLabel)) return false;
  if (parent != target) {
    return Fail(error, "Restart executable must be directly inside the update target directory.");
  }
  return true;
}

bool ResolveUpdaterHelper(std::string_view restart_exe, fs::Path& helper_path, std::string* error) {
  std::optional<fs::Path> restart = PathFromUtf8(restart_exe);
  if (!restart || !IsApplicationImageName(FileNameOf(restart_exe))) {
    return Fail(error, "Restart executable path is invalid.");
  }
  if (!NormalizeUpdatePath(*restart, error, kRestartLabel)) return false;
  fs::Path folder = restart->parent_path();
  if (!NormalizeUpdatePath(folder, error, kRestartParentLabel)) return false;
  fs::Path helper = FindUpdater(folder);
  if (helper.empty()) {
    return Fail(error, "Updater helper must be named qorva_updater.exe or zul_updater.exe.");
  }
  if (!NormalizeUpdatePath(helper, error, "Updater helper")) return false;
  if (!Is(fs::EntryKind::kRegular, helper)) {
    return Fail(error, "Updater helper must exist and be a regular file.");
  }
  if (helper.parent_path() != folder) {
    return Fail(error, "Updater helper must be next to the restart executable.");
  }
  helper_path = std::move(helper);
  return true;
}

std::string ResolveRestartTarget(std::string_view restart_exe, std::string_view target_dir) {
  const std::string name = AsciiLower(FileNameOf(restart_exe));
  std::string_view current;
  if (name == "zul_rip_gui.exe") current = "qorva_gui.exe";
  if (name == "zul_rip.exe") current = "qorva.exe";
  const std::optional<fs::Path> target = PathFromUtf8(target_dir);
  if (!current.empty() && target) {
    const fs::Path candidate = *target / current;
    if (Is(fs::EntryKind::kRegular, candidate)) return PathToUtf8(candidate);
  }
  return std::string(restart_exe);
}

}  // namespace zul

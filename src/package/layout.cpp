#include "package/layout.h"

#include <algorithm>
#include <unordered_set>

#include "core/failure.h"
#include "core/file_layer.h"
#include "core/text.h"

namespace zul {

namespace {

constexpr std::size_t kRequiredFilesMax = 64;
constexpr std::size_t kRequiredNameBytesMax = 128;

bool IsNameCharacter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' ||
         c == '_' || c == '-';
}

bool IsSafeRequiredName(std::string_view name) {
  return !name.empty() && name.size() <= kRequiredNameBytesMax && name != "." && name != ".." &&
         std::all_of(name.begin(), name.end(), IsNameCharacter);
}

bool IsSafeComponent(const fs::Path& component) {
  constexpr std::string_view kForbidden = "\"*/:<>?\\|";
  const std::string text = PathToUtf8(component);
  if (text.empty() || text == "." || text == "..") return false;
  return std::none_of(text.begin(), text.end(), [&](char c) {
    return static_cast<unsigned char>(c) < 0x20 || kForbidden.find(c) != std::string_view::npos;
  });
}

bool ListSubdirectories(const fs::Path& directory, std::vector<fs::Path>& subdirectories) {
  std::error_code code;
  for (const fs::DirectoryEntry& entry : fs::ListDirectory(directory, code)) {
    if (entry.kind == fs::EntryKind::kDirectory) subdirectories.push_back(entry.path);
  }
  return !code;
}

}  // namespace

bool ValidateRequiredFileContract(const RequiredFileContract& contract, std::string* error) {
  if (contract.empty() || contract.size() > kRequiredFilesMax) {
    return Fail(error, "Update package required file contract is empty or too large.");
  }
  std::unordered_set<std::string> seen;
  for (const std::string& name : contract) {
    if (!IsSafeRequiredName(name)) {
      return Fail(error, "Update package required file name is unsafe: ", name);
    }
    if (!seen.insert(AsciiLower(name)).second) {
      return Fail(error, "Update package required file name is duplicated: ", name);
    }
  }
  return true;
}

bool FindMissingRequiredFiles(const fs::Path& root, const RequiredFileContract& contract,
                              std::vector<std::string>& missing) {
  missing.clear();
  std::error_code code;
  if (fs::KindOf(root, fs::Links::kFollow, code) != fs::EntryKind::kDirectory) {
    missing = contract;
    return false;
  }
  for (const std::string& name : contract) {
    const auto file_name = PathFromUtf8(name);
    if (!file_name ||
        fs::KindOf(root / *file_name, fs::Links::kDoNotFollow, code) != fs::EntryKind::kRegular) {
      missing.push_back(name);
    }
  }
  return missing.empty();
}

bool ResolvePayloadLayout(const fs::Path& stage_dir, const RequiredFileContract& contract,
                          fs::Path& payload_root, std::string* error) {
  if (!ValidateRequiredFileContract(contract, error)) return false;
  std::vector<std::string> root_missing;
  if (FindMissingRequiredFiles(stage_dir, contract, root_missing)) {
    payload_root = stage_dir;
    return true;
  }
  std::vector<fs::Path> subdirectories;
  std::vector<std::string> wrapper_missing;
  if (ListSubdirectories(stage_dir, subdirectories) && subdirectories.size() == 1 &&
      FindMissingRequiredFiles(subdirectories.front(), contract, wrapper_missing)) {
    payload_root = subdirectories.front();
    return true;
  }
  std::string message = "Update package layout mismatch. Required files are missing: " +
                        JoinText(root_missing, ", ") + ".";
  if (!subdirectories.empty()) {
    message +=
        " Supported layout is either flat ZIP root or a single top-level wrapper folder containing "
        "those files.";
  }
  return Fail(error, message);
}

bool IsSafeRelativePath(const fs::Path& relative) {
  return !relative.empty() && !relative.has_root_path() &&
         std::all_of(relative.begin(), relative.end(), IsSafeComponent);
}

bool IsPathInsideDirectory(const fs::Path& base, const fs::Path& candidate) {
  std::error_code code;
  const fs::Path resolved_candidate = fs::WeaklyCanonical(candidate, code);
  if (code) return false;
  const fs::Path resolved_base = fs::WeaklyCanonical(base, code);
  if (code) return false;
  const fs::Path relative = resolved_candidate.lexically_relative(resolved_base);
  if (relative.empty() || relative == "." || relative.has_root_path()) return false;
  return std::find(relative.begin(), relative.end(), "..") == relative.end();
}

bool ValidatePayloadTarget(const fs::Path& target_dir, const fs::Path& payload_target,
                           std::string* error) {
  std::error_code code;
  const fs::Path resolved_dir = fs::WeaklyCanonical(target_dir, code);
  if (code || resolved_dir.empty()) {
    return Fail(error, "Update target directory cannot be normalized: '",
                PathToUtf8(target_dir) + "'");
  }
  const fs::Path resolved_target = fs::WeaklyCanonical(payload_target, code);
  if (code || resolved_target.empty()) {
    return Fail(error, "Update payload target cannot be normalized: '",
                PathToUtf8(payload_target) + "'");
  }
  if (!IsPathInsideDirectory(resolved_dir, resolved_target)) {
    return Fail(error, "Update payload target escapes the update directory: '",
                PathToUtf8(payload_target) + "'");
  }
  return true;
}

}  // namespace zul

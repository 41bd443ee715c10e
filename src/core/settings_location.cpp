#include "core/settings_location.h"

#include "core/app_paths.h"
#include "core/bounded_read.h"
#include "core/failure.h"
#include "core/file_layer.h"
#include "core/file_ops.h"
#include "core/logger.h"
#include "core/text.h"

namespace zul {

namespace {

constexpr std::string_view kAppFolder = "QORVA";
constexpr std::string_view kLegacyAppFolder = "ZUL_RIP";
constexpr std::string_view kSettingsFile = "settings.json";
constexpr std::string_view kLastResortFile = "qorva_settings.json";
constexpr std::uint64_t kMaxLegacyBytes = 1048576;

void MigrateToNewFolder(const std::string& target) {
  const AppPathResult legacy = ResolveAppFile(kLegacyAppFolder, kSettingsFile);
  if (legacy.path.empty() || !fs::Exists(PathOrEmpty(legacy.path))) return;
  std::string error;
  if (MigrateLegacySettings(legacy.path, target, &error)) return;
  GetLogger().Log(LogLevel::kWarn, "RipSettings: could not migrate legacy settings from '",
                  legacy.path, "' to '", target, "': ", error);
}

}  // namespace

std::string ResolveSettingsPath() {
  const AppPathResult settings = ResolveAppFile(kAppFolder, kSettingsFile);
  if (settings.path.empty()) {
    GetLogger().Log(LogLevel::kError,
                    "RipSettings: cannot resolve settings path; using local fallback.");
    return std::string(kLastResortFile);
  }
  if (settings.error.empty() && !fs::Exists(PathOrEmpty(settings.path))) {
    MigrateToNewFolder(settings.path);
  }
  if (settings.used_fallback) {
    const std::string code = settings.error.substr(0, settings.error.find("; "));
    GetLogger().Log(LogLevel::kError,
                    "RipSettings: cannot resolve AppData (SHGetFolderPathW HRESULT ", code,
                    "); using fallback settings path '", settings.path, "'");
  }
  if (!settings.ready) {
    GetLogger().Log(LogLevel::kError, "RipSettings: cannot prepare settings path '", settings.path,
                    "' (", settings.error, ").");
  }
  return settings.path;
}

bool MigrateLegacySettings(std::string_view source, std::string_view target, std::string* error) {
  const std::string from = "legacy settings from '" + std::string(source) + "'";
  std::string contents;
  const BoundedReadResult read = ReadBounded(source, kMaxLegacyBytes, &contents);
  if (read.status != kBoundedReadOk) {
    return Fail(error, "Cannot migrate " + from + ": cannot read a bounded source" +
                           (read.message.empty() ? "" : ": " + read.message));
  }
  const FileOpResult published =
      PublishNewFile(PathOrEmpty(target), contents, {.create_parent = true, .flush_parent = true});
  // An existing target comes from another process that was faster. Its file wins.
  if (published.ok || published.status == kFileOpTargetExists) return true;
  return Fail(error, "Cannot atomically migrate " + from + " to '" + std::string(target) +
                         "': " + published.message);
}

std::string ApplicationConfigDirectory() {
  const fs::Path directory = PathOrEmpty(ResolveSettingsPath()).parent_path();
  if (directory.empty()) return {};
  static_cast<void>(EnsureDirectory(directory, nullptr));
  return PathToUtf8(directory);
}

}  // namespace zul

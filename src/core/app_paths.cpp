#include "core/app_paths.h"

#include "core/failure.h"
#include "core/file_layer.h"
#include "core/text.h"

namespace zul {

namespace {

void AppendReason(std::string* error, std::string_view reason) {
  if (reason.empty()) return;
  if (!error->empty()) error->append("; ");
  error->append(reason);
}

/// The folder in the temporary folder, or in the current one when the system reports no temporary
/// folder. Joined as text, so that a temporary folder "C:\" gives "C:\name": "C:" and "name" joined
/// as paths give "C:name", which is relative to the drive's current folder.
fs::Path FallbackDirectory(std::string_view app_dir_name) {
  std::string base = PathToGenericUtf8(TempDirectory());
  while (!base.empty() && base.back() == '/') base.pop_back();
  if (base.empty()) base = ".";
  return PathOrEmpty(base + "/" + std::string(app_dir_name)).make_preferred();
}

}  // namespace

AppPathResult ResolveAppDataDirectory(std::string_view app_dir_name) {
  AppPathResult result;
  if (app_dir_name.empty()) {
    result.error = "app_dir_name is empty";
    return result;
  }
  fs::Path directory;
  std::uint32_t hresult = 0;
  if (const std::string home = GetEnvironmentPath("QORVA_CONFIG_HOME"); !home.empty()) {
    directory = PathOrEmpty(home) / PathOrEmpty(app_dir_name);
  } else if (const auto roaming = RoamingAppDataDirectory(&hresult)) {
    directory = *roaming / PathOrEmpty(app_dir_name);
  } else {
    directory = FallbackDirectory(app_dir_name);
    result.used_fallback = true;
    result.error = FormatHresult(hresult);
  }
  result.path = PathToUtf8(directory);
  std::string reason;
  result.ready = EnsureDirectory(directory, &reason);
  AppendReason(&result.error, reason);
  return result;
}

AppPathResult ResolveAppFile(std::string_view app_dir_name, std::string_view filename) {
  AppPathResult result = ResolveAppDataDirectory(app_dir_name);
  if (filename.empty()) {
    result.ready = false;
    AppendReason(&result.error, "filename is empty");
    return result;
  }
  result.path = PathToUtf8(PathOrEmpty(result.path) / PathOrEmpty(filename));
  return result;
}

bool EnsureDirectory(const fs::Path& path, std::string* error) {
  std::error_code ec;
  if (fs::KindOf(path, fs::Links::kFollow, ec) == fs::EntryKind::kDirectory) return true;
  if (fs::CreateDirectories(path, ec)) return true;
  return Fail(error, "cannot create directory '" + PathToUtf8(path) + "': ", ec);
}

std::string FormatHresult(std::uint32_t code) {
  constexpr std::string_view kDigits = "0123456789ABCDEF";
  std::string text = "0x";
  for (int shift = 28; shift >= 0; shift -= 4) text.push_back(kDigits[(code >> shift) & 0xF]);
  return text;
}

}  // namespace zul

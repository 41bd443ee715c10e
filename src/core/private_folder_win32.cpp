#include "core/private_folder.h"

#include <windows.h>

#include <sddl.h>

#include <string>
#include <utility>

#include "core/api_path_win32.h"
#include "core/file_layer.h"
#include "core/handle_win32.h"
#include "core/logger.h"
#include "core/system_error.h"
#include "core/text.h"

namespace zul {

namespace {

/// A right that cannot be read counts as missing.
ProcessRights RightsOfThisProcess() {
  ProcessRights rights;
  HANDLE opened = nullptr;
  if (!::OpenProcessToken(::GetCurrentProcess(), TOKEN_QUERY, &opened)) return rights;
  const UniqueKernelHandle token(opened);
  TOKEN_ELEVATION elevation{};
  DWORD size = sizeof elevation;
  rights.is_elevated =
      ::GetTokenInformation(token.get(), TokenElevation, &elevation, size, &size) &&
      elevation.TokenIsElevated != 0;
  alignas(SID) BYTE administrators[SECURITY_MAX_SID_SIZE];
  size = sizeof administrators;
  BOOL is_member = FALSE;
  rights.is_administrator =
      ::CreateWellKnownSid(WinBuiltinAdministratorsSid, nullptr, administrators, &size) &&
      ::CheckTokenMembership(nullptr, administrators, &is_member) && is_member;
  return rights;
}

/// Creates the folder with the security descriptor that the text describes.
bool CreateWithSecurity(const fs::Path& path, std::string_view security, std::error_code& ec) {
  PSECURITY_DESCRIPTOR converted = nullptr;
  const std::wstring text = Utf8ToWide(security).value_or(std::wstring());
  bool created = ::ConvertStringSecurityDescriptorToSecurityDescriptorW(
                     text.c_str(), SDDL_REVISION_1, &converted, nullptr) != FALSE;
  const UniqueLocalMemory<PSECURITY_DESCRIPTOR> descriptor(converted);
  SECURITY_ATTRIBUTES attributes{sizeof attributes, converted, FALSE};
  created = created && ::CreateDirectoryW(fs::ApiPath(path).c_str(), &attributes);
  ec = created ? std::error_code() : LastSystemError();
  return created;
}

}  // namespace

PrivateFolder CreatePrivateFolderAt(const fs::Path& path) {
  const std::string_view security = PrivateFolderSecurity(RightsOfThisProcess());
  std::error_code ec;
  if (!security.empty()) {
    if (CreateWithSecurity(path, security, ec)) {
      PrivateFolder folder{path, fs::HoldFolder(path, ec)};
      return folder.hold.is_open() ? std::move(folder) : PrivateFolder();
    }
    if (IsExistsError(ec)) return {};
    GetLogger().Log(LogCategory::kUpdater, LogLevel::kWarn,
                    "Folder without protection: ", PathToUtf8(path), ", ", DescribeSystemError(ec));
  }
  if (fs::CreateDirectoryOnce(path, ec) != fs::CreateResult::kCreated) return {};
  return {path, {}};
}

}  // namespace zul

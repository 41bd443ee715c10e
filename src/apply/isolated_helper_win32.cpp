#include "apply/isolated_helper.h"

#include <windows.h>

#include "core/failure.h"
#include "core/file_layer.h"
#include "core/handle_win32.h"
#include "core/process_environment.h"
#include "core/text.h"
#include "trace/chain_events.h"

namespace zul {

namespace {

bool RunsFrom(const fs::Path& folder) {
  const fs::Path own = CurrentExecutablePath();
  if (own.empty()) return false;
  std::error_code own_error;
  std::error_code folder_error;
  const fs::Path own_folder = fs::WeaklyCanonical(own.parent_path(), own_error);
  const fs::Path resolved = fs::WeaklyCanonical(folder, folder_error);
  return !own_error && !folder_error && own_folder == resolved;
}

bool Start(const IsolatedHelper& prepared, const UpdateRequest& request) {
  // CreateProcessW may write into the buffer of the command line.
  std::wstring command_line = RenderHelperCommandLine(prepared.helper, request);
  STARTUPINFOW startup{};
  startup.cb = sizeof startup;
  PROCESS_INFORMATION created{};
  if (!::CreateProcessW(prepared.helper.c_str(), command_line.data(), nullptr, nullptr, FALSE,
                        CREATE_NEW_PROCESS_GROUP, nullptr, prepared.runtime_dir.c_str(), &startup,
                        &created)) {
    return false;
  }
  const UniqueKernelHandle process(created.hProcess);
  const UniqueKernelHandle thread(created.hThread);
  return true;
}

}  // namespace

bool RelaunchFromTargetIfNeeded(const UpdateRequest& request, bool* relaunched,
                                std::string* error) {
  *relaunched = false;
  const fs::Path target = PathOrEmpty(request.target_dir);
  if (target.empty() || !RunsFrom(target)) return true;
  fs::Path installed;
  if (!ResolveUpdaterHelper(request.restart_exe, &installed, error)) return false;
  EmitChainEvent("relaunch_installed_helper_from_target_root",
                 {{"installed_helper", PathToUtf8(installed)},
                  {"target_dir", request.target_dir},
                  {"restart_exe", request.restart_exe}});
  *relaunched = LaunchIsolatedHelper(installed, request, error);
  return *relaunched;
}

bool LaunchIsolatedHelper(const fs::Path& source_helper, const UpdateRequest& request,
                          std::string* error) {
  IsolatedHelper prepared;
  if (!PrepareIsolatedHelper(source_helper, &prepared, error)) return false;
  EmitChainEvent("launch_isolated_updater_helper",
                 {{"installed_helper", PathToUtf8(source_helper)},
                  {"isolated_helper", PathToUtf8(prepared.helper)},
                  {"runtime_dir", PathToUtf8(prepared.runtime_dir)},
                  {"copied_runtime_dlls", std::to_string(prepared.copied_libraries.size())}});
  return Start(prepared, request) ||
         Fail(error, "Cannot launch isolated updater helper process: helper='",
              PathToUtf8(prepared.helper) + "', runtime_dir='" + PathToUtf8(prepared.runtime_dir) +
                  "'.");
}

}  // namespace zul

#include "core/file_layer.h"
#include "core/text.h"
#include "update/dialogs.h"
#include "update/update_run.h"

namespace zul {

namespace {

// MAX_PATH of the platform, the terminator included. A longer path counts as unknown.
constexpr std::size_t kShortPathUnits = 260;

/// The application beside the updater; empty when there is none.
fs::Path FindApplicationBeside(const fs::Path& updater) {
  for (const char* name : {"qorva_gui.exe", "zul_rip_gui.exe"}) {
    fs::Path candidate = updater.parent_path() / name;
    if (fs::IsRegularFile(candidate)) return candidate;
  }
  return {};
}

int Refuse(const UpdateWorld& world, std::string_view message) {
  ShowUpdaterError(world, message);
  return kExitFailure;
}

}  // namespace

int RunWithoutRequest(const UpdateWorld& world) {
  if (world.classify_current_process().is_archive) {
    ShowInstallerMigrationDialog(world, {});
    return kExitArchiveMigrationRequired;
  }
  if (world.show_running_application()) return kExitDone;

  const fs::Path& updater = world.own_executable;
  if (updater.empty() || updater.native().size() >= kShortPathUnits) {
    return Refuse(world,
                  "QORVA Updater is launched automatically by QORVA.\n\n"
                  "Please open QORVA and use Settings > Update.");
  }
  const fs::Path application = FindApplicationBeside(updater);
  if (application.empty()) {
    return Refuse(world,
                  "QORVA Updater is launched automatically by QORVA.\n\n"
                  "Cannot find qorva_gui.exe next to the updater. Please open QORVA and use "
                  "Settings > Update.");
  }
  std::string error;
  if (!world.launch_application(PathToUtf8(application), "--show-update-status", &error)) {
    return Refuse(world, error.empty() ? "Cannot open QORVA update window." : error);
  }
  return kExitDone;
}

}  // namespace zul

#include "apply/isolated_helper.h"

#include <array>
#include <chrono>
#include <string>
#include <string_view>
#include <utility>

#include "apply/retry_file_ops.h"
#include "core/failure.h"
#include "core/file_layer.h"
#include "core/private_folder.h"
#include "core/process_environment.h"
#include "core/text.h"

namespace zul {

namespace {

constexpr std::string_view kFolderPrefix = "zul_updater_launch_";
constexpr std::string_view kHelperName = "zul_updater.exe";
/// The crash observer is the installed executable, which is looked for by its name beside the
/// observed process.
constexpr std::string_view kObserverName = "qorva_updater.exe";
constexpr std::chrono::hours kStaleAge{7 * 24};

/// Libraries that the helper needs in its folder if they are beside the updater. None is required.
constexpr std::array<std::string_view, 44> kRuntimeLibraries = {
    "z.dll",
    "liblzma.dll",
    "tiff.dll",
    "jpeg62.dll",
    "tinyxml2.dll",
    "lcms2.dll",
    "pdfium.dll",
    "concrt140.dll",
    "msvcp140.dll",
    "msvcp140_1.dll",
    "msvcp140_2.dll",
    "msvcp140_atomic_wait.dll",
    "msvcp140_codecvt_ids.dll",
    "vccorlib140.dll",
    "vcruntime140.dll",
    "vcruntime140_1.dll",
    "vcruntime140_threads.dll",
    "qt6core.dll",
    "qt6gui.dll",
    "qt6widgets.dll",
    "double-conversion.dll",
    "brotlicommon.dll",
    "brotlidec.dll",
    "bz2.dll",
    "freetype.dll",
    "harfbuzz.dll",
    "icudt78.dll",
    "icuin78.dll",
    "icuuc78.dll",
    "libpng16.dll",
    "md4c.dll",
    "pcre2-16.dll",
    "abseil_dll.dll",
    "libprotobuf-lite.dll",
    "libprotobuf.dll",
    "re2.dll",
    "zstd.dll",
    "dxcompiler.dll",
    "dxil.dll",
    "d3dcompiler_47.dll",
    "opengl32sw.dll",
    "onnxruntime.dll",
    "directml.dll",
    "microsoft.windows.ai.machinelearning.dll"};

}  // namespace

bool PrepareIsolatedHelper(const fs::Path& source_helper, IsolatedHelper* prepared,
                           std::string* error) {
  *prepared = {};
  if (!fs::IsRegularFile(source_helper)) {
    return Fail(error, "Updater helper is missing: " + PathToUtf8(source_helper));
  }
  RemoveStaleHelperFolders();
  IsolatedHelper made;
  PrivateFolder folder =
      CreatePrivateFolder(kFolderPrefix, "_" + std::to_string(CurrentProcessId()));
  made.runtime_dir = folder.path;
  made.folder_hold = std::move(folder.hold);
  if (made.runtime_dir.empty()) {
    return Fail(error, "Cannot create temporary updater helper directory.");
  }
  made.helper = made.runtime_dir / kHelperName;
  if (!RetryCopyFile(source_helper, made.helper, "helper staging copy failed", error)) {
    return false;
  }
  for (const std::string_view name : kRuntimeLibraries) {
    const fs::Path library = source_helper.parent_path() / name;
    if (!fs::IsRegularFile(library)) continue;
    if (!RetryCopyFile(library, made.runtime_dir / name, "helper runtime DLL staging copy failed",
                       error)) {
      return false;
    }
    made.copied_libraries.emplace_back(name);
  }
  // Without this copy the helper runs, but no crash of it is observed.
  static_cast<void>(
      RetryCopyFile(source_helper, made.runtime_dir / kObserverName, "observer copy", nullptr));
  *prepared = std::move(made);
  return true;
}

void RemoveStaleHelperFolders() {
  const fs::Path temp = TempDirectory();
  if (temp.empty()) return;
  std::error_code ec;
  for (const fs::DirectoryEntry& entry : fs::ListDirectory(temp, ec)) {
    if (entry.kind != fs::EntryKind::kDirectory) continue;
    if (!PathToUtf8(entry.path.filename()).starts_with(kFolderPrefix)) continue;
    const std::chrono::seconds age = fs::AgeOf(entry.path, ec);
    if (!ec && age >= kStaleAge) fs::RemoveTree(entry.path, ec);
  }
}

}  // namespace zul

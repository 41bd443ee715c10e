#include "core/private_folder.h"

#include "core/file_layer.h"

namespace zul {

PrivateFolder CreatePrivateFolderAt(const fs::Path& path) {
  std::error_code ec;
  if (fs::CreateDirectoryOnce(path, ec) != fs::CreateResult::kCreated) return {};
  return {path, {}};
}

}  // namespace zul

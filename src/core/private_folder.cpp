#include "core/private_folder.h"

#include <chrono>
#include <string>

#include "core/file_layer.h"
#include "core/process_environment.h"

namespace zul {

std::string_view PrivateFolderSecurity(const ProcessRights& rights) {
  // An elevated process that is no administrator could not use the folder itself.
  if (!rights.is_elevated || !rights.is_administrator) return {};
  // The owner, who may always change the access list, is the Administrators group, because the user
  // also has processes that are not elevated. P: nothing is inherited from the temporary folder.
  // The access list has the administrators (BA) and the system (SY) with all rights (FA). ML: a
  // process of less than high integrity (HI) writes nothing (NW). OICI: all this is inherited.
  return "O:BAD:P(A;OICI;FA;;;BA)(A;OICI;FA;;;SY)S:(ML;OICI;NW;;;HI)";
}

PrivateFolder CreatePrivateFolder(std::string_view prefix, std::string_view suffix) {
  const fs::Path temp = TempDirectory();
  std::error_code ec;
  if (temp.empty() || !fs::CreateDirectories(temp, ec)) return {};
  const auto nanoseconds = std::chrono::duration_cast<std::chrono::nanoseconds>(
      std::chrono::steady_clock::now().time_since_epoch());
  std::string name(prefix);
  name.append(std::to_string(nanoseconds.count())).append(suffix);
  return CreatePrivateFolderAt(temp / name);
}

}  // namespace zul

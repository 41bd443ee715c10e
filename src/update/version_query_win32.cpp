#include "update/version_query.h"

#include <windows.h>

#include <cwchar>
#include <string>

#include "core/build_identity.h"
#include "update/update_run.h"

namespace zul {

namespace {

void WriteWhole(HANDLE output, const std::string& text) {
  std::size_t done = 0;
  while (done < text.size()) {
    DWORD written = 0;
    const auto rest = static_cast<DWORD>(text.size() - done);
    if (!::WriteFile(output, text.data() + done, rest, &written, nullptr) || written == 0) return;
    done += written;
  }
}

}  // namespace

bool AsksForVersion(int argc, const wchar_t* const* argv) {
  for (int i = 1; i < argc; ++i) {
    if (argv[i] != nullptr && std::wcscmp(argv[i], L"--print-app-version-json") == 0) return true;
  }
  return false;
}

int PrintAppVersion() {
  const std::string json = BuildAppVersionJson();
  HANDLE output = ::GetStdHandle(STD_OUTPUT_HANDLE);
  if (output == nullptr || output == INVALID_HANDLE_VALUE) return kExitDone;
  if (!json.empty()) WriteWhole(output, json);
  WriteWhole(output, "\n");
  return kExitDone;
}

}  // namespace zul

// A replacement for the Restart Manager, since Wine's never names a process that holds a file. It
// is built as rstrtmgr.dll and installed in the system folder of the rig's prefix. Its answers are
// in the UTF-8 file that QORVA_RIG_HOLDERS names. Each line has fields with a tab between them:
//
//   C:\x\engine.dll  80  Scanner  3  scansvc     path, pid, application name, RM_APP_TYPE, service:
//                                                this process holds the file as long as it runs
//   !RmGetList  5                                the call fails with this code; "!RmGetList(read)"
//                                                is the second call, which has room for the answer
//
// Without that file no process holds any file. The name of each call is appended as a line to the
// file of the same name followed by ".calls".

#include <windows.h>

#include <restartmanager.h>

#include <algorithm>
#include <cstdlib>
#include <cwchar>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "core/handle_win32.h"
#include "core/text.h"

namespace {

using Line = std::vector<std::string>;  // of five fields

std::wstring registered;  // the updater has one session at a time

std::filesystem::path Holders(const wchar_t* extension = L"") {
  std::wstring path(32768, L'\0');
  path.resize(
      GetEnvironmentVariableW(L"QORVA_RIG_HOLDERS", path.data(), static_cast<DWORD>(path.size())));
  return path + extension;
}

std::vector<Line> ReadLines() {
  std::vector<Line> lines;
  std::ifstream file(Holders(), std::ios::binary);
  for (std::string row; std::getline(file, row);) {
    Line& line = lines.emplace_back();
    std::istringstream fields(row);
    for (std::string field; std::getline(fields, field, '\t');) line.push_back(field);
    line.resize(5);
  }
  return lines;
}

DWORD Number(const std::string& text) {
  return static_cast<DWORD>(std::strtoul(text.c_str(), nullptr, 10));
}

/// Writes down the call and returns its prepared result.
DWORD Answer(const std::string& call) {
  std::ofstream(Holders(L".calls"), std::ios::binary | std::ios::app) << call + "\n";
  for (const Line& line : ReadLines()) {
    if (line[0] == "!" + call) return Number(line[1]);
  }
  return ERROR_SUCCESS;
}

bool Runs(DWORD pid) {
  const zul::UniqueKernelHandle process(OpenProcess(SYNCHRONIZE, FALSE, pid));
  return process && WaitForSingleObject(process.get(), 0) == WAIT_TIMEOUT;
}

void Copy(const std::string& text, WCHAR* out, std::size_t size) {
  const std::wstring wide = zul::Utf8ToWide(text).value_or(L"");
  std::copy_n(wide.data(), std::min(wide.size(), size - 1), out);
}

std::vector<RM_PROCESS_INFO> HoldersOfRegistered() {
  std::vector<RM_PROCESS_INFO> holders;
  for (const Line& line : ReadLines()) {
    const std::wstring path = zul::Utf8ToWide(line[0]).value_or(L"");
    const DWORD pid = Number(line[1]);
    if (_wcsicmp(path.c_str(), registered.c_str()) != 0 || !Runs(pid)) continue;
    RM_PROCESS_INFO& holder = holders.emplace_back();
    holder.Process.dwProcessId = pid;
    Copy(line[2], holder.strAppName, CCH_RM_MAX_APP_NAME + 1);
    holder.ApplicationType = static_cast<RM_APP_TYPE>(Number(line[3]));
    Copy(line[4], holder.strServiceShortName, CCH_RM_MAX_SVC_NAME + 1);
  }
  return holders;
}

}  // namespace

extern "C" {

DWORD WINAPI RmStartSession(DWORD* session, DWORD, WCHAR* key) {
  std::fill_n(key, CCH_RM_SESSION_KEY, L'0');
  key[CCH_RM_SESSION_KEY] = L'\0';
  *session = 1;
  registered.clear();
  return Answer("RmStartSession");
}

DWORD WINAPI RmRegisterResources(DWORD, UINT count, LPCWSTR* files, UINT, RM_UNIQUE_PROCESS*, UINT,
                                 LPCWSTR*) {
  if (count != 1) return ERROR_BAD_ARGUMENTS;
  registered = files[0];
  return Answer("RmRegisterResources");
}

DWORD WINAPI RmGetList(DWORD, UINT* needed, UINT* count, RM_PROCESS_INFO* room, DWORD* reasons) {
  if (const DWORD code = Answer(*count == 0 ? "RmGetList" : "RmGetList(read)")) return code;
  const std::vector<RM_PROCESS_INFO> holders = HoldersOfRegistered();
  *needed = static_cast<UINT>(holders.size());
  *reasons = 0;
  if (*needed > *count) return ERROR_MORE_DATA;
  std::copy(holders.begin(), holders.end(), room);
  *count = *needed;
  return ERROR_SUCCESS;
}

DWORD WINAPI RmEndSession(DWORD) {
  return Answer("RmEndSession");
}

}  // extern "C"

// A stand-in for the system's Restart Manager, which Wine has only in name: its own never knows who
// holds a file. Built as rstrtmgr.dll and put into the system folder of the rig's prefix, it gives
// the answers that the rig wrote down beforehand, in the UTF-8 file that QORVA_RIG_HOLDERS names,
// of lines with a tab between their fields:
//
//   C:\x\engine.dll  80  Scanner  3  scansvc     path, pid, application name, RM_APP_TYPE, service;
//                                                holds as long as the process runs
//   !RmGetList  5                                the call fails with this code; "!RmGetList(read)"
//                                                is the second one, which has room for the answer
//
// Without that file nobody holds anything. Each call's name goes into a line of the same file's
// name with ".calls" behind it.

#include <windows.h>

#include <restartmanager.h>

#include <algorithm>
#include <cstdio>
#include <cwchar>
#include <sstream>
#include <string>
#include <vector>

#include "core/handle_win32.h"
#include "core/text.h"

namespace {

using zul::Utf8ToWide;

struct Line {
  std::vector<std::string> fields;
};

std::wstring registered;  // one session at a time is all that is asked of us

std::wstring HoldersPath() {
  std::wstring path(32768, L'\0');
  path.resize(
      GetEnvironmentVariableW(L"QORVA_RIG_HOLDERS", path.data(), static_cast<DWORD>(path.size())));
  return path;
}

std::FILE* Open(const std::wstring& path, const wchar_t* mode) {
  return path.empty() ? nullptr : _wfopen(path.c_str(), mode);
}

std::vector<Line> ReadLines() {
  std::FILE* const file = Open(HoldersPath(), L"rb");
  if (file == nullptr) return {};
  std::string text;
  char block[4096];
  for (std::size_t n = 0; (n = std::fread(block, 1, sizeof block, file)) > 0;)
    text.append(block, n);
  std::fclose(file);
  std::vector<Line> lines;
  std::istringstream stream(text);
  for (std::string row; std::getline(stream, row);) {
    Line line;
    std::istringstream fields(row);
    for (std::string field; std::getline(fields, field, '\t');) line.fields.push_back(field);
    line.fields.resize(5);
    lines.push_back(std::move(line));
  }
  return lines;
}

DWORD Number(const std::string& text) {
  return static_cast<DWORD>(std::strtoul(text.c_str(), nullptr, 10));
}

/// Notes the call, and says how it ends when that was laid down.
DWORD Answer(const std::string& call) {
  const std::wstring holders = HoldersPath();
  if (std::FILE* const file = Open(holders.empty() ? holders : holders + L".calls", L"ab")) {
    std::fputs((call + "\n").c_str(), file);
    std::fclose(file);
  }
  for (const Line& line : ReadLines()) {
    if (line.fields[0] == "!" + call) return Number(line.fields[1]);
  }
  return ERROR_SUCCESS;
}

bool Runs(DWORD pid) {
  const zul::UniqueKernelHandle process(OpenProcess(SYNCHRONIZE, FALSE, pid));
  return process && WaitForSingleObject(process.get(), 0) == WAIT_TIMEOUT;
}

template <std::size_t size>
void Copy(const std::string& text, WCHAR (&out)[size]) {
  const std::wstring wide = Utf8ToWide(text).value_or(L"");
  std::copy_n(wide.data(), std::min(wide.size(), size - 1), out);
}

std::vector<RM_PROCESS_INFO> Holders() {
  std::vector<RM_PROCESS_INFO> holders;
  for (const Line& line : ReadLines()) {
    const std::wstring path = Utf8ToWide(line.fields[0]).value_or(L"");
    const DWORD pid = Number(line.fields[1]);
    if (_wcsicmp(path.c_str(), registered.c_str()) != 0 || !Runs(pid)) continue;
    RM_PROCESS_INFO holder{};
    holder.Process.dwProcessId = pid;
    Copy(line.fields[2], holder.strAppName);
    holder.ApplicationType = static_cast<RM_APP_TYPE>(Number(line.fields[3]));
    Copy(line.fields[4], holder.strServiceShortName);
    holders.push_back(holder);
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
  const std::vector<RM_PROCESS_INFO> holders = Holders();
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

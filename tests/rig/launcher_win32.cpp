// Starts one program the way Windows would, for the end-to-end runs, which see only the Unix side
// of Wine: an exact command line, variables that Wine would otherwise set from its registry (TEMP),
// a standard output that is missing altogether, the Windows process id, and all 32 bits of the exit
// code.
//
//   launcher.exe job report
//
// `job` is a UTF-8 file of lines: "command=" and the command line; "env=NAME=VALUE", any number of
// them; "folder=" and the working directory; "output=none" for a program without standard handles
// (otherwise it inherits ours); "timeout_ms=", after which the program is terminated.
// `report` gets "pid=N" at once, and at the end "exit=N" or "exit=timeout".
// Exit codes: 0 the program ran, whatever it returned; 1 it could not be started; 3 bad usage.

#include <windows.h>

#include <cstdio>
#include <string>

namespace {

struct Job {
  std::wstring command;
  std::wstring folder;
  bool without_output = false;
  DWORD timeout_ms = 60000;
};

std::wstring Widen(const std::string& text) {
  const int size = static_cast<int>(text.size());
  const int units =
      MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, text.data(), size, nullptr, 0);
  std::wstring wide(static_cast<std::size_t>(units), L'\0');
  MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, text.data(), size, wide.data(), units);
  return wide;
}

Job ReadJob(const wchar_t* path) {
  Job job;
  std::FILE* file = _wfopen(path, L"rb");
  if (file == nullptr) return job;
  std::string text;
  char block[4096];
  for (std::size_t n = 0; (n = std::fread(block, 1, sizeof block, file)) > 0;)
    text.append(block, n);
  std::fclose(file);
  for (std::size_t start = 0; start < text.size();) {
    const std::size_t end = text.find('\n', start);
    const std::string line = text.substr(start, end - start);
    start = end == std::string::npos ? text.size() : end + 1;
    const std::size_t equals = line.find('=');
    if (equals == std::string::npos) continue;
    const std::string key = line.substr(0, equals);
    const std::string value = line.substr(equals + 1);
    if (key == "command") job.command = Widen(value);
    if (key == "folder") job.folder = Widen(value);
    if (key == "output") job.without_output = value == "none";
    if (key == "timeout_ms") job.timeout_ms = static_cast<DWORD>(std::stoul(value));
    if (key == "env") {
      const std::size_t split = value.find('=');
      SetEnvironmentVariableW(Widen(value.substr(0, split)).c_str(),
                              Widen(value.substr(split + 1)).c_str());
    }
  }
  return job;
}

void Report(const wchar_t* path, const std::string& line) {
  if (std::FILE* file = _wfopen(path, L"ab"); file != nullptr) {
    std::fputs((line + "\n").c_str(), file);
    std::fclose(file);
  }
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
  if (argc != 3) return 3;
  Job job = ReadJob(argv[1]);
  if (job.command.empty()) return 3;
  STARTUPINFOW startup{};
  startup.cb = sizeof startup;
  if (job.without_output) startup.dwFlags = STARTF_USESTDHANDLES;  // all three stay null
  PROCESS_INFORMATION process{};
  if (!CreateProcessW(nullptr, job.command.data(), nullptr, nullptr, !job.without_output, 0,
                      nullptr, job.folder.empty() ? nullptr : job.folder.c_str(), &startup,
                      &process)) {
    Report(argv[2], "failed=" + std::to_string(GetLastError()));
    return 1;
  }
  Report(argv[2], "pid=" + std::to_string(process.dwProcessId));
  DWORD code = 0;
  if (WaitForSingleObject(process.hProcess, job.timeout_ms) == WAIT_OBJECT_0 &&
      GetExitCodeProcess(process.hProcess, &code)) {
    Report(argv[2], "exit=" + std::to_string(code));
  } else {
    TerminateProcess(process.hProcess, 1);
    Report(argv[2], "exit=timeout");
  }
  CloseHandle(process.hThread);
  CloseHandle(process.hProcess);
  return 0;
}

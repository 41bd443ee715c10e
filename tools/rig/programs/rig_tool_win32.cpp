// What the rig does on the Windows side of Wine. Output is UTF-8. Exit code 64 means wrong
// arguments.
//
//   run --report=PATH --folder=PATH --timeout-ms=N [--press=ok|yes|no|cancel] [--wait-at-boxes]
//       [--no-output] -- COMMAND LINE
//       Starts a program with exactly this command line. Its TEMP and TMP are RIG_TEMP (Wine would
//       take them from its registry). It gets our standard output, or none with --no-output. It is
//       terminated after the time-out. With --press, the text of each message box titled
//       "QORVA Updater" is read and this button pressed, or the first button when the box does not
//       have it. Each event is appended to PATH as a line of JSON: {"pid":80};
//       {"box":{"buttons":["yes","no"],"icon":"error","text":"..."}}; {"exit":18},
//       with all 32 bits, or {"exit":"timeout"}; {"failed":2} when the program cannot be started.
//       With
//       --wait-at-boxes a box stays until PATH.go exists.
//   close CLASS PID           posts WM_CLOSE to the windows of this class and process
//   click CLASS PID ID        waits up to 20 s until such a window has an enabled button with this
//                             id, prints its text and clicks it
//   watch CLASS PID [--disturb]
//       Asks such windows again and again, until the process has ended, whether the session may end
//       (WM_QUERYENDSESSION), and prints {"answers":1234,"longest_ms":80,"slow":[[80100,80180]],
//       "consents":[true,false],"topmost":[true]}: the longest wait for an answer; the send and
//       answer times of all answers that took 50 ms or more, in ms of a clock that all processes
//       share, 5000 ms apart when there was no answer; the answers and whether the window was
//       topmost, each without repetitions. With --disturb it also posts what starts a move, a menu
//       or another loop of the system.
//   hold FILE [--on-input] [--from-child]
//       Holds a file open, so that others can only read it, until standard input ends; with
//       --on-input it opens the file after a line of input. Prints "held" and its pid. With
//       --from-child a child process does this, and this process prints "parent" and its pid and
//       ends.
//   attack FILE OTHER
//       After a line of input, tries to write OTHER over FILE, to move a copy of OTHER over it and
//       to delete it, again and again, until a try succeeds or FILE is gone. Prints how often each
//       error came: {"refused":{"delete":{"32":9},"move":{"5":9},"write":{"32":9}}}
//   copy TEXT [--keep-open]   puts a text into the clipboard, prints "written", and runs until
//                             standard input ends: under Wine the clipboard needs a running
//                             owner. With --keep-open no other process can open the clipboard
//                             before a line of input.
//   paste                     prints the text of the clipboard
//   crash PID                 crashes a process without attaching as its debugger
//   load NAME...              loads libraries by name and with the default search order; prints the
//                             path of each
//   verify FILE...            checks the signatures of files with the product's verifier and prints
//                             for each {"detail":"valid","publisher":"X","signer":"X","status":0};
//                             "signer" is read from the file also when it is not valid

#include "tools/rig/programs/rig_tool_win32.h"

#include <cstdint>
#include <cstring>
#include <map>
#include <nlohmann/json.hpp>

#include "core/handle_win32.h"
#include "core/text.h"
#include "package/payload_signatures.h"

namespace zul::rig {
namespace {

/// False at the end of standard input.
bool WaitForInput() {
  char byte = 0;
  DWORD read = 0;
  return ReadFile(GetStdHandle(STD_INPUT_HANDLE), &byte, 1, &read, nullptr) && read != 0;
}

void WaitForEndOfInput() {
  while (WaitForInput()) {
  }
}

/// Starts this program again with the same command line without the flag.
int LeaveToChild(const std::wstring& flag) {
  std::wstring command = GetCommandLineW();
  command.replace(command.find(flag), flag.size(), L"");
  STARTUPINFOW startup{};
  startup.cb = sizeof startup;
  PROCESS_INFORMATION child{};
  PrintLine("parent " + std::to_string(GetCurrentProcessId()));
  return CreateProcessW(nullptr, command.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr,
                        &startup, &child)
             ? 0
             : 1;
}

int HoldFile(const Arguments& arguments) {
  if (OptionValue(arguments, "--from-child")) return LeaveToChild(L"--from-child");
  if (OptionValue(arguments, "--on-input")) WaitForInput();
  UniqueFileHandle file;
  const std::wstring path = Widen(arguments.at(0));
  if (!WaitUntil(10000, [&] {
        file.Reset(CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                               0, nullptr));
        return file.valid();
      })) {
    return 1;
  }
  PrintLine("held " + std::to_string(GetCurrentProcessId()));
  WaitForEndOfInput();
  return 0;
}

int AttackFile(const Arguments& arguments) {
  const std::wstring file = Widen(arguments.at(0)), other = Widen(arguments.at(1));
  const std::wstring spare = other + L".spare";
  const std::map<std::string, std::function<BOOL()>> kTries = {
      {"write", [&] { return CopyFileW(other.c_str(), file.c_str(), FALSE); }},
      {"move", [&] { return MoveFileExW(spare.c_str(), file.c_str(), MOVEFILE_REPLACE_EXISTING); }},
      {"delete", [&] { return DeleteFileW(file.c_str()); }}};
  CopyFileW(other.c_str(), spare.c_str(), FALSE);
  WaitForInput();
  std::map<std::string, std::map<std::string, int>> refused;
  for (bool held = true; held; Sleep(1)) {
    for (const auto& [name, attempt] : kTries) {
      const DWORD error = attempt() ? 0 : GetLastError();
      held = held && (error == ERROR_SHARING_VIOLATION || error == ERROR_ACCESS_DENIED);
      if (!held) break;
      ++refused[name][std::to_string(error)];
    }
  }
  PrintLine(nlohmann::json{{"refused", refused}}.dump());
  return 0;
}

bool OpenClipboardFor(HWND window) {
  return WaitUntil(5000, [window] { return OpenClipboard(window) != FALSE; });
}

int Paste(const Arguments&) {
  if (!OpenClipboardFor(nullptr)) return 1;
  const HANDLE block = GetClipboardData(CF_UNICODETEXT);
  if (block == nullptr) return 1;
  PrintLine(WideToUtf8Lossy(static_cast<const wchar_t*>(GlobalLock(block))));
  return 0;
}

int Copy(const Arguments& arguments) {
  const std::wstring text = Widen(arguments.at(0));
  const bool keep_open = OptionValue(arguments, "--keep-open").has_value();
  // Under Wine the clipboard is locked only when it is opened with a window.
  const HWND window = keep_open ? CreateWindowExW(0, L"STATIC", L"", 0, 0, 0, 0, 0, HWND_MESSAGE,
                                                  nullptr, nullptr, nullptr)
                                : nullptr;
  if (!OpenClipboardFor(window)) return 1;
  const std::size_t size = (text.size() + 1) * sizeof(wchar_t);
  HGLOBAL block = GlobalAlloc(GMEM_MOVEABLE, size);
  std::memcpy(GlobalLock(block), text.c_str(), size);
  GlobalUnlock(block);
  EmptyClipboard();
  SetClipboardData(CF_UNICODETEXT, block);
  if (!keep_open) CloseClipboard();
  PrintLine("written");
  if (keep_open && WaitForInput()) {
    CloseClipboard();
    DestroyWindow(
        window);  // the owner of the clipboard must answer messages, and this one does not
  }
  WaitForEndOfInput();
  return 0;
}

int CrashProcess(const Arguments& arguments) {
  const UniqueKernelHandle process(
      OpenProcess(PROCESS_ALL_ACCESS, FALSE, static_cast<DWORD>(std::stoul(arguments.at(0)))));
  // A thread that reads a string at an invalid address. ntdll.dll has the same address in every
  // process. (A thread that starts at an invalid address is no choice: Wine's dbghelp.dll crashes
  // at addresses without unwind information in a module with a build id.)
  const auto read_text = reinterpret_cast<LPTHREAD_START_ROUTINE>(
      reinterpret_cast<void (*)()>(GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "wcslen")));
  const auto nowhere = reinterpret_cast<void*>(std::uintptr_t{0x10});
  const UniqueKernelHandle thread(
      CreateRemoteThread(process.get(), nullptr, 0, read_text, nowhere, 0, nullptr));
  return thread ? 0 : 1;
}

int LoadLibraries(const Arguments& arguments) {
  for (const std::string& name : arguments) {
    wchar_t path[1024] = L"";
    GetModuleFileNameW(LoadLibraryW(Widen(name).c_str()), path, 1024);
    PrintLine(WideToUtf8Lossy(path));
  }
  return 0;
}

int VerifySignatures(const Arguments& arguments) {
  for (const std::string& path : arguments) {
    const UpdatePayloadBinarySignatureResult result = VerifyBinarySignature(path);
    PrintLine(nlohmann::json{{"status", static_cast<std::int32_t>(result.status)},
                             {"detail", result.detail},
                             {"publisher", result.publisher},
                             {"signer", ReadSignerDisplayName(path)}}
                  .dump());
  }
  return 0;
}

const std::map<std::string, int (*)(const Arguments&)> kVerbs = {{"run", &RunProgram},
                                                                 {"close", &CloseWindows},
                                                                 {"click", &ClickButton},
                                                                 {"watch", &WatchWindow},
                                                                 {"hold", &HoldFile},
                                                                 {"attack", &AttackFile},
                                                                 {"copy", &Copy},
                                                                 {"paste", &Paste},
                                                                 {"crash", &CrashProcess},
                                                                 {"load", &LoadLibraries},
                                                                 {"verify", &VerifySignatures}};

int Run(Arguments arguments) {
  const auto verb = arguments.empty() ? kVerbs.end() : kVerbs.find(arguments.front());
  if (verb == kVerbs.end()) return kUsageExit;
  arguments.erase(arguments.begin());
  return verb->second(arguments);
}

}  // namespace
}  // namespace zul::rig

int wmain() {
  return zul::rig::Run(zul::rig::CommandLineArguments());
}

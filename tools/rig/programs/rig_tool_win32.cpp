// What the end-to-end runs do on the Windows side of Wine. Everything printed is UTF-8; exit code
// 64 stands for wrong arguments.
//
//   run --report=PATH --folder=PATH --timeout-ms=N [--press=ok|yes|no|cancel] [--wait-at-boxes]
//       [--no-output] -- COMMAND LINE
//       Starts a program the way Windows would: an exact command line, RIG_TEMP as its TEMP and TMP
//       (which Wine would set from its registry), with our standard output or with none at all, and
//       terminates it after the time. With --press each message box titled "QORVA Updater" is read
//       and dismissed by that button, or by its first one where it has no such button. PATH gets a
//       line of JSON for each event: {"pid":80}; {"box":{"buttons":["yes","no"],"icon":"error",
//       "text":"..."}}; {"exit":18}, all 32 bits of it, or {"exit":"timeout"}; {"failed":2} when it
//       could not be started. With --wait-at-boxes a box stays until PATH.go exists.
//   close CLASS PID           posts WM_CLOSE to the windows of a class of a process
//   click CLASS PID ID        waits up to 20 s for a button of this id that can be pressed in such
//   a
//                             window, prints its text and clicks it
//   watch CLASS PID           asks such windows for a sign of life over and over until the process
//                             has ended, and prints {"answers":1234,"slow":[[80100,80180]]}: each
//                             answer of 50 ms or more by when it was asked for and when it came,
//                             in ms of the system's clock; 5000 ms stand for none at all
//   hold FILE [--when-told] [--from-child]
//       Holds a file open, so that others can only read it, until standard input ends; with
//       --when-told it opens it once a line comes. Prints "held" and its pid. With --from-child a
//       child does all that, and this process prints "parent" and its pid and ends.
//   copy TEXT [--keep-open]   puts a text into the clipboard, prints "written", and stays until
//                             standard input ends: under Wine a clipboard lasts as long as some
//                             program runs. With --keep-open nobody else can open it until a line
//                             comes.
//   paste                     prints the clipboard's text
//   crash PID                 crashes a process without being its debugger
//   load NAME...              loads libraries by their names alone, as a program does that leaves
//                             the search open; prints the path of each
//   verify FILE...            asks the product's verifier about files and prints for each a line
//                             {"detail":"valid","publisher":"X","signer":"X","status":0}, where
//                             "signer" is what is read from the file whatever the verdict

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

void WaitForTheEnd() {
  while (WaitForInput()) {
  }
}

/// Starts this program again with the same command line but for a flag.
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
  if (OptionValue(arguments, "--when-told")) WaitForInput();
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
  WaitForTheEnd();
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
  // Under Wine those who open it without a window do not keep each other out.
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
    DestroyWindow(window);  // as its owner it would be asked, and would not answer
  }
  WaitForTheEnd();
  return 0;
}

int CrashProcess(const Arguments& arguments) {
  const UniqueKernelHandle process(
      OpenProcess(PROCESS_ALL_ACCESS, FALSE, static_cast<DWORD>(std::stoul(arguments.at(0)))));
  // A thread that reads a text where nothing is, by the one library that lies at the same place in
  // every process. (A thread that starts where no code is would do, too, but Wine's dbghelp.dll
  // dies itself of addresses without unwind information in a module with a build id.)
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

const std::map<std::string, int (*)(const Arguments&)> kVerbs = {
    {"run", &RunProgram},     {"close", &CloseWindows},
    {"click", &ClickButton},  {"watch", &WatchWindow},
    {"hold", &HoldFile},      {"copy", &Copy},
    {"paste", &Paste},        {"crash", &CrashProcess},
    {"load", &LoadLibraries}, {"verify", &VerifySignatures}};

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

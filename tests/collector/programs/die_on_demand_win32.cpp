// Dies as it is told, under the eyes of an observer. For the tests of the collector.
//
//   die_on_demand.exe CRASH_FOLDER INSTALL_FOLDER WAY SECRET
//
// Starts the collector and prints one line of JSON: "reason", "session", and "rva" and "thread" of
// what is going to crash. Then it waits for the end of its standard input and dies in
// that way; the ways stand at the end of this file. SECRET is text that no evidence may hold: it is
// in the command line, on the heap and on the stack.
// Exit codes of its own: 64 wrong arguments, 99 it lived on.

#include <windows.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <thread>

#include "collector/collector.h"
#include "core/text.h"
#include "tools/rig/programs/program_support_win32.h"

namespace {

using namespace zul;

[[noreturn]] void SleepForEver() {
  for (;;) ::Sleep(INFINITE);
}

template <UINT kCode>
void Exit() {
  RecordProcessExitCode(1);  // the last one counts
  RecordProcessExitCode(7);
  ::ExitProcess(kCode);
}

void WriteNull() {
  volatile int* volatile nowhere = nullptr;
  *nowhere = 1;
}

/// More callers than are told.
void WriteNullDeepDown() {
  static int depth = 0;
  void (*volatile next)() = depth < 100 ? WriteNullDeepDown : WriteNull;
  ++depth;
  next();
  next = nullptr;  // so that the call is not the last thing to do
}

/// In large steps: the compiler touches a large frame before it moves the stack pointer, so that
/// there is room below for the handling of the overflow. Wine gives none, whatever it was asked
/// for.
void OverflowStack() {
  void (*volatile again)() = OverflowStack;
  std::array<volatile char, 65536> much;
  much[0] = 1;
  again();
  much[1] = 1;  // so that the call is not the last thing to do
}

/// Windows shows a throw that nobody catches to the filter first. Wine does not.
void Throw() {
  EXCEPTION_RECORD thrown{};
  thrown.ExceptionCode = 0x20474343;  // as GCC's runtime raises it
  EXCEPTION_POINTERS exception{&thrown, nullptr};
  ::UnhandledExceptionFilter(&exception);
  throw std::runtime_error("nobody catches this");
}

/// While the first crash waits for the observer, which the test holds up, a second thread crashes
/// in another way and ends the process.
void CrashTwice() {
  std::thread([emergency = CompactSessionDirectory() / "emergency.bin"] {
    std::error_code ec;
    while (fs::SizeOf(emergency, ec) == 0) ::Sleep(10);
    ::Sleep(200);
    ::RaiseException(EXCEPTION_ILLEGAL_INSTRUCTION, 0, 0, nullptr);
  }).detach();
  WriteNull();
}

/// Another thread holds the locks of all heaps: whoever asks for memory from now on waits for ever.
void CrashWithHeapsLocked() {
  static const HANDLE held = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
  std::thread([] {
    std::array<HANDLE, 64> heaps;
    const DWORD count = ::GetProcessHeaps(static_cast<DWORD>(heaps.size()), heaps.data());
    for (DWORD i = 0; i < count; ++i) ::HeapLock(heaps[i]);
    ::SetEvent(held);
    SleepForEver();
  }).detach();
  ::WaitForSingleObject(held, INFINITE);
  WriteNull();
}

/// The unwind information of this function says that it continues in itself, so that whoever walks
/// the stack goes round in it ("x64 exception handling" in the platform's documentation). It ends
/// by std::terminate, which does not walk it.
void TerminateInALoopOfUnwinding() {
  CONTEXT here;
  ::RtlCaptureContext(&here);
  DWORD64 image = 0;
  const RUNTIME_FUNCTION* const function = ::RtlLookupFunctionEntry(here.Rip, &image, nullptr);
  constexpr std::size_t kHeadSize = 4;
  auto* const info = reinterpret_cast<unsigned char*>(image + function->UnwindData);
  DWORD before = 0;
  ::VirtualProtect(info, kHeadSize + sizeof *function, PAGE_READWRITE, &before);
  std::memset(info, 0, kHeadSize);
  info[0] = 1 | UNW_FLAG_CHAININFO << 3;  // version 1, no codes
  std::memcpy(info + kHeadSize, function, sizeof *function);
  std::terminate();
}

using Way = std::pair<std::string_view, void (*)()>;
constexpr Way kWays[] = {{"exit-declared", Exit<7>},
                         {"exit-other", Exit<8>},

                         {"abort", std::abort},
                         {"wait", SleepForEver},
                         {"null-write", WriteNull},
                         {"deep-null-write", WriteNullDeepDown},
                         {"stack-overflow", OverflowStack},
                         {"uncaught", Throw},
                         {"crash-twice", CrashTwice},
                         {"heaps-locked", CrashWithHeapsLocked},
                         {"unwind-loop", TerminateInALoopOfUnwinding}};

}  // namespace

int wmain() {
  const std::vector<std::string> arguments = rig::CommandLineArguments();
  const auto* const way = std::find_if(std::begin(kWays), std::end(kWays), [&](const Way& known) {
    return arguments.size() == 4 && known.first == arguments[2];
  });
  if (way == std::end(kWays)) return rig::kUsageExit;
  // The filter that is there before the collector's: as if somebody had handled everything, so that
  // the system neither asks nor calls for a debugger.
  ::SetUnhandledExceptionFilter(
      [](EXCEPTION_POINTERS*) -> LONG { return EXCEPTION_EXECUTE_HANDLER; });
  const CollectorStartResult start =
      StartCompactCollector(*PathFromUtf8(arguments[0]), *PathFromUtf8(arguments[1]));
  const auto base = reinterpret_cast<std::uintptr_t>(::GetModuleHandleW(nullptr));
  const nlohmann::json line = {{"reason", start.failure_reason},
                               {"session", start.session_directory},
                               {"rva", reinterpret_cast<std::uintptr_t>(way->second) - base},
                               {"thread", ::GetCurrentThreadId()}};
  rig::PrintLine(line.dump());
  std::array<char, 256> secret{};  // on the stack, beside what is walked
  arguments[3].copy(secret.data(), secret.size() - 1);
  while (std::fgets(secret.data() + 128, 64, stdin) != nullptr) {
  }
  way->second();
  return secret[0] == '\0' ? 98 : 99;
}

// A process that starts the collector and then ends in a chosen way. For the tests of the
// collector.
//
//   die_on_demand.exe CRASH_FOLDER INSTALL_FOLDER WAY SECRET
//
// Starts the collector and prints one line of JSON: "reason" and "session" of the start, and "rva"
// and "thread" of the function that will crash. At the end of its standard input it ends in the way
// WAY; kWays below lists the ways. SECRET is text that no evidence may hold: it is in the command
// line, on the heap and on the stack.
// Exit codes of its own: 64 for wrong arguments, 98 and 99 when it did not end.

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
#include "core/file_layer.h"
#include "core/text.h"
#include "tools/rig/programs/program_support_win32.h"

namespace {

using namespace zul;

[[noreturn]] void SleepForEver() {
  for (;;) ::Sleep(INFINITE);
}

template <UINT kCode>
void Exit() {
  RecordProcessExitCode(1);  // the last declared code counts
  RecordProcessExitCode(7);
  EndUnobservedSession();
  ::ExitProcess(kCode);
}

void WriteNull() {
  volatile int* volatile nowhere = nullptr;
  *nowhere = 1;
}

/// Crashes with more callers than a record holds.
void WriteNullDeepDown() {
  static int depth = 0;
  void (*volatile next)() = depth < 100 ? WriteNullDeepDown : WriteNull;
  ++depth;
  next();
  next = nullptr;  // after the call, so that it is no tail call
}

/// Uses large frames: the compiler touches a large frame before it moves the stack pointer, so that
/// room remains for the handling of the overflow. Under Wine SetThreadStackGuarantee reserves none.
void OverflowStack() {
  void (*volatile again)() = OverflowStack;
  std::array<volatile char, 65536> much;
  much[0] = 1;
  again();
  much[1] = 1;  // after the call, so that it is no tail call
}

/// Windows passes an uncaught throw to the exception filter first. Wine does not, so this does.
void Throw() {
  EXCEPTION_RECORD thrown{};
  thrown.ExceptionCode = 0x20474343;  // as GCC's runtime raises it
  EXCEPTION_POINTERS exception{&thrown, nullptr};
  ::UnhandledExceptionFilter(&exception);
  throw std::runtime_error("uncaught");
}

/// While the first crash waits for the observer, which the test has suspended, a second thread
/// crashes with another code and ends the process.
void CrashTwice() {
  std::thread([emergency = CompactSessionDirectory() / "emergency.bin"] {
    std::error_code ec;
    while (fs::SizeOf(emergency, ec) == 0) ::Sleep(10);
    ::Sleep(200);
    ::RaiseException(EXCEPTION_ILLEGAL_INSTRUCTION, 0, 0, nullptr);
  }).detach();
  WriteNull();
}

void Terminate() {
  std::terminate();
}

/// Another thread holds the locks of all heaps, so that an allocation in the crash path never
/// returns.
template <void (*kCrash)()>
void WithHeapsLocked() {
  static const HANDLE held = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
  std::thread([] {
    std::array<HANDLE, 64> heaps;
    const DWORD count = ::GetProcessHeaps(static_cast<DWORD>(heaps.size()), heaps.data());
    for (DWORD i = 0; i < count; ++i) ::HeapLock(heaps[i]);
    ::SetEvent(held);
    SleepForEver();
  }).detach();
  ::WaitForSingleObject(held, INFINITE);
  kCrash();
}

/// Chains the unwind information of this function to itself ("x64 exception handling" in the
/// platform's documentation), so that a walk of its stack never returns. Ends by std::terminate,
/// which does not walk the stack.
void TerminateInAnUnwindLoop() {
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
                         {"wait", SleepForEver},
                         {"null-write", WriteNull},
                         {"deep-null-write", WriteNullDeepDown},
                         {"stack-overflow", OverflowStack},
                         {"uncaught", Throw},
                         {"crash-twice", CrashTwice},
                         {"heaps-locked", WithHeapsLocked<WriteNull>},
                         {"terminate-heaps-locked", WithHeapsLocked<Terminate>},
                         {"unwind-loop", TerminateInAnUnwindLoop}};

}  // namespace

int wmain() {
  const std::vector<std::string> arguments = rig::CommandLineArguments();
  const auto* const way = std::find_if(std::begin(kWays), std::end(kWays), [&](const Way& known) {
    return arguments.size() == 4 && known.first == arguments[2];
  });
  if (way == std::end(kWays)) return rig::kUsageExit;
  // The filter before the collector's. It handles every exception, so that the system shows no box
  // and starts no debugger.
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
  std::array<char, 256> secret{};  // on the stack, next to the frames that are walked
  arguments[3].copy(secret.data(), secret.size() - 1);
  while (std::fgets(secret.data() + 128, 64, stdin) != nullptr) {
  }
  way->second();
  return secret[0] == '\0' ? 98 : 99;
}

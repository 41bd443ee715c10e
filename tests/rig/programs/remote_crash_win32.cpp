// Crashes another process from outside, without being its debugger.
//
//   remote_crash.exe --pid N
//
// Starts a thread in that process that reads a text where nothing is. (A thread that starts where
// no code is would do, too, but Wine's dbghelp.dll dies itself of addresses without unwind
// information in a module with a build id.)
// Exit codes: 0 the thread was started; 1 it could not be; 64 wrong arguments.

#include <windows.h>

#include <cstdint>

#include "core/handle_win32.h"
#include "tests/rig/programs/program_support_win32.h"

int wmain() {
  zul::rig::Options options(zul::rig::CommandLineArguments());
  const auto pid = options.TakeNumber("--pid");
  if (!pid || !options.empty()) return zul::rig::Usage("usage: remote_crash --pid N");
  const zul::UniqueKernelHandle process(
      ::OpenProcess(PROCESS_ALL_ACCESS, FALSE, static_cast<DWORD>(*pid)));
  // The one library that lies at the same place in every process.
  const auto read_text = reinterpret_cast<LPTHREAD_START_ROUTINE>(
      reinterpret_cast<void (*)()>(::GetProcAddress(::GetModuleHandleW(L"ntdll.dll"), "wcslen")));
  const auto nowhere = reinterpret_cast<void*>(std::uintptr_t{0x10});
  const zul::UniqueKernelHandle thread(
      ::CreateRemoteThread(process.get(), nullptr, 0, read_text, nowhere, 0, nullptr));
  return thread ? 0 : 1;
}

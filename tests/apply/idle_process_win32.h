#pragma once

#include <windows.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "core/handle_win32.h"
#include "core/process_environment.h"

namespace zul::test {

/// A process that does nothing until it is ended.
class IdleProcess {
 public:
  IdleProcess() {
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION info{};
    std::wstring command = L"\"" + CurrentExecutablePath(260).native() + L"\"";
    EXPECT_TRUE(::CreateProcessW(nullptr, command.data(), nullptr, nullptr, FALSE, CREATE_SUSPENDED,
                                 nullptr, nullptr, &startup, &info));
    process_.Reset(info.hProcess);
    thread_.Reset(info.hThread);
    pid = info.dwProcessId;
  }
  ~IdleProcess() { End(); }

  void End() const {
    ::TerminateProcess(process_.get(), 0);
    ::WaitForSingleObject(process_.get(), 5000);
  }

  /// STILL_ACTIVE while it runs.
  [[nodiscard]] DWORD ExitCode() const {
    DWORD code = 0;
    EXPECT_TRUE(::GetExitCodeProcess(process_.get(), &code));
    return code;
  }

  std::uint32_t pid = 0;

 private:
  UniqueKernelHandle process_;
  UniqueKernelHandle thread_;
};

}  // namespace zul::test

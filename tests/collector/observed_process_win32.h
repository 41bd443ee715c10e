#pragma once

// Processes that die under the eyes of the real observer, for _win32.cpp files of the tests only.

#include <windows.h>

#include <gtest/gtest.h>

#include <array>
#include <nlohmann/json.hpp>
#include <string>

#include "collector/evidence_record.h"
#include "core/handle_win32.h"
#include "core/system_library_win32.h"
#include "core/text.h"
#include "tests/support/temp_folder.h"

namespace zul::test {

/// Texts that no evidence may hold. Every observed process has the first in its memory; the others
/// are the folders of its scene.
inline constexpr std::array<std::string_view, 4> kPrivate = {
    "Jana Novotná, licence 4711-0815-2342", "Kancelář Nováková", "QORVA RIP žluť", "qorva-test-"};

/// A file of the build that this test program belongs to.
[[nodiscard]] inline fs::Path Built(const std::string& relative) {
  std::array<wchar_t, 4096> self{};
  ::GetModuleFileNameW(nullptr, self.data(), static_cast<DWORD>(self.size()));
  const fs::Path build = fs::Path(self.data()).parent_path().parent_path().parent_path();
  return (build / relative).make_preferred();
}

/// A folder for evidence and an installation with the observer, in folders with private names.
struct Scene {
  Scene() { WriteFile(observer, ReadFile(Built("src/app/qorva_updater.exe"))); }
  const TempFolder folder;
  const fs::Path crash = folder.path() / *PathFromUtf8(kPrivate[1]);
  const fs::Path install = crash / *PathFromUtf8(kPrivate[2]);
  const fs::Path observer = install / "qorva_updater.exe";
};

/// One process of die_on_demand_win32.cpp, ended with this object.
class ObservedProcess {
 public:
  /// Returns once its collector has started, or has failed to.
  ObservedProcess(const Scene& scene, const std::string& way, const std::string& program) {
    std::wstring command;
    for (const fs::Path& argument :
         {Built("tests/collector/programs/" + program + ".exe"), scene.crash, scene.install,
          fs::Path(way), *PathFromUtf8(kPrivate[0])}) {
      command += L'"' + argument.native() + L"\" ";
    }
    std::array<HANDLE, 4> ends{};
    SECURITY_ATTRIBUTES inherited{sizeof inherited, nullptr, TRUE};
    EXPECT_TRUE(::CreatePipe(&ends[0], &ends[1], &inherited, 0));
    EXPECT_TRUE(::CreatePipe(&ends[2], &ends[3], &inherited, 0));
    const UniqueKernelHandle its_input(ends[0]);
    const UniqueKernelHandle output(ends[2]);
    UniqueKernelHandle its_output(ends[3]);
    input_.Reset(ends[1]);
    ::SetHandleInformation(input_.get(), HANDLE_FLAG_INHERIT, 0);
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = its_input.get();
    startup.hStdOutput = its_output.get();
    PROCESS_INFORMATION created{};
    EXPECT_TRUE(::CreateProcessW(nullptr, command.data(), nullptr, nullptr, TRUE, CREATE_NO_WINDOW,
                                 nullptr, nullptr, &startup, &created));
    const UniqueKernelHandle thread(created.hThread);
    process_.Reset(created.hProcess);
    its_output.Reset();
    std::string line;
    DWORD read = 0;
    for (char c = 0; c != '\n' && ::ReadFile(output.get(), &c, 1, &read, nullptr) && read == 1;) {
      line += c;
    }
    start_ = nlohmann::json::parse(line, nullptr, false);
    EXPECT_TRUE(start_.is_object()) << "it did not start";
  }
  ~ObservedProcess() { ::TerminateProcess(process_.get(), 1); }

  /// What it printed about its start: reason, session, rva, thread.
  [[nodiscard]] const nlohmann::json& start() const { return start_; }
  [[nodiscard]] fs::Path session() const { return *PathFromUtf8(start_.value("session", "")); }
  [[nodiscard]] HANDLE handle() const { return process_.get(); }
  void Die() { input_.Reset(); }

 private:
  UniqueKernelHandle process_;
  UniqueKernelHandle input_;
  nlohmann::json start_;
};

/// Waits for the end of a process, at most half a minute; its exit code.
[[nodiscard]] inline DWORD ExitCodeOf(HANDLE process) {
  EXPECT_EQ(::WaitForSingleObject(process, 30000), WAIT_OBJECT_0) << "it did not end";
  DWORD code = STILL_ACTIVE;
  ::GetExitCodeProcess(process, &code);
  return code;
}

/// Stops all threads of a process with "NtSuspendProcess", lets them go on with "NtResumeProcess".
inline void Let(const char* function, HANDLE process) {
  const SystemFunction<LONG NTAPI(HANDLE)> native(L"ntdll.dll", function);
  EXPECT_EQ(native(process), 0);
}

/// A record of a session; fails the test when there is none.
[[nodiscard]] inline nlohmann::json Record(const fs::Path& path) {
  nlohmann::json record = nlohmann::json::object();
  std::string error;
  EXPECT_TRUE(ReadEvidenceRecord(path, &record, &error)) << path << ": " << error;
  return record;
}

/// "key key key" of a record, with "-" for what is missing.
[[nodiscard]] inline std::string Told(const nlohmann::json& record,
                                      std::initializer_list<const char*> keys) {
  std::string told;
  for (const char* key : keys) {
    const nlohmann::json value = record.value(key, nlohmann::json("-"));
    told += " " + (value.is_string() ? value.get<std::string>() : value.dump());
  }
  return told.substr(1);
}

/// Fails the test when a file in `folder` holds a private text, as UTF-8 or UTF-16.
inline void ExpectNothingPrivate(const fs::Path& folder) {
  std::error_code ec;
  for (const fs::DirectoryEntry& entry : fs::ListDirectory(folder, ec)) {
    const std::string bytes = ReadFile(entry.path);
    for (const std::string_view text : kPrivate) {
      const std::wstring wide = Utf8ToWide(text).value();
      const std::string_view as_bytes(reinterpret_cast<const char*>(wide.data()), 2 * wide.size());
      EXPECT_EQ(bytes.find(text), bytes.npos) << PathToUtf8(entry.path) << " holds " << text;
      EXPECT_EQ(bytes.find(as_bytes), bytes.npos) << PathToUtf8(entry.path) << " holds " << text;
    }
  }
}

}  // namespace zul::test

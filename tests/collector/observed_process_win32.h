#pragma once

// Processes that die under the eyes of the real observer, for _win32.cpp files of the tests only.

#include <windows.h>

#include <nlohmann/json.hpp>
#include <string>

#include "collector/shared_block_win32.h"
#include "core/handle_win32.h"
#include "tests/support/temp_folder.h"

namespace zul::test {

/// Text that no evidence may hold. Every observed process has it in its memory.
inline constexpr const char* kSecret = "Jana Novotná, licence 4711-0815-2342";

/// A file of the build that this test program belongs to.
[[nodiscard]] fs::Path Built(std::string_view relative);

/// An installation with the observer, and crash folders beside it, all of it in folders with
/// private names.
class Scene {
 public:
  Scene();

  [[nodiscard]] const fs::Path& install() const { return install_; }
  [[nodiscard]] fs::Path Observer() const { return install_ / "qorva_updater.exe"; }
  /// A crash folder, which is made.
  [[nodiscard]] fs::Path CrashFolder(std::string_view name) const;

 private:
  TempFolder folder_;
  fs::Path install_;
};

/// One process of die_on_demand_win32.cpp, ended with this object.
class ObservedProcess {
 public:
  /// Returns once its collector has started, or has failed to.
  ObservedProcess(const Scene& scene, const fs::Path& crash_folder, std::string_view way,
                  const fs::Path& program = Built("tests/collector/programs/die_on_demand.exe"));
  ~ObservedProcess();
  ObservedProcess(const ObservedProcess&) = delete;
  ObservedProcess& operator=(const ObservedProcess&) = delete;

  /// What it printed about its start: ready, reason, session, rva, thread.
  [[nodiscard]] const nlohmann::json& start() const { return start_; }
  [[nodiscard]] fs::Path session() const;
  [[nodiscard]] HANDLE handle() const { return process_.get(); }
  /// The observer's process, by its own record.
  [[nodiscard]] UniqueKernelHandle OpenObserver() const;
  void Die() { input_.Reset(); }

 private:
  UniqueKernelHandle process_;
  UniqueKernelHandle input_;
  nlohmann::json start_;
};

/// What a process shares with its observer, taken from the observer.
struct SharedObjects {
  explicit SharedObjects(HANDLE observer);

  UniqueKernelHandle mapping;
  UniqueKernelHandle crash_event;
  UniqueKernelHandle ready_event;
  UniqueSharedBlock block;
};

/// Starts a program with arguments.
[[nodiscard]] UniqueKernelHandle StartProgram(const fs::Path& program,
                                              const std::wstring& arguments);

/// Waits for the end of a process, at most half a minute; its exit code.
[[nodiscard]] DWORD ExitCodeOf(HANDLE process);

/// Stops all threads of a process, and lets them go on.
void Suspend(HANDLE process);
void Resume(HANDLE process);

/// A record of a session; fails the test when there is none.
[[nodiscard]] nlohmann::json Record(const fs::Path& session, std::string_view name);

/// "key key key" of a record, with "-" for what is missing.
[[nodiscard]] std::string Told(const nlohmann::json& record,
                               std::initializer_list<const char*> keys);

/// Fails the test when a file below `folder` holds a path of the scene, the user's name or the
/// secret, as UTF-8 or UTF-16.
void ExpectNothingPrivate(const fs::Path& folder);

}  // namespace zul::test

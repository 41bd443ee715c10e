#include "collector/observer_launch_win32.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace zul {

namespace {

/// Handles that children inherit until the end of the scope.
class InheritableHandles {
 public:
  explicit InheritableHandles(const ObserverHandles& handles) : handles_(handles) {}
  ~InheritableHandles() {
    for (const HANDLE handle : handles_) ::SetHandleInformation(handle, HANDLE_FLAG_INHERIT, 0);
  }
  InheritableHandles(const InheritableHandles&) = delete;
  InheritableHandles& operator=(const InheritableHandles&) = delete;

  [[nodiscard]] bool Mark() {
    return std::all_of(handles_.begin(), handles_.end(), [](HANDLE handle) {
      return ::SetHandleInformation(handle, HANDLE_FLAG_INHERIT, HANDLE_FLAG_INHERIT) != FALSE;
    });
  }

 private:
  const ObserverHandles& handles_;
};

/// The attributes of a new process: one, the list of all that it inherits.
class InheritanceList {
 public:
  InheritanceList() = default;
  ~InheritanceList() {
    if (list_ != nullptr) ::DeleteProcThreadAttributeList(list_);
  }
  InheritanceList(const InheritanceList&) = delete;
  InheritanceList& operator=(const InheritanceList&) = delete;

  [[nodiscard]] bool Init() {
    SIZE_T size = 0;
    ::InitializeProcThreadAttributeList(nullptr, 1, 0, &size);
    if (size == 0) return false;
    memory_.resize(size);
    auto* const list = reinterpret_cast<LPPROC_THREAD_ATTRIBUTE_LIST>(memory_.data());
    if (!::InitializeProcThreadAttributeList(list, 1, 0, &size)) return false;
    list_ = list;
    return true;
  }

  /// `handles` must outlive the list.
  [[nodiscard]] bool Allow(ObserverHandles& handles) {
    return ::UpdateProcThreadAttribute(list_, 0, PROC_THREAD_ATTRIBUTE_HANDLE_LIST, handles.data(),
                                       sizeof handles, nullptr, nullptr) != FALSE;
  }

  [[nodiscard]] LPPROC_THREAD_ATTRIBUTE_LIST get() const { return list_; }

 private:
  std::vector<std::byte> memory_;
  LPPROC_THREAD_ATTRIBUTE_LIST list_ = nullptr;
};

std::wstring CommandLine(const fs::Path& executable, const ObserverHandles& handles) {
  std::wstring line = L'"' + executable.native() + L"\" --observe";
  for (const HANDLE handle : handles) {
    line += L' ' + std::to_wstring(reinterpret_cast<std::uintptr_t>(handle));
  }
  return line;
}

UniqueKernelHandle Fail(const char* word, std::string* reason) {
  *reason = word;
  return {};
}

}  // namespace

UniqueKernelHandle LaunchObserver(const fs::Path& executable, const fs::Path& directory,
                                  const ObserverHandles& handles, std::string* reason) {
  InheritableHandles inheritable(handles);
  if (!inheritable.Mark()) return Fail("collector_handle_inheritance_failed", reason);
  ObserverHandles allowed = handles;
  InheritanceList list;
  if (!list.Init()) return Fail("collector_attribute_init_failed", reason);
  if (!list.Allow(allowed)) return Fail("collector_handle_allowlist_failed", reason);
  STARTUPINFOEXW startup{};
  static_assert(sizeof startup == 112);
  startup.StartupInfo.cb = sizeof startup;
  startup.lpAttributeList = list.get();
  // CreateProcessW may write into the command line, hence a text of our own.
  std::wstring command_line = CommandLine(executable, handles);
  PROCESS_INFORMATION created{};
  if (!::CreateProcessW(executable.c_str(), command_line.data(), nullptr, nullptr, TRUE,
                        CREATE_NO_WINDOW | EXTENDED_STARTUPINFO_PRESENT, nullptr, directory.c_str(),
                        &startup.StartupInfo, &created)) {
    return Fail("collector_launch_failed", reason);
  }
  const UniqueKernelHandle thread(created.hThread);
  return UniqueKernelHandle(created.hProcess);
}

}  // namespace zul

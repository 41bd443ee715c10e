#include "collector/observer_launch_win32.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "core/failure.h"

namespace zul {

namespace {

/// Makes handles inheritable for the length of a scope.
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

/// The attribute list of a new process, with one attribute: the handles that it inherits.
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

}  // namespace

bool LaunchObserver(const fs::Path& executable, const fs::Path& directory,
                    const ObserverHandles& handles, UniqueKernelHandle* observer,
                    std::string* reason) {
  InheritableHandles inheritable(handles);
  if (!inheritable.Mark()) return Fail(reason, "collector_handle_inheritance_failed");
  ObserverHandles allowed = handles;
  InheritanceList list;
  if (!list.Init()) return Fail(reason, "collector_attribute_init_failed");
  if (!list.Allow(allowed)) return Fail(reason, "collector_handle_allowlist_failed");
  STARTUPINFOEXW startup{};
  static_assert(sizeof startup == 112);
  startup.StartupInfo.cb = sizeof startup;
  startup.lpAttributeList = list.get();
  // CreateProcessW may change the text of the command line, so it gets a copy.
  std::wstring command_line = CommandLine(executable, handles);
  PROCESS_INFORMATION created{};
  if (!::CreateProcessW(executable.c_str(), command_line.data(), nullptr, nullptr, TRUE,
                        CREATE_NO_WINDOW | EXTENDED_STARTUPINFO_PRESENT, nullptr, directory.c_str(),
                        &startup.StartupInfo, &created)) {
    return Fail(reason, "collector_launch_failed");
  }
  const UniqueKernelHandle thread(created.hThread);
  observer->Reset(created.hProcess);
  return true;
}

}  // namespace zul

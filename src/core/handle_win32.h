#pragma once

// Owners of Win32 handles. For _win32.cpp files only. There is one template; a new kind of handle
// needs a traits type.

#include <windows.h>

#include <utility>

namespace zul {

/// Owns one handle and closes it. Traits has `Type`, `Invalid()` and `Close(handle)`.
template <typename Traits>
class UniqueHandle {
 public:
  using Type = typename Traits::Type;

  UniqueHandle() = default;
  explicit UniqueHandle(Type handle) : handle_(handle) {}
  ~UniqueHandle() { Reset(); }
  UniqueHandle(UniqueHandle&& other) noexcept : handle_(other.Release()) {}
  UniqueHandle& operator=(UniqueHandle&& other) noexcept {
    if (this != &other) Reset(other.Release());
    return *this;
  }
  UniqueHandle(const UniqueHandle&) = delete;
  UniqueHandle& operator=(const UniqueHandle&) = delete;

  [[nodiscard]] Type get() const { return handle_; }
  [[nodiscard]] bool valid() const { return handle_ != Traits::Invalid(); }
  explicit operator bool() const { return valid(); }

  /// Returns the handle and gives up its ownership.
  [[nodiscard]] Type Release() { return std::exchange(handle_, Traits::Invalid()); }

  /// Closes the owned handle and takes ownership of `handle`.
  void Reset(Type handle = Traits::Invalid()) {
    Type old = std::exchange(handle_, handle);
    if (old != Traits::Invalid()) Traits::Close(old);
  }

 private:
  Type handle_ = Traits::Invalid();
};

/// Handles whose invalid value is INVALID_HANDLE_VALUE: files, snapshots.
struct FileHandleTraits {
  using Type = HANDLE;
  static HANDLE Invalid() { return INVALID_HANDLE_VALUE; }
  static void Close(HANDLE handle) { ::CloseHandle(handle); }
};
using UniqueFileHandle = UniqueHandle<FileHandleTraits>;

/// Handles whose invalid value is null: processes, threads, events, mappings.
struct KernelHandleTraits {
  using Type = HANDLE;
  static HANDLE Invalid() { return nullptr; }
  static void Close(HANDLE handle) { ::CloseHandle(handle); }
};
using UniqueKernelHandle = UniqueHandle<KernelHandleTraits>;

/// Memory that a system call has allocated and that LocalFree releases.
template <typename Pointer>
struct LocalMemoryTraits {
  using Type = Pointer;
  static Pointer Invalid() { return nullptr; }
  static void Close(Pointer memory) { ::LocalFree(memory); }
};
template <typename Pointer>
using UniqueLocalMemory = UniqueHandle<LocalMemoryTraits<Pointer>>;

}  // namespace zul

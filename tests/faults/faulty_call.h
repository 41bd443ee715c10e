#pragma once

// What happens in a call of a wrapped primitive. See faulty_file_layer.h.

#include <cstdint>
#include <cstdlib>
#include <new>
#include <optional>
#include <string_view>
#include <type_traits>
#include <utility>

#include "tests/faults/faulty_file_layer.h"

namespace zul::test {

// The names that CMakeLists.txt uses.
using fs::File;
using fs::Path;
using Error = std::error_code;
using Size = std::size_t;

/// True while there is a script.
[[nodiscard]] bool HasScript();

/// Counts a call and asks the script about it.
[[nodiscard]] Verdict Judge(Call call, std::string_view name, const Path& subject);

// SubjectOf gives the subject of a call with these arguments. Nothing for a file that is not open,
// whose close does not reach the system.
template <typename... Rest>
std::optional<Path> SubjectOf(const File* file, const Rest&...) {
  Error ignored;
  return file->is_open() ? std::optional(file->Whereabouts(ignored)) : std::nullopt;
}
template <typename... Rest>
std::optional<Path> SubjectOf(const Path& /*from*/, const Path& to, const Rest&...) {
  return to;
}
template <typename... Rest>
std::optional<Path> SubjectOf(const Path& path, const Rest&...) {
  return path;
}
template <typename... Rest>
std::optional<Path> SubjectOf(const File& folder, const Path& name, const Rest&...) {
  Error ignored;
  return folder.Whereabouts(ignored) / name;
}
template <typename... Rest>
std::optional<Path> SubjectOf(const fs::TreeWalker* /*walker*/, const Rest&...) {
  return Path();
}

// DoPart does what is done of a call that does not succeed.
template <typename Real, typename... Arguments>
void DoPart(Real /*real*/, const Arguments&...) {}
inline void DoPart(bool (*write)(File*, const void*, Size, Size*, Error&), File* file,
                   const void* data, Size size, Size* written, Error& ec) {
  static_cast<void>(write(file, data, size / 2, written, ec));
  *written = 0;
}
inline void DoPart(bool (*flush_or_close)(File*, Error&), File* file, Error& ec) {
  static_cast<void>(flush_or_close(file, ec));
}

// SetError changes the argument that reports an error, and no other.
inline void SetError(Error& ec, const Error& error) {
  ec = error;
}
template <typename Other>
void SetError(const Other& /*argument*/, const Error& /*error*/) {}

/// True while the thread is inside a primitive.
inline constinit thread_local bool inside_a_primitive = false;

/// The body of every wrapper.
template <typename Result, typename... Parameters>
Result Pass(Call call, std::string_view name, Result (*real)(Parameters...),
            std::type_identity_t<Parameters>... arguments) {
  if (inside_a_primitive || !HasScript()) return real(arguments...);
  const struct Inside {
    Inside() { inside_a_primitive = true; }
    ~Inside() { inside_a_primitive = false; }
  } inside;
  const std::optional<Path> subject = SubjectOf(arguments...);
  const Verdict verdict = subject ? Judge(call, name, *subject) : Verdict();
  if (verdict.fate == Fate::kProceed) return real(arguments...);
  if (verdict.fate == Fate::kThrow || verdict.fate == Fate::kFailWhenDone) {
    static_cast<void>(real(arguments...));
  } else {
    DoPart(real, arguments...);
  }
  if (verdict.fate == Fate::kThrow) throw std::bad_alloc();
  if (verdict.fate == Fate::kDie) std::_Exit(kDied);
  (SetError(arguments, verdict.error), ...);
  if constexpr (std::is_same_v<Result, fs::EntryKind>) {
    if (verdict.fate == Fate::kDeny) return fs::EntryKind::kNotFound;
  }
  if constexpr (std::is_same_v<Result, fs::CreateResult>) return fs::CreateResult::kFailed;
  return Result();
}

}  // namespace zul::test

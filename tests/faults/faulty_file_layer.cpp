#include "tests/faults/faulty_file_layer.h"

#include <mz.h>

#include <cerrno>
#include <ctime>
#include <string>
#include <utility>

#include "core/system_error.h"
#include "core/text.h"
#include "tests/faults/other_process.h"
#include "tests/faults/wrapped_symbols.h"
#include "tests/support/file_tricks.h"

// NOLINTBEGIN(bugprone-reserved-identifier, bugprone-macro-parentheses): the linker's names
#define QORVA_JOINED(prefix, symbol) prefix##symbol
#define QORVA_NAMED(prefix, symbol) QORVA_JOINED(prefix, symbol)
#define QORVA_REAL(name) QORVA_NAMED(__real_, QORVA_##name)
#define QORVA_WRAPPED(result, name, parameters)                    \
  extern "C" result QORVA_REAL(name) parameters;                   \
  extern "C" result QORVA_NAMED(__wrap_, QORVA_##name) parameters; \
  extern "C" result QORVA_NAMED(__wrap_, QORVA_##name) parameters
#define QORVA_PRIMITIVE(result, name, parameters, ...) \
  QORVA_WRAPPED(result, name, parameters) {            \
    return Pass(#name, QORVA_REAL(name), __VA_ARGS__); \
  }

namespace zul::test {

namespace {

using fs::File;
using fs::Path;
using Code = std::int32_t;
using Error = std::error_code;
using Size = std::size_t;

struct State {
  bool armed = false;
  bool in_a_call = false;
  FaultPlan plan;
  std::vector<FileCall> calls;
} state;

extern "C" Path QORVA_REAL(Whereabouts)(const File* file, Error& ec);

// What a call is about, by its arguments: an open file, the target of a rename, the only path;
// nothing where it is the archive, a walk or an open folder.
template <typename... Rest>
Path SubjectOf(const File* file, const Rest&...) {
  Error ignored;
  fs::FileFacts facts;
  if (!file->Facts(&facts, ignored) || facts.is_directory) return {};
  return QORVA_REAL(Whereabouts)(file, ignored);
}
template <typename... Rest>
Path SubjectOf(const Path& /*from*/, const Path& to, const Rest&...) {
  return to;
}
template <typename... Rest>
Path SubjectOf(const Path& path, const Rest&...) {
  return path;
}
template <typename... Rest>
Path SubjectOf(const void* /*stream*/, const Rest&...) {
  return {};
}

/// One call on its way through.
class Passage {
 public:
  Passage(std::string_view name, const Path& subject) {
    if (!state.armed) return;
    is_outermost_ = !std::exchange(state.in_a_call, true);
    const std::string text = is_outermost_ ? PathToUtf8(subject) : std::string();
    state.calls.push_back({name, *PathFromUtf8(text.substr(0, text.rfind(".zul_update_tmp_")))});
    number_ = state.calls.size();
    if (Is(Fault::kDieBefore)) EndThisProcess();
  }
  ~Passage() {
    if (Is(Fault::kDieAfter)) EndThisProcess();
    if (is_outermost_) state.in_a_call = false;
  }
  Passage(const Passage&) = delete;
  Passage& operator=(const Passage&) = delete;

  [[nodiscard]] bool Is(Fault fault) const {
    return number_ == state.plan.at && state.plan.fault == fault;
  }

  [[nodiscard]] bool Fails() const {
    if (Is(Fault::kFail)) return true;
    if (state.plan.fault != Fault::kFailForGood || number_ < state.plan.at) return false;
    const FileCall& failed = state.calls[state.plan.at - 1];
    const FileCall& call = state.calls[number_ - 1];
    return call.name == failed.name && call.subject == failed.subject;
  }

 private:
  std::size_t number_ = 0;  // while nothing is armed
  bool is_outermost_ = false;
};

void Explain(Error& ec) {
  ec = state.plan.error;
}
template <typename Other>
void Explain(const Other& /*argument*/) {}

template <typename Result>
Result Failure() {
  if constexpr (std::is_same_v<Result, fs::CreateResult>) return fs::CreateResult::kFailed;
  if constexpr (std::is_same_v<Result, Code>) return MZ_STREAM_ERROR;
  return {};
}

template <typename Result, typename... Arguments>
Result Pass(std::string_view name, Result (*real)(Arguments...),
            std::type_identity_t<Arguments>... arguments) {
  const Passage passage(name, SubjectOf(arguments...));
  if (!passage.Fails()) return real(arguments...);
  (Explain(arguments), ...);
  return Failure<Result>();
}

}  // namespace

void ArmFaults(const FaultPlan& plan) {
  state = {true, false, plan, {}};
}

std::vector<FileCall> DisarmFaults() {
  return std::exchange(state, {}).calls;
}

std::array<std::error_code, 4> FaultErrors() {
  // ERROR_ACCESS_DENIED, ERROR_SHARING_VIOLATION, ERROR_DISK_FULL and ERROR_IO_DEVICE
  if (kOnWindows) return {SystemError(5), SystemError(32), SystemError(112), SystemError(1117)};
  return {SystemError(EACCES), SystemError(EBUSY), SystemError(ENOSPC), SystemError(EIO)};
}

// clang-format off
QORVA_PRIMITIVE(bool, OpensExclusively, (const Path& path, Error& ec), path, ec)
QORVA_PRIMITIVE(File, OpenForRead, (const Path& path, Error& ec), path, ec)
QORVA_PRIMITIVE(File, CreateNewFile, (const Path& path, fs::NewFileAccess access, Error& ec),
                path, access, ec)
QORVA_PRIMITIVE(bool, Read, (File* file, void* to, Size size, Size* read, Error& ec),
                file, to, size, read, ec)
QORVA_PRIMITIVE(bool, Flush, (File* file, Error& ec), file, ec)
QORVA_PRIMITIVE(bool, Size, (const File* file, std::uint64_t* bytes, Error& ec), file, bytes, ec)
QORVA_PRIMITIVE(bool, TakeTimeAndAttributes, (File* file, const File& source, Error& ec),
                file, source, ec)
QORVA_PRIMITIVE(Path, Whereabouts, (const File* file, Error& ec), file, ec)
QORVA_PRIMITIVE(fs::EntryKind, KindOf, (const Path& path, fs::Links links, Error& ec),
                path, links, ec)
QORVA_PRIMITIVE(Path, Canonical, (const Path& path, Error& ec), path, ec)
QORVA_PRIMITIVE(Path, WeaklyCanonical, (const Path& path, Error& ec), path, ec)
QORVA_PRIMITIVE(std::uint64_t, AvailableSpace, (const Path& path, Error& ec), path, ec)
QORVA_PRIMITIVE(bool, Next, (fs::TreeWalker* walker, fs::DirectoryEntry* entry, Error& ec),
                walker, entry, ec)
QORVA_PRIMITIVE(fs::CreateResult, CreateDirectoryOnce, (const Path& path, Error& ec), path, ec)
QORVA_PRIMITIVE(bool, Rename, (const Path& from, const Path& to, Error& ec), from, to, ec)
QORVA_PRIMITIVE(bool, MoveReplacing, (const Path& from, const Path& to, Error& ec), from, to, ec)
QORVA_PRIMITIVE(bool, Remove, (const Path& path, Error& ec), path, ec)
QORVA_PRIMITIVE(Code, ArchiveOpen, (void* stream, const char* path, Code mode), stream, path, mode)
QORVA_PRIMITIVE(Code, ArchiveSeek, (void* stream, std::int64_t by, Code from), stream, by, from)
QORVA_PRIMITIVE(Code, ArchiveRead, (void* stream, void* to, Code size), stream, to, size)
// clang-format on

QORVA_WRAPPED(bool, WriteSome,
              (File * file, const void* data, Size size, Size* written, Error& ec)) {
  const Passage passage("WriteSome", SubjectOf(file));
  const bool dies = passage.Is(Fault::kDieHalfway);
  if (!dies && !passage.Fails()) return QORVA_REAL(WriteSome)(file, data, size, written, ec);
  (void)QORVA_REAL(WriteSome)(file, data, size / 2, written, ec);
  if (dies) EndThisProcess();
  *written = 0;
  Explain(ec);
  return false;
}

QORVA_WRAPPED(bool, Close, (File * file, Error& ec)) {
  if (!file->is_open()) return QORVA_REAL(Close)(file, ec);
  const Passage passage("Close", SubjectOf(file));
  const bool ok = QORVA_REAL(Close)(file, ec);
  if (passage.Fails()) Explain(ec);
  return ok && !passage.Fails();
}

QORVA_WRAPPED(bool, RemoveTree, (const Path& path, Error& ec, const fs::KeepAlive& keep_alive)) {
  // Between two entries of the tree is a place to die too.
  const fs::KeepAlive at_each_entry = [&] {
    if (keep_alive) keep_alive();
    const Passage entry("RemoveTree entry", path);
  };
  return Pass("RemoveTree", QORVA_REAL(RemoveTree), path, ec, at_each_entry);
}

QORVA_WRAPPED(int, Sleep, (const timespec* duration, timespec* rest)) {
  return state.armed ? 0 : QORVA_REAL(Sleep)(duration, rest);
}

}  // namespace zul::test
// NOLINTEND(bugprone-reserved-identifier, bugprone-macro-parentheses)

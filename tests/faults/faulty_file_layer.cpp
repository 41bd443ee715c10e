#include "tests/faults/faulty_file_layer.h"

#include <mz.h>

#include <ctime>
#include <map>
#include <string>

#include "core/text.h"
#include "tests/faults/wrapped_symbols.h"

namespace zul::test {

namespace {

using fs::File;

struct State {
  bool armed = false;
  FaultPlan plan;
  std::vector<FileCall> calls;
  std::map<File::NativeHandle, fs::Path> open_files;
};

State& Now() {
  static State state;
  return state;
}

/// The only member of a file.
File::NativeHandle HandleOf(const File* file) {
  static_assert(std::is_standard_layout_v<File> && sizeof(File) == sizeof(File::NativeHandle));
  return *reinterpret_cast<const File::NativeHandle*>(file);
}

fs::Path PathOf(const File* file) {
  const auto found = Now().open_files.find(HandleOf(file));
  return found == Now().open_files.end() ? fs::Path() : found->second;
}

fs::Path WithoutTemporarySuffix(const fs::Path& path) {
  const std::string text = PathToUtf8(path);
  const std::size_t suffix = text.rfind(".zul_update_tmp_");
  return suffix == std::string::npos ? path : PathFromUtf8(text.substr(0, suffix)).value();
}

/// One call on its way through.
class Passage {
 public:
  Passage(std::string_view name, const fs::Path& subject) {
    State& state = Now();
    if (!state.armed) return;
    state.calls.push_back({name, WithoutTemporarySuffix(subject)});
    number_ = state.calls.size();
    if (is_at(Fault::kDieBefore)) EndThisProcess();
    fails_ = is_at(Fault::kFail) || is_at(Fault::kFailForGood) || IsAsTheOneThatFailed();
  }

  [[nodiscard]] bool fails() const { return fails_; }
  [[nodiscard]] bool dies_halfway() const { return is_at(Fault::kDieHalfway); }

  /// The outcome of a call that fails by plan.
  template <typename Result>
  Result Failure(Result result, std::error_code& ec) const {
    ec = Now().plan.error;
    return result;
  }

  template <typename Result>
  Result Done(Result result, bool ok) const {
    if (is_at(Fault::kDieAfter)) EndThisProcess();
    if (number_ != 0) Now().calls[number_ - 1].ok = ok;
    return result;
  }

 private:
  [[nodiscard]] bool is_at(Fault fault) const {
    return number_ != 0 && number_ == Now().plan.at && Now().plan.fault == fault;
  }

  [[nodiscard]] bool IsAsTheOneThatFailed() const {
    const State& state = Now();
    if (state.plan.fault != Fault::kFailForGood || number_ <= state.plan.at) return false;
    const FileCall& failed = state.calls[state.plan.at - 1];
    const FileCall& call = state.calls[number_ - 1];
    return call.name == failed.name && call.subject == failed.subject;
  }

  std::size_t number_ = 0;  // 0 while nothing is armed
  bool fails_ = false;
};

/// A call that reports through a code and returns `failure` when it fails.
template <typename Result, typename Call>
Result Pass(std::string_view name, const fs::Path& subject, std::error_code& ec, Result failure,
            Call call) {
  const Passage passage(name, subject);
  if (passage.dies_halfway()) EndThisProcess();
  if (passage.fails()) return passage.Failure(std::move(failure), ec);
  Result result = call();
  return passage.Done(std::move(result), !ec);
}

template <typename Call>
File PassOpening(std::string_view name, const fs::Path& path, std::error_code& ec, Call call) {
  File file = Pass(name, path, ec, File(), call);
  if (Now().armed && file.is_open()) Now().open_files[HandleOf(&file)] = path;
  return file;
}

/// A call of the library's file stream, which has codes of its own.
template <typename Call>
std::int32_t PassArchive(std::string_view name, std::int32_t failure, Call call) {
  std::error_code ec;
  return Pass(name, {}, ec, failure, [&] {
    const std::int32_t result = call();
    if (result < 0) ec = std::make_error_code(std::errc::io_error);
    return result;
  });
}

}  // namespace

void ArmFaults(const FaultPlan& plan) {
  Now() = {true, plan, {}, {}};
}

std::vector<FileCall> DisarmFaults() {
  Now().armed = false;
  return std::move(Now().calls);
}

// NOLINTBEGIN(bugprone-reserved-identifier): the linker's names
#define QORVA_JOINED(prefix, symbol) prefix##symbol
#define QORVA_NAMED(prefix, symbol) QORVA_JOINED(prefix, symbol)
#define QORVA_REAL(name) QORVA_NAMED(__real_, QORVA_##name)
#define QORVA_PRIMITIVE(result, name, ...)                           \
  extern "C" result QORVA_NAMED(__real_, QORVA_##name)(__VA_ARGS__); \
  extern "C" result QORVA_NAMED(__wrap_, QORVA_##name)(__VA_ARGS__); \
  extern "C" result QORVA_NAMED(__wrap_, QORVA_##name)(__VA_ARGS__)

QORVA_PRIMITIVE(File, OpenForRead, const fs::Path& path, std::error_code& ec) {
  return PassOpening("OpenForRead", path, ec, [&] { return QORVA_REAL(OpenForRead)(path, ec); });
}

QORVA_PRIMITIVE(File, CreateNewFile, const fs::Path& path, fs::NewFileAccess access,
                std::error_code& ec) {
  return PassOpening("CreateNewFile", path, ec,
                     [&] { return QORVA_REAL(CreateNewFile)(path, access, ec); });
}

QORVA_PRIMITIVE(bool, OpensExclusively, const fs::Path& path, std::error_code& ec) {
  return Pass("OpensExclusively", path, ec, false,
              [&] { return QORVA_REAL(OpensExclusively)(path, ec); });
}

QORVA_PRIMITIVE(bool, Read, File* file, void* buffer, std::size_t size, std::size_t* read,
                std::error_code& ec) {
  *read = 0;
  return Pass("Read", PathOf(file), ec, false,
              [&] { return QORVA_REAL(Read)(file, buffer, size, read, ec); });
}

QORVA_PRIMITIVE(bool, WriteSome, File* file, const void* data, std::size_t size,
                std::size_t* written, std::error_code& ec) {
  const Passage passage("WriteSome", PathOf(file));
  if (passage.fails() || passage.dies_halfway()) {
    (void)QORVA_REAL(WriteSome)(file, data, size / 2, written, ec);
    if (passage.dies_halfway()) EndThisProcess();
    *written = 0;
    return passage.Failure(false, ec);
  }
  const bool ok = QORVA_REAL(WriteSome)(file, data, size, written, ec);
  return passage.Done(ok, ok);
}

QORVA_PRIMITIVE(bool, Flush, File* file, std::error_code& ec) {
  return Pass("Flush", PathOf(file), ec, false, [&] { return QORVA_REAL(Flush)(file, ec); });
}

QORVA_PRIMITIVE(bool, Close, File* file, std::error_code& ec) {
  if (!file->is_open()) return QORVA_REAL(Close)(file, ec);
  const Passage passage("Close", PathOf(file));
  if (passage.dies_halfway()) EndThisProcess();
  Now().open_files.erase(HandleOf(file));
  const bool ok = QORVA_REAL(Close)(file, ec);
  if (passage.fails()) return passage.Failure(false, ec);
  return passage.Done(ok, ok);
}

QORVA_PRIMITIVE(bool, Size, const File* file, std::uint64_t* size_bytes, std::error_code& ec) {
  return Pass("Size", PathOf(file), ec, false,
              [&] { return QORVA_REAL(Size)(file, size_bytes, ec); });
}

QORVA_PRIMITIVE(bool, TakeTimeAndAttributes, File* file, const File& source, std::error_code& ec) {
  return Pass("TakeTimeAndAttributes", PathOf(file), ec, false,
              [&] { return QORVA_REAL(TakeTimeAndAttributes)(file, source, ec); });
}

QORVA_PRIMITIVE(fs::EntryKind, KindOf, const fs::Path& path, fs::Links links, std::error_code& ec) {
  return Pass("KindOf", path, ec, fs::EntryKind::kUnknown,
              [&] { return QORVA_REAL(KindOf)(path, links, ec); });
}

QORVA_PRIMITIVE(fs::Path, Whereabouts, const File* file, std::error_code& ec) {
  return Pass("Whereabouts", PathOf(file), ec, fs::Path(),
              [&] { return QORVA_REAL(Whereabouts)(file, ec); });
}

QORVA_PRIMITIVE(fs::Path, Canonical, const fs::Path& path, std::error_code& ec) {
  return Pass("Canonical", path, ec, fs::Path(), [&] { return QORVA_REAL(Canonical)(path, ec); });
}

QORVA_PRIMITIVE(fs::Path, WeaklyCanonical, const fs::Path& path, std::error_code& ec) {
  return Pass("WeaklyCanonical", path, ec, fs::Path(),
              [&] { return QORVA_REAL(WeaklyCanonical)(path, ec); });
}

QORVA_PRIMITIVE(std::uint64_t, AvailableSpace, const fs::Path& path, std::error_code& ec) {
  return Pass("AvailableSpace", path, ec, std::uint64_t{0},
              [&] { return QORVA_REAL(AvailableSpace)(path, ec); });
}

QORVA_PRIMITIVE(bool, Next, fs::TreeWalker* walker, fs::DirectoryEntry* entry,
                std::error_code& ec) {
  return Pass("Next", {}, ec, false, [&] { return QORVA_REAL(Next)(walker, entry, ec); });
}

QORVA_PRIMITIVE(fs::CreateResult, CreateDirectoryOnce, const fs::Path& path, std::error_code& ec) {
  return Pass("CreateDirectoryOnce", path, ec, fs::CreateResult::kFailed,
              [&] { return QORVA_REAL(CreateDirectoryOnce)(path, ec); });
}

QORVA_PRIMITIVE(bool, Rename, const fs::Path& from, const fs::Path& to, std::error_code& ec) {
  return Pass("Rename", to, ec, false, [&] { return QORVA_REAL(Rename)(from, to, ec); });
}

QORVA_PRIMITIVE(bool, MoveReplacing, const fs::Path& from, const fs::Path& to,
                std::error_code& ec) {
  return Pass("MoveReplacing", to, ec, false,
              [&] { return QORVA_REAL(MoveReplacing)(from, to, ec); });
}

QORVA_PRIMITIVE(bool, Remove, const fs::Path& path, std::error_code& ec) {
  return Pass("Remove", path, ec, false, [&] { return QORVA_REAL(Remove)(path, ec); });
}

QORVA_PRIMITIVE(bool, RemoveTree, const fs::Path& path, std::error_code& ec,
                const fs::KeepAlive& keep_alive) {
  // Between two entries of the tree is a place to die too.
  const fs::KeepAlive at_each_entry = [&] {
    if (keep_alive) keep_alive();
    const Passage entry("RemoveTree entry", path);
    (void)entry.Done(true, true);
  };
  return Pass("RemoveTree", path, ec, false,
              [&] { return QORVA_REAL(RemoveTree)(path, ec, at_each_entry); });
}

QORVA_PRIMITIVE(std::int32_t, ArchiveOpen, void* stream, const char* path, std::int32_t mode) {
  return PassArchive("ArchiveOpen", MZ_OPEN_ERROR,
                     [&] { return QORVA_REAL(ArchiveOpen)(stream, path, mode); });
}

QORVA_PRIMITIVE(std::int32_t, ArchiveSeek, void* stream, std::int64_t offset, std::int32_t origin) {
  return PassArchive("ArchiveSeek", MZ_SEEK_ERROR,
                     [&] { return QORVA_REAL(ArchiveSeek)(stream, offset, origin); });
}

QORVA_PRIMITIVE(std::int32_t, ArchiveRead, void* stream, void* buffer, std::int32_t size) {
  return PassArchive("ArchiveRead", MZ_READ_ERROR,
                     [&] { return QORVA_REAL(ArchiveRead)(stream, buffer, size); });
}

QORVA_PRIMITIVE(int, Sleep, const timespec* duration, timespec* rest) {
  return Now().armed ? 0 : QORVA_REAL(Sleep)(duration, rest);
}
// NOLINTEND(bugprone-reserved-identifier)

}  // namespace zul::test

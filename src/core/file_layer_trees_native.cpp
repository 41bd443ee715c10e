#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string_view>

#include "core/file_layer.h"
#include "core/system_error.h"

namespace zul::fs {

namespace {

struct CloseStream {
  void operator()(DIR* stream) const { ::closedir(stream); }
};
using DirectoryStream = std::unique_ptr<DIR, CloseStream>;

/// Opens a folder for listing. `flags` may refuse a link (O_NOFOLLOW).
DirectoryStream OpenStream(int at, const char* name, int flags, std::error_code& ec) {
  const int descriptor = ::openat(at, name, O_RDONLY | O_DIRECTORY | O_CLOEXEC | flags);
  DirectoryStream stream(descriptor == -1 ? nullptr : ::fdopendir(descriptor));
  ec = stream ? std::error_code() : LastSystemError();
  if (!stream && descriptor != -1) ::close(descriptor);
  return stream;
}

/// The next entry but "." and "..", or null at the end and on an error.
const dirent* NextEntry(DIR* stream, std::error_code& ec) {
  ec.clear();
  for (;;) {
    errno = 0;
    const dirent* entry = ::readdir(stream);
    if (entry == nullptr) {
      if (errno != 0) ec = LastSystemError();
      return nullptr;
    }
    const std::string_view name = entry->d_name;
    if (name != "." && name != "..") return entry;
  }
}

EntryKind KindOfEntry(DIR* stream, const dirent& entry) {
  switch (entry.d_type) {
    case DT_REG:
      return EntryKind::kRegular;
    case DT_DIR:
      return EntryKind::kDirectory;
    case DT_LNK:
      return EntryKind::kLink;
    case DT_UNKNOWN:
      break;
    default:
      return EntryKind::kOther;
  }
  struct stat status;
  if (::fstatat(::dirfd(stream), entry.d_name, &status, AT_SYMLINK_NOFOLLOW) == -1) {
    return EntryKind::kUnknown;
  }
  if (S_ISREG(status.st_mode)) return EntryKind::kRegular;
  if (S_ISDIR(status.st_mode)) return EntryKind::kDirectory;
  return S_ISLNK(status.st_mode) ? EntryKind::kLink : EntryKind::kOther;
}

DirectoryEntry Describe(const Path& folder, DIR* stream, const dirent& found) {
  DirectoryEntry entry{folder / found.d_name, KindOfEntry(stream, found)};
  struct stat status;
  if (entry.kind == EntryKind::kRegular &&
      ::fstatat(::dirfd(stream), found.d_name, &status, AT_SYMLINK_NOFOLLOW) == 0) {
    entry.size_bytes = static_cast<std::uint64_t>(status.st_size);
  }
  return entry;
}

void KeepFirst(std::error_code& first, const std::error_code& ec) {
  if (!first) first = ec;
}

/// Removes the entry `name` of the folder `at`, with AT_REMOVEDIR in `flags` a folder.
void Unlink(int at, const char* name, int flags, std::error_code& first) {
  if (::unlinkat(at, name, flags) == -1 && errno != ENOENT) KeepFirst(first, LastSystemError());
}

/// Empties and removes the folder `name` in the folder `at`; removes it unopened when it has become
/// a link or a file since it was listed. Continues after a failure and keeps the first one in
/// `first`.
void RemoveFolder(int at, const char* name, std::error_code& first, const KeepAlive& keep_alive) {
  std::error_code ec;
  const DirectoryStream stream = OpenStream(at, name, O_NOFOLLOW, ec);
  if (ec.value() == ENOTDIR || ec.value() == ELOOP) return Unlink(at, name, 0, first);
  if (stream) {
    const int here = ::dirfd(stream.get());
    while (const dirent* entry = NextEntry(stream.get(), ec)) {
      if (KindOfEntry(stream.get(), *entry) == EntryKind::kDirectory) {
        RemoveFolder(here, entry->d_name, first, keep_alive);
      } else {
        Unlink(here, entry->d_name, 0, first);
      }
      if (keep_alive) keep_alive();
    }
  }
  if (ec) KeepFirst(first, ec);
  Unlink(at, name, AT_REMOVEDIR, first);
}

}  // namespace

std::vector<DirectoryEntry> ListDirectory(const Path& path, std::error_code& ec) {
  std::vector<DirectoryEntry> entries;
  const DirectoryStream stream = OpenStream(AT_FDCWD, path.c_str(), 0, ec);
  if (!stream) return entries;
  while (const dirent* entry = NextEntry(stream.get(), ec)) {
    entries.push_back(Describe(path, stream.get(), *entry));
  }
  return entries;
}

struct TreeWalker::State {
  struct Level {
    DirectoryStream stream;
    Path path;
  };
  std::vector<Level> levels;
  Path to_enter;  ///< the folder that `Next` opens first
  bool enter = true;
};

TreeWalker::TreeWalker(Path root) : state_(std::make_unique<State>()) {
  state_->to_enter = std::move(root);
}

TreeWalker::~TreeWalker() = default;

bool TreeWalker::Next(DirectoryEntry* entry, std::error_code& ec) {
  State& state = *state_;
  ec.clear();
  if (std::exchange(state.enter, false)) {
    // The root may be a link. Below it O_NOFOLLOW refuses a folder that has become a link since.
    const bool at_root = state.levels.empty();
    const int at = at_root ? AT_FDCWD : ::dirfd(state.levels.back().stream.get());
    const Path name = at_root ? state.to_enter : state.to_enter.filename();
    DirectoryStream stream = OpenStream(at, name.c_str(), at_root ? 0 : O_NOFOLLOW, ec);
    if (stream) state.levels.push_back({std::move(stream), std::move(state.to_enter)});
  }
  while (!ec && !state.levels.empty()) {
    State::Level& level = state.levels.back();
    if (const dirent* found = NextEntry(level.stream.get(), ec)) {
      *entry = Describe(level.path, level.stream.get(), *found);
      state.enter = entry->kind == EntryKind::kDirectory;
      if (state.enter) state.to_enter = entry->path;
      return true;
    }
    if (!ec) state.levels.pop_back();
  }
  state.levels.clear();
  return false;
}

bool RemoveTree(const Path& path, std::error_code& ec, const KeepAlive& keep_alive) {
  // With a trailing separator the system would follow a link.
  const Path entry = path.has_filename() ? path : path.parent_path();
  std::error_code kind_error;
  if (KindOf(entry, Links::kDoNotFollow, kind_error) == EntryKind::kDirectory) {
    ec.clear();
    RemoveFolder(AT_FDCWD, entry.c_str(), ec, keep_alive);
  } else {
    Remove(entry, ec);
  }
  return !ec;
}

}  // namespace zul::fs

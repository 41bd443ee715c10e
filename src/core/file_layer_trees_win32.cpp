#include <windows.h>

#include "core/api_path_win32.h"
#include "core/file_layer.h"
#include "core/handle_win32.h"
#include "core/system_error.h"

namespace zul::fs {

namespace {

struct FindHandleTraits {
  using Type = HANDLE;
  static HANDLE Invalid() { return INVALID_HANDLE_VALUE; }
  static void Close(HANDLE handle) { ::FindClose(handle); }
};

bool IsDots(const wchar_t* name) {
  return name[0] == L'.' && (name[1] == L'\0' || (name[1] == L'.' && name[2] == L'\0'));
}

/// The listing of one folder, on one handle. An entry costs no further system call.
class Listing {
 public:
  /// Starts the listing. `folder` is a path for the API; the call extends it and restores it.
  bool Open(std::wstring& folder, std::error_code& ec) {
    const std::size_t length = folder.size();
    if (length == 0) {
      ec = SystemError(ERROR_PATH_NOT_FOUND);
      return false;
    }
    // "C:" is the drive's current directory, "C:\" its root.
    const bool joined = folder.ends_with(L'\\') || folder.ends_with(L'/') || folder.ends_with(L':');
    folder += joined ? L"*" : L"\\*";
    find_.Reset(::FindFirstFileExW(folder.c_str(), FindExInfoBasic, &data_, FindExSearchNameMatch,
                                   nullptr, FIND_FIRST_EX_LARGE_FETCH));
    ec = find_ ? std::error_code() : LastSystemError();
    folder.resize(length);
    // The root of an empty volume has no entries, not even "." and "..".
    if (ec.value() == ERROR_FILE_NOT_FOUND) ec.clear();
    has_first_ = find_.valid();
    return !ec;
  }

  /// The next entry except "." and "..", valid until the next call; null at the end and on an
  /// error.
  const WIN32_FIND_DATAW* Next(std::error_code& ec) {
    ec.clear();
    while (find_) {
      if (!std::exchange(has_first_, false) && !::FindNextFileW(find_.get(), &data_)) {
        ec = LastSystemError();
        if (ec.value() == ERROR_NO_MORE_FILES) ec.clear();
        break;
      }
      if (!IsDots(data_.cFileName)) return &data_;
    }
    return nullptr;
  }

 private:
  UniqueHandle<FindHandleTraits> find_;
  bool has_first_ = false;
  WIN32_FIND_DATAW data_;
};

EntryKind KindOfEntry(const WIN32_FIND_DATAW& entry) {
  if ((entry.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0) return EntryKind::kLink;
  if ((entry.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0) return EntryKind::kDirectory;
  return EntryKind::kRegular;
}

DirectoryEntry Describe(const Path& folder, const WIN32_FIND_DATAW& found) {
  const EntryKind kind = KindOfEntry(found);
  const std::uint64_t size = (std::uint64_t{found.nFileSizeHigh} << 32) | found.nFileSizeLow;
  return {folder / found.cFileName, kind, kind == EntryKind::kRegular ? size : 0};
}

}  // namespace

std::vector<DirectoryEntry> ListDirectory(const Path& path, std::error_code& ec) {
  std::vector<DirectoryEntry> entries;
  std::wstring folder = ApiPath(path);
  Listing listing;
  if (!listing.Open(folder, ec)) return entries;
  while (const WIN32_FIND_DATAW* entry = listing.Next(ec)) {
    entries.push_back(Describe(path, *entry));
  }
  return entries;
}

struct TreeWalker::State {
  struct Level {
    Listing listing;
    Path path;
  };
  std::vector<std::unique_ptr<Level>> levels;
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
    auto level = std::make_unique<State::Level>();
    level->path = std::move(state.to_enter);
    std::wstring folder = ApiPath(level->path);
    if (level->listing.Open(folder, ec)) state.levels.push_back(std::move(level));
  }
  while (!ec && !state.levels.empty()) {
    State::Level& level = *state.levels.back();
    if (const WIN32_FIND_DATAW* found = level.listing.Next(ec)) {
      *entry = Describe(level.path, *found);
      state.enter = entry->kind == EntryKind::kDirectory;
      if (state.enter) state.to_enter = entry->path;
      return true;
    }
    if (!ec) state.levels.pop_back();
  }
  state.levels.clear();
  return false;
}

}  // namespace zul::fs

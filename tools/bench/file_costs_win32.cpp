// What each file call of an update costs, on one thread and on three.
//
//   file_costs.exe FOLDER FILES
//
// Works below FOLDER, which must exist and be empty, with FILES files of 4 KB for each row, 80 of
// them in a folder. Nothing is deleted but the files of the row about deletion. Prints one row of a
// table for each call: milliseconds per file on one thread, on three threads that share the files,
// and on one thread that hands each open file to three others for its flush and close. Exits with 1
// and a message at the first call that fails.
//
// The cost of a call on an open handle does not include the open and the close. For each row the
// files are opened before the time starts and closed after it ends, 400 at a time.

#include <windows.h>

#include <winternl.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

constexpr int kThreads = 3;
constexpr std::size_t kFilesInFolder = 80;
constexpr std::size_t kOpenAtOnce = 400;
constexpr std::size_t kInFlight = 64;
constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
constexpr std::array<char, 4096> kContent{};

using Seconds = std::chrono::duration<double>;

/// One file of a row: where it is, and its handle while it is open.
struct Item {
  std::wstring folder_path;
  HANDLE folder = nullptr;  ///< open for the whole measurement
  std::wstring name;
  HANDLE file = INVALID_HANDLE_VALUE;

  [[nodiscard]] std::wstring path() const { return folder_path + L'\\' + name; }
  [[nodiscard]] std::wstring path_beside() const { return path() + L".new"; }
};

using Step = std::function<bool(Item*)>;

/// A measured call, and what surrounds it without being measured.
struct Call {
  const char* name;
  Step prepare;  ///< may be empty
  Step call;
  Step finish;  ///< may be empty
};

[[noreturn]] void Fail(const char* what) {
  std::fprintf(stderr, "%s: error %lu\n", what, ::GetLastError());
  std::exit(1);
}

// ---------------------------------------------------------------------------------------------
// Calls

bool Keep(Item* item, HANDLE file) {
  item->file = file;
  return file != INVALID_HANDLE_VALUE;
}

bool Create(Item* item) {
  return Keep(item, ::CreateFileW(item->path().c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW,
                                  FILE_ATTRIBUTE_NORMAL, nullptr));
}

/// Opens or creates the file by its name in the open folder.
bool OpenInFolder(Item* item, ACCESS_MASK access, ULONG sharing, ULONG disposition) {
  UNICODE_STRING name{};
  name.Buffer = item->name.data();
  name.Length = static_cast<USHORT>(item->name.size() * sizeof(wchar_t));
  name.MaximumLength = name.Length;
  OBJECT_ATTRIBUTES attributes{};
  attributes.Length = sizeof attributes;
  attributes.RootDirectory = item->folder;
  attributes.ObjectName = &name;
  attributes.Attributes = OBJ_CASE_INSENSITIVE;
  IO_STATUS_BLOCK status{};
  const NTSTATUS result =
      ::NtCreateFile(&item->file, access | SYNCHRONIZE | FILE_READ_ATTRIBUTES, &attributes, &status,
                     nullptr, FILE_ATTRIBUTE_NORMAL, sharing, disposition,
                     FILE_SYNCHRONOUS_IO_NONALERT | FILE_NON_DIRECTORY_FILE, nullptr, 0);
  ::SetLastError(::RtlNtStatusToDosError(result));
  return result >= 0;
}

bool CreateInFolder(Item* item) {
  return OpenInFolder(item, GENERIC_WRITE, 0, FILE_CREATE);
}

bool Write(Item* item) {
  DWORD written = 0;
  return ::WriteFile(item->file, kContent.data(), kContent.size(), &written, nullptr) &&
         written == kContent.size();
}

bool Read(Item* item) {
  std::array<char, kContent.size()> content;
  DWORD read = 0;
  return ::ReadFile(item->file, content.data(), content.size(), &read, nullptr) &&
         read == content.size();
}

bool Flush(Item* item) {
  return ::FlushFileBuffers(item->file) != FALSE;
}

bool Close(Item* item) {
  return ::CloseHandle(std::exchange(item->file, INVALID_HANDLE_VALUE)) != FALSE;
}

bool FinalPath(Item* item) {
  std::array<wchar_t, 1024> path;
  return ::GetFinalPathNameByHandleW(item->file, path.data(), path.size(), 0) != 0;
}

bool Identity(Item* item) {
  BY_HANDLE_FILE_INFORMATION information;
  return ::GetFileInformationByHandle(item->file, &information) != FALSE;
}

bool SetTime(Item* item) {
  FILE_BASIC_INFO information{};
  information.LastWriteTime.QuadPart = 0x01D7000000000000;
  information.FileAttributes = FILE_ATTRIBUTE_ARCHIVE;
  return ::SetFileInformationByHandle(item->file, FileBasicInfo, &information, sizeof information);
}

bool OpenForRead(Item* item) {
  return Keep(item, ::CreateFileW(item->path().c_str(), GENERIC_READ, kShareAll, nullptr,
                                  OPEN_EXISTING, FILE_FLAG_SEQUENTIAL_SCAN, nullptr));
}

bool OpenInFolderForRead(Item* item) {
  return OpenInFolder(item, GENERIC_READ, kShareAll, FILE_OPEN);
}

bool OpenExclusively(Item* item) {
  return Keep(item, ::CreateFileW(item->path().c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr,
                                  OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
}

bool Attributes(Item* item) {
  return ::GetFileAttributesW(item->path().c_str()) != INVALID_FILE_ATTRIBUTES;
}

bool AttributesOfMissing(Item* item) {
  return ::GetFileAttributesW(item->path_beside().c_str()) == INVALID_FILE_ATTRIBUTES;
}

bool RenameToNew(Item* item) {
  return ::MoveFileExW(item->path().c_str(), item->path_beside().c_str(), MOVEFILE_WRITE_THROUGH);
}

bool RenameOver(Item* item) {
  return ::MoveFileExW(item->path_beside().c_str(), item->path().c_str(),
                       MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH);
}

bool Delete(Item* item) {
  return ::DeleteFileW(item->path().c_str()) != FALSE;
}

/// Several calls in this order.
Step InTurn(std::vector<Step> steps) {
  return [steps = std::move(steps)](Item* item) {
    return std::all_of(steps.begin(), steps.end(), [item](const Step& step) { return step(item); });
  };
}

bool CreateBeside(Item* item) {
  Item beside = *item;
  beside.name += L".new";
  return Create(&beside) && Write(&beside) && Flush(&beside) && Close(&beside);
}

/// A flushed copy of the file, to a name with this ending.
bool CopyTo(Item* item, const wchar_t* ending) {
  Item copy = *item;
  copy.name += ending;
  return OpenForRead(item) && Create(&copy) && Read(item) && Write(&copy) && Flush(&copy) &&
         Close(&copy) && Close(item);
}

/// What a minimal apply does for one file: a flushed backup, a flushed copy beside it, a rename.
bool ApplyOne(Item* item) {
  static std::atomic<int> turn{0};
  return CopyTo(item, (L".old" + std::to_wstring(turn++)).c_str()) && CopyTo(item, L".new") &&
         RenameOver(item);
}

/// Every 80th call lists its folder, so that the time per file is the time per entry.
bool ListFolder(Item* item) {
  static std::atomic<std::size_t> turn{0};
  if (turn++ % kFilesInFolder != 0) return true;
  WIN32_FIND_DATAW found;
  const HANDLE search =
      ::FindFirstFileExW((item->folder_path + L"\\*").c_str(), FindExInfoBasic, &found,
                         FindExSearchNameMatch, nullptr, FIND_FIRST_EX_LARGE_FETCH);
  if (search == INVALID_HANDLE_VALUE) return false;
  while (::FindNextFileW(search, &found)) {
  }
  return ::FindClose(search) != FALSE;
}

// ---------------------------------------------------------------------------------------------
// Measuring

/// New folders with the names of `count` files, none of which exists.
std::vector<Item> NewItems(const std::wstring& root, std::size_t count) {
  static int set = 0;
  const std::wstring base = root + L"\\set_" + std::to_wstring(set++);
  if (!::CreateDirectoryW(base.c_str(), nullptr)) Fail("a folder cannot be created");
  std::vector<Item> items(count);
  for (std::size_t i = 0; i < count; ++i) {
    Item& item = items[i];
    item.name = L"colour_" + std::to_wstring(i) + L".json";
    if (i % kFilesInFolder != 0) {
      item.folder_path = items[i - 1].folder_path;
      item.folder = items[i - 1].folder;
      continue;
    }
    item.folder_path = base + L"\\book_" + std::to_wstring(i / kFilesInFolder);
    if (!::CreateDirectoryW(item.folder_path.c_str(), nullptr)) Fail("a folder cannot be created");
    item.folder =
        ::CreateFileW(item.folder_path.c_str(), FILE_LIST_DIRECTORY | FILE_TRAVERSE, kShareAll,
                      nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
    if (item.folder == INVALID_HANDLE_VALUE) Fail("a folder cannot be opened");
  }
  return items;
}

struct Range {
  Item* first;
  Item* last;
};

void RunOne(const char* name, const Step& step, Item* item) {
  if (step && !step(item)) Fail(name);
}

void RunAll(const char* name, const Step& step, const Range& range) {
  if (!step) return;
  for (Item* item = range.first; item != range.last; ++item) RunOne(name, step, item);
}

/// Runs the call for each item, on `threads` threads that take the items in turn.
void RunShared(const Call& call, int threads, const Range& range) {
  if (threads == 1) return RunAll(call.name, call.call, range);
  std::atomic<Item*> next{range.first};
  std::vector<std::thread> running;
  for (int i = 0; i < threads; ++i) {
    running.emplace_back([&] {
      for (Item* item = next++; item < range.last; item = next++)
        RunOne(call.name, call.call, item);
    });
  }
  for (std::thread& thread : running) thread.join();
}

/// Milliseconds per file.
double Measure(const Call& call, int threads, std::vector<Item>* items) {
  Seconds taken{};
  for (std::size_t at = 0; at < items->size(); at += kOpenAtOnce) {
    const Range batch = {items->data() + at,
                         items->data() + std::min(items->size(), at + kOpenAtOnce)};
    RunAll(call.name, call.prepare, batch);
    const auto began = std::chrono::steady_clock::now();
    RunShared(call, threads, batch);
    taken += std::chrono::steady_clock::now() - began;
    RunAll(call.name, call.finish, batch);
  }
  return 1000 * taken.count() / static_cast<double>(items->size());
}

/// A bounded queue of files between the thread that writes them and those that finish them.
class Queue {
 public:
  void Put(Item* item) {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return items_.size() < kInFlight; });
    items_.push_back(item);
    changed_.notify_all();
  }

  /// The next file; null means the end.
  Item* Take() {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return !items_.empty(); });
    Item* const item = items_.front();
    if (item != nullptr) items_.pop_front();
    changed_.notify_all();
    return item;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<Item*> items_;
};

/// Milliseconds per file when this thread does `first`, and `threads` others do `second`.
double MeasureHanded(const char* name, const Step& first, const Step& second, int threads,
                     std::vector<Item>* items) {
  Queue queue;
  const auto began = std::chrono::steady_clock::now();
  std::vector<std::thread> running;
  for (int i = 0; i < threads; ++i) {
    running.emplace_back([&] {
      for (Item* item = queue.Take(); item != nullptr; item = queue.Take()) {
        RunOne(name, second, item);
      }
    });
  }
  for (Item& item : *items) {
    RunOne(name, first, &item);
    queue.Put(&item);
  }
  queue.Put(nullptr);
  for (std::thread& thread : running) thread.join();
  const Seconds taken = std::chrono::steady_clock::now() - began;
  return 1000 * taken.count() / static_cast<double>(items->size());
}

void MeasureCreation(const std::wstring& root, std::size_t count) {
  const Step by_path = InTurn({Create, Write});
  const Step in_folder = InTurn({CreateInFolder, Write});
  const Step flush_and_close = InTurn({Flush, Close});
  const std::array<Call, 6> calls = {{
      {"create, write 4 KB, close: by path", {}, InTurn({by_path, Close}), {}},
      {"by path, and flush", {}, InTurn({by_path, flush_and_close}), {}},
      {"by path, final path of the handle, and flush",
       {},
       InTurn({by_path, FinalPath, flush_and_close}),
       {}},
      {"relative to a folder handle", {}, InTurn({in_folder, Close}), {}},
      {"relative to a folder handle, and flush", {}, InTurn({in_folder, flush_and_close}), {}},
      {"relative, final path of the handle, and flush",
       {},
       InTurn({in_folder, FinalPath, flush_and_close}),
       {}},
  }};
  for (const Call& call : calls) {
    std::vector<Item> alone = NewItems(root, count);
    std::vector<Item> shared = NewItems(root, count);
    const double on_one = Measure(call, 1, &alone);
    const double on_three = Measure(call, kThreads, &shared);
    std::printf("| %s | %.3f | %.3f | |\n", call.name, on_one, on_three);
  }
  for (const int threads : {1, kThreads}) {
    std::vector<Item> items = NewItems(root, count);
    std::printf("| by path, flush and close on %d other threads | | | %.3f |\n", threads,
                MeasureHanded("by path", by_path, flush_and_close, threads, &items));
    items = NewItems(root, count);
    std::printf("| relative, flush and close on %d other threads | | | %.3f |\n", threads,
                MeasureHanded("relative", in_folder, flush_and_close, threads, &items));
  }
}

void MeasureExisting(const std::wstring& root, std::size_t count) {
  std::vector<Item> items = NewItems(root, count);
  for (Item& item : items) {
    if (!Create(&item) || !Write(&item) || !Flush(&item) || !Close(&item))
      Fail("a file cannot be written");
  }
  const Step back = [](Item* item) {
    return ::MoveFileExW(item->path_beside().c_str(), item->path().c_str(), 0) != FALSE;
  };
  const Step open_written = InTurn({OpenExclusively, Write});
  const std::array<Call, 23> calls = {{
      {"attributes of a file, by path", {}, Attributes, {}},
      {"attributes of a missing file, by path", {}, AttributesOfMissing, {}},
      {"open for reading, by path, and close", {}, InTurn({OpenForRead, Close}), {}},
      {"open for reading, relative, and close", {}, InTurn({OpenInFolderForRead, Close}), {}},
      {"open for reading and writing, not shared, and close",
       {},
       InTurn({OpenExclusively, Close}),
       {}},
      {"open for reading, by path, identity, and close",
       {},
       InTurn({OpenForRead, Identity, Close}),
       {}},
      {"open for reading, by path, final path, and close",
       {},
       InTurn({OpenForRead, FinalPath, Close}),
       {}},

      {"open for reading, by path", {}, OpenForRead, Close},
      {"open for reading, relative", {}, OpenInFolderForRead, Close},
      {"close after reading", InTurn({OpenForRead, Read}), Close, {}},
      {"close after writing", open_written, Close, {}},
      {"close after writing and flush", InTurn({open_written, Flush}), Close, {}},
      {"read 4 KB", OpenForRead, Read, Close},
      {"write 4 KB over old ones", OpenExclusively, Write, Close},
      {"flush after writing 4 KB", open_written, Flush, Close},
      {"flush of a file without changes", OpenExclusively, Flush, Close},
      {"identity of a handle", OpenForRead, Identity, Close},
      {"final path of a handle", OpenForRead, FinalPath, Close},
      {"time and attributes of a handle", OpenExclusively, SetTime, Close},
      {"list a folder, per entry", {}, ListFolder, {}},
      {"rename to a new name", {}, RenameToNew, back},
      {"rename over an existing file", CreateBeside, RenameOver, {}},
      {"backup, copy beside, rename over", {}, ApplyOne, {}},
  }};
  for (const Call& call : calls) {
    const double on_one = Measure(call, 1, &items);
    const double on_three = Measure(call, kThreads, &items);
    std::printf("| %s | %.3f | %.3f | |\n", call.name, on_one, on_three);
    std::fflush(stdout);
  }
  std::vector<Item> half(items.begin() + static_cast<std::ptrdiff_t>(count / 2), items.end());
  items.resize(count / 2);
  const Call deletion = {"delete", {}, Delete, {}};
  const double on_one = Measure(deletion, 1, &items);
  std::printf("| delete | %.3f | %.3f | |\n", on_one, Measure(deletion, kThreads, &half));
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
  const std::size_t count = argc == 3 ? std::wcstoul(argv[2], nullptr, 10) : 0;
  if (count < 2) return 64;
  std::printf("| call | 1 thread, ms | %d threads, ms | handed to others, ms |\n", kThreads);
  std::printf("|---|---:|---:|---:|\n");
  MeasureCreation(argv[1], count);
  MeasureExisting(argv[1], count);
  return 0;
}

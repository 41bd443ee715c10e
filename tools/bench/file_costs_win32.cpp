// What the file calls of an update cost, and which of them gain from threads.
//
//   file_costs.exe FOLDER FILES
//
// FOLDER must exist and be empty. Prints one row of a table for each call, in milliseconds per file
// of 4 KB: on one thread; on six threads that share the files; and on one thread that hands each
// file to six others, which flush and close it. The cost of a call on an open file includes
// neither the open nor the close: the files are opened before the time begins. Each number is the
// median of batches of 160 files, so that other work on the machine spoils single batches only.
//
// Exits with 1 and a message at the first call that fails. Leaves the files.

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <string>
#include <thread>
#include <vector>

#include "tools/bench/file_calls_win32.h"

namespace {

using namespace zul::bench;

constexpr std::size_t kBatch = 160;
constexpr std::size_t kInFlight = 64;
constexpr int kThreads = 6;  // as many as the updater has

/// The files that a call needs.
enum class Files {
  kMissing,  ///< none yet
  kAny,      ///< existing files, which are the same after the row
  kOwn,      ///< existing files, which no other measurement uses
};

/// One row of the table. Steps may be empty.
struct Row {
  const char* name;
  Files files;
  Step prepare;  ///< for each file of a batch, before the time begins
  Step call;
  Step rest;    ///< the part of the call that other threads can do
  Step finish;  ///< for each file of a batch, after the time has ended
};

enum class Way { kAlone, kShared, kHanded };

[[noreturn]] void Fail(const char* what) {
  std::fprintf(stderr, "%s: error %lu\n", what, ::GetLastError());
  std::exit(1);
}

/// The files of one batch.
struct Batch {
  const Row& row;
  Item* first;
  Item* last;

  void Do(const Step& step, Item* item) const {
    if (step && !step(item)) Fail(row.name);
  }
  void DoAll(const Step& step) const {
    for (Item* item = first; item != last; ++item) Do(step, item);
  }
};

/// Runs `work` on six threads besides `own` on this one, until all have ended.
template <typename Work, typename Own>
void OnThreads(const Work& work, const Own& own) {
  std::vector<std::thread> threads;
  threads.reserve(kThreads);
  for (int i = 0; i < kThreads; ++i) threads.emplace_back(work);
  own();
  for (std::thread& thread : threads) thread.join();
}

void DoAlone(const Batch& batch) {
  for (Item* item = batch.first; item != batch.last; ++item) {
    batch.Do(batch.row.call, item);
    batch.Do(batch.row.rest, item);
  }
}

void DoShared(const Batch& batch) {
  std::atomic<std::ptrdiff_t> next{0};
  const auto work = [&] {
    for (std::ptrdiff_t i = next++; i < batch.last - batch.first; i = next++) {
      batch.Do(batch.row.call, batch.first + i);
      batch.Do(batch.row.rest, batch.first + i);
    }
  };
  OnThreads(work, [] {});
}

/// The files on their way from one thread to the others. Under Wine the platform's locks cost less
/// than those of the C++ library, whose waits call the server process.
class Queue {
 public:
  /// Waits until there is room. A null file is the end.
  void Put(Item* item) {
    ::AcquireSRWLockExclusive(&lock_);
    while (items_.size() >= kInFlight) Wait(&has_room_);
    items_.push_back(item);
    ::ReleaseSRWLockExclusive(&lock_);
    ::WakeConditionVariable(&has_items_);
  }

  /// Waits for the next file; null at the end, for each thread.
  Item* Take() {
    ::AcquireSRWLockExclusive(&lock_);
    while (items_.empty()) Wait(&has_items_);
    Item* const item = items_.front();
    if (item != nullptr) items_.pop_front();
    ::ReleaseSRWLockExclusive(&lock_);
    ::WakeConditionVariable(item != nullptr ? &has_room_ : &has_items_);
    return item;
  }

 private:
  void Wait(CONDITION_VARIABLE* changed) {
    ::SleepConditionVariableSRW(changed, &lock_, INFINITE, 0);
  }

  SRWLOCK lock_ = SRWLOCK_INIT;
  CONDITION_VARIABLE has_items_ = CONDITION_VARIABLE_INIT;
  CONDITION_VARIABLE has_room_ = CONDITION_VARIABLE_INIT;
  std::deque<Item*> items_;
};

void DoHanded(const Batch& batch) {
  Queue queue;
  const auto work = [&] {
    while (Item* const item = queue.Take()) batch.Do(batch.row.rest, item);
  };
  OnThreads(work, [&] {
    for (Item* item = batch.first; item != batch.last; ++item) {
      batch.Do(batch.row.call, item);
      queue.Put(item);
    }
    queue.Put(nullptr);
  });
}

/// Milliseconds per file.
double Measure(const Batch& batch, Way way) {
  batch.DoAll(batch.row.prepare);
  const auto began = std::chrono::steady_clock::now();
  if (way == Way::kAlone) DoAlone(batch);
  if (way == Way::kShared) DoShared(batch);
  if (way == Way::kHanded) DoHanded(batch);
  const std::chrono::duration<double, std::milli> taken = std::chrono::steady_clock::now() - began;
  batch.DoAll(batch.row.finish);
  return taken.count() / static_cast<double>(batch.last - batch.first);
}

double Median(std::vector<double> values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

double MeasureAll(const Row& row, Way way, std::vector<Item>* items) {
  std::vector<double> taken;
  for (std::size_t at = 0; at < items->size(); at += kBatch) {
    Item* const first = items->data() + at;
    taken.push_back(Measure({row, first, first + kBatch}, way));
  }
  return Median(std::move(taken));
}

/// A folder with all the files of the measurement.
class Ground {
 public:
  Ground(std::wstring root, std::size_t count) : root_(std::move(root)), count_(count) {
    any_ = Made();
  }

  void Print(const Row& row) {
    std::printf("| %s | %.3f | %.3f |", row.name, In(row, Way::kAlone), In(row, Way::kShared));
    if (row.rest) std::printf(" %.3f", In(row, Way::kHanded));
    std::printf(" |\n");
    std::fflush(stdout);
  }

 private:
  double In(const Row& row, Way way) {
    if (row.files == Files::kAny) return MeasureAll(row, way, &any_);
    std::vector<Item> own = row.files == Files::kOwn ? Made() : Names();
    return MeasureAll(row, way, &own);
  }

  [[nodiscard]] std::vector<Item> Names() const {
    std::vector<Item> items = NewItems(root_, count_);
    if (items.empty()) Fail("a folder cannot be made");
    return items;
  }

  [[nodiscard]] std::vector<Item> Made() const {
    std::vector<Item> items = Names();
    if (!std::all_of(items.begin(), items.end(), [](Item& item) { return Make(&item); })) {
      Fail("a file cannot be made");
    }
    return items;
  }

  std::wstring root_;
  std::size_t count_;
  std::vector<Item> any_;
};

bool Nothing(Item* /*item*/) {
  return true;
}

std::vector<Row> Creation() {
  const Step by_path = InTurn({Create, Write});
  const Step in_folder = InTurn({CreateInFolder, Write});
  const Step flush_and_close = InTurn({Flush, Close});
  return {
      {"create, write, close: by path", Files::kMissing, {}, by_path, Close, {}},
      {"... and flush", Files::kMissing, {}, by_path, flush_and_close, {}},
      {"... flush and final path",
       Files::kMissing,
       {},
       InTurn({by_path, FinalPath}),
       flush_and_close,
       {}},
      {"create, write, close: relative to a folder handle",
       Files::kMissing,
       {},
       in_folder,
       Close,
       {}},
      {"... and flush", Files::kMissing, {}, in_folder, flush_and_close, {}},
      {"... flush and final path",
       Files::kMissing,
       {},
       InTurn({in_folder, FinalPath}),
       flush_and_close,
       {}},
  };
}

std::vector<Row> SingleCalls() {
  const Step written = InTurn({OpenUnshared, Write});
  const Step flushed = InTurn({written, Flush});
  return {
      {"create: by path", Files::kMissing, {}, Create, {}, Close},
      {"create: relative", Files::kMissing, {}, CreateInFolder, {}, Close},
      {"open for reading: by path", Files::kAny, {}, OpenForRead, {}, Close},
      {"open for reading: relative", Files::kAny, {}, OpenInFolderForRead, {}, Close},
      {"open for reading and writing, unshared", Files::kAny, {}, OpenUnshared, {}, Close},
      {"read", Files::kAny, OpenForRead, Read, {}, Close},
      {"write", Files::kAny, OpenUnshared, Write, {}, Close},
      {"flush of a file without changes", Files::kAny, OpenUnshared, Flush, {}, Close},
      {"flush after writing over old bytes", Files::kAny, written, Flush, {}, Close},
      {"flush after writing a new file",
       Files::kMissing,
       InTurn({Create, Write}),
       Flush,
       {},
       Close},
      {"close after reading", Files::kAny, InTurn({OpenForRead, Read}), Close, {}, {}},
      {"close after writing and flushing", Files::kAny, flushed, Close, {}, {}},
      {"final path of a handle", Files::kAny, OpenForRead, FinalPath, {}, Close},
      {"times and attributes of a handle", Files::kAny, OpenForRead, BasicFacts, {}, Close},
      {"volume and number of a handle", Files::kAny, OpenForRead, Identity, {}, Close},
      {"set time and attributes of a handle", Files::kAny, OpenUnshared, SetTime, {}, Close},
      {"attributes by path", Files::kAny, {}, Attributes, {}, {}},
      {"attributes by path, missing file", Files::kAny, {}, AttributesOfMissing, {}, {}},
      {"listing of a folder, per entry", Files::kAny, {}, ListFolder, {}, {}},
      {"rename to a new name", Files::kAny, {}, RenameToNew, {}, RenameBack},
      {"rename over an existing file", Files::kAny, CopyBeside, RenameOver, {}, {}},
  };
}

std::vector<Row> Replacement() {
  return {
      {"nothing: what the threads cost", Files::kAny, {}, Nothing, Nothing, {}},
      {"flushed copy to a backup", Files::kOwn, {}, BackUp, {}, {}},
      {"flushed copy beside the file", Files::kOwn, {}, CopyBeside, {}, {}},
      {"backup, copy beside, rename over: all of a minimal apply",
       Files::kOwn,
       {},
       BackUp,
       InTurn({CopyBeside, RenameOver}),
       {}},
      {"delete", Files::kOwn, {}, Delete, {}, {}},
  };
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
  const std::size_t files = argc == 3 ? std::wcstoul(argv[2], nullptr, 10) : 0;
  if (files < kBatch) return 64;
  Ground ground(argv[1], files - files % kBatch);
  std::printf("| call | 1 thread, ms | %d threads, ms | rest on %d others, ms |\n", kThreads,
              kThreads);
  std::printf("|---|---:|---:|---:|\n");
  for (const auto& part : {Creation(), SingleCalls(), Replacement()}) {
    for (const Row& row : part) ground.Print(row);
  }
  return 0;
}

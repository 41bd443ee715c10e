#include "collector/stack_capture_win32.h"

#include <windows.h>

#include <dbghelp.h>
#include <psapi.h>

#include <algorithm>
#include <array>
#include <nlohmann/json.hpp>
#include <string_view>

#include "collector/evidence_sanitizer.h"
#include "collector/module_record.h"
#include "core/handle_win32.h"
#include "core/process_environment.h"
#include "core/system_library_win32.h"
#include "core/text.h"

namespace zul {

namespace {

using nlohmann::json;

static_assert(sizeof(STACKFRAME64) == 264);
static_assert(sizeof(PROCESS_MEMORY_COUNTERS_EX) == 80);

// The sizes and offsets with which module_record.cpp reads an image.
static_assert(sizeof(IMAGE_DOS_HEADER) == 64 && offsetof(IMAGE_DOS_HEADER, e_lfanew) == 60);
static_assert(sizeof(IMAGE_NT_HEADERS64) == 264);
static_assert(offsetof(IMAGE_NT_HEADERS64, FileHeader) +
                  offsetof(IMAGE_FILE_HEADER, TimeDateStamp) ==
              8);
static_assert(offsetof(IMAGE_NT_HEADERS64, OptionalHeader) +
                  offsetof(IMAGE_OPTIONAL_HEADER64, DataDirectory) +
                  IMAGE_DIRECTORY_ENTRY_DEBUG * sizeof(IMAGE_DATA_DIRECTORY) ==
              184);
static_assert(sizeof(IMAGE_DEBUG_DIRECTORY) == 28 && offsetof(IMAGE_DEBUG_DIRECTORY, Type) == 12 &&
              offsetof(IMAGE_DEBUG_DIRECTORY, SizeOfData) == 16 &&
              offsetof(IMAGE_DEBUG_DIRECTORY, AddressOfRawData) == 20);

constexpr std::size_t kModulesMax = 512;
constexpr ULONGLONG kWalkMsMax = 1000;

// No symbol server, no prompts, no search for symbol files: only what unwinding needs.
constexpr DWORD kSymbolOptions = SYMOPT_DEFERRED_LOADS | SYMOPT_FAIL_CRITICAL_ERRORS |
                                 SYMOPT_IGNORE_NT_SYMPATH | SYMOPT_NO_PROMPTS |
                                 SYMOPT_DISABLE_SYMSRV_AUTODETECT;
static_assert(kSymbolOptions == 0x2081204);

/// The functions of dbghelp.dll, which is loaded for a capture only.
struct SymbolFunctions {
  SystemFunction<decltype(::SymSetOptions)> set_options{kLibrary, "SymSetOptions"};
  SystemFunction<decltype(::SymInitializeW)> initialize{kLibrary, "SymInitializeW"};
  SystemFunction<decltype(::SymLoadModuleExW)> load_module{kLibrary, "SymLoadModuleExW"};
  SystemFunction<decltype(::StackWalk64)> walk{kLibrary, "StackWalk64"};
  SystemFunction<decltype(::SymFunctionTableAccess64)> function_table{kLibrary,
                                                                      "SymFunctionTableAccess64"};
  SystemFunction<decltype(::SymGetModuleBase64)> module_base{kLibrary, "SymGetModuleBase64"};
  SystemFunction<decltype(::SymCleanup)> cleanup{kLibrary, "SymCleanup"};

  [[nodiscard]] bool complete() const {
    return set_options != nullptr && initialize != nullptr && load_module != nullptr &&
           walk != nullptr && function_table != nullptr && module_base != nullptr &&
           cleanup != nullptr;
  }

 private:
  static constexpr const wchar_t* kLibrary = L"dbghelp.dll";
};

/// The symbol handler of one process, for the lifetime of this object.
class SymbolHandler {
 public:
  explicit SymbolHandler(HANDLE process) : process_(process) {
    if (!functions_.complete()) return;
    functions_.set_options(kSymbolOptions);
    ready_ = functions_.initialize(process, L"", FALSE) != FALSE;
  }
  ~SymbolHandler() {
    if (ready_) functions_.cleanup(process_);
  }
  SymbolHandler(const SymbolHandler&) = delete;
  SymbolHandler& operator=(const SymbolHandler&) = delete;

  [[nodiscard]] bool ready() const { return ready_; }

  void LoadModule(const wchar_t* path, const ModuleRecord& module) const {
    if (!ready_) return;
    functions_.load_module(process_, nullptr, path, nullptr, module.base,
                           static_cast<DWORD>(module.image_size), nullptr, 0);
  }

  /// Goes one frame up. To be called only when ready.
  [[nodiscard]] bool Step(HANDLE thread, CONTEXT* context, STACKFRAME64* frame) const {
    return functions_.walk(IMAGE_FILE_MACHINE_AMD64, process_, thread, frame, context, nullptr,
                           functions_.function_table, functions_.module_base, nullptr) != FALSE;
  }

 private:
  const SymbolFunctions functions_;
  HANDLE process_;
  bool ready_ = false;
};

MemoryReader ReaderOf(HANDLE process) {
  return [process](std::uint64_t address, void* to, std::size_t size) {
    SIZE_T had = 0;
    // NOLINTNEXTLINE(performance-no-int-to-ptr): an address in another process
    const auto* const from = reinterpret_cast<const void*>(address);
    return ::ReadProcessMemory(process, from, to, size, &had) != FALSE && had == size;
  };
}

/// The modules of the process in the loader's order. Loads each into the symbol handler.
std::vector<ModuleRecord> LoadModules(HANDLE process, const SymbolHandler& symbols) {
  std::vector<ModuleRecord> modules;
  std::array<HMODULE, kModulesMax> handles;
  DWORD bytes = 0;
  if (::EnumProcessModulesEx(process, handles.data(), sizeof handles, &bytes, LIST_MODULES_ALL) ==
      FALSE) {
    return modules;
  }
  std::wstring path(kLongestPathUnits, L'\0');
  const std::size_t count = std::min<std::size_t>(bytes / sizeof(HMODULE), handles.size());
  for (std::size_t i = 0; i < count; ++i) {
    MODULEINFO info{};
    if (::GetModuleInformation(process, handles[i], &info, sizeof info) == FALSE) continue;
    const DWORD units =
        ::GetModuleFileNameExW(process, handles[i], path.data(), static_cast<DWORD>(path.size()));
    if (units == 0) continue;
    ModuleRecord module;
    module.base = reinterpret_cast<std::uint64_t>(info.lpBaseOfDll);
    module.image_size = info.SizeOfImage;
    module.name = SanitizeModuleName(WideToUtf8Lossy(std::wstring_view(path.data(), units)));
    ReadModuleIdentity(ReaderOf(process), &module);
    symbols.LoadModule(path.c_str(), module);
    modules.push_back(std::move(module));
  }
  return modules;
}

STACKFRAME64 FirstFrame(const CONTEXT& context) {
  STACKFRAME64 frame{};
  frame.AddrPC = {context.Rip, 0, AddrModeFlat};
  frame.AddrFrame = {context.Rbp, 0, AddrModeFlat};
  frame.AddrStack = {context.Rsp, 0, AddrModeFlat};
  return frame;
}

/// Appends the callers to `frames`, which holds the first frame. False when the limit on frames or
/// on time ended the walk.
bool WalkCallers(const SymbolHandler& symbols, HANDLE thread, const CONTEXT& first,
                 const std::vector<ModuleRecord>& modules, json* frames) {
  CONTEXT context = first;  // the walk changes it
  STACKFRAME64 frame = FirstFrame(context);
  std::uint64_t last_instruction = 0;
  std::uint64_t last_stack = 0;
  const ULONGLONG start = ::GetTickCount64();
  for (std::size_t round = 0; round < kEvidenceFramesMax; ++round) {
    if (::GetTickCount64() - start > kWalkMsMax) return false;
    if (!symbols.Step(thread, &context, &frame) || frame.AddrPC.Offset == 0) return true;
    if (frame.AddrPC.Offset == last_instruction && frame.AddrStack.Offset == last_stack) {
      return true;
    }
    // The first round may give the first frame again.
    if (round != 0 || frame.AddrPC.Offset != first.Rip) {
      frames->push_back(FrameRecord(modules, frame.AddrPC.Offset));
    }
    last_instruction = frame.AddrPC.Offset;
    last_stack = frame.AddrStack.Offset;
    if (frames->size() >= kEvidenceFramesMax) return false;
  }
  return true;
}

void SetPartial(json* record, const char* reason) {
  (*record)["capture_status"] = "partial";
  (*record)["capture_error"] = reason;
}

}  // namespace

void CaptureStack(HANDLE process, DWORD thread_id, const CONTEXT& context, json* record) {
  json& frames = (*record)["frames"] = json::array();
  {
    const SymbolHandler symbols(process);
    const std::vector<ModuleRecord> modules = LoadModules(process, symbols);
    frames.push_back(FrameRecord(modules, context.Rip));
    if (!symbols.ready()) return SetPartial(record, "symbol_handler_init_failed");
    const UniqueKernelHandle thread(::OpenThread(THREAD_QUERY_INFORMATION, FALSE, thread_id));
    if (!WalkCallers(symbols, thread.get(), context, modules, &frames)) {
      (*record)["frames_limited"] = true;
    }
  }
  if (frames.size() < 2) SetPartial(record, "stack_unwind_incomplete");
}

void CaptureProcessCounters(HANDLE process, json* record) {
  PROCESS_MEMORY_COUNTERS_EX memory{};
  if (::GetProcessMemoryInfo(process, reinterpret_cast<PROCESS_MEMORY_COUNTERS*>(&memory),
                             sizeof memory) != FALSE) {
    (*record)["working_set_bytes"] = memory.WorkingSetSize;
    (*record)["private_bytes"] = memory.PrivateUsage;
  }
  DWORD handles = 0;
  if (::GetProcessHandleCount(process, &handles) != FALSE) (*record)["handle_count"] = handles;
}

}  // namespace zul

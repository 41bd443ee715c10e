#include "trace/chain_events.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <ctime>
#include <mutex>
#include <nlohmann/json.hpp>

#include "core/error_catalogue.h"
#include "core/file_layer.h"
#include "core/process_environment.h"
#include "core/settings_location.h"
#include "core/text.h"

namespace zul {

namespace {

constexpr std::string_view kSignatureEvent = "payload_binary_signature_validate";

bool IsVerifyEvent(std::string_view name) {
  return name.starts_with("checksum_") || name == kSignatureEvent;
}

/// The events of the apply. Those of the run itself belong to the same action, but have no error id
/// of the apply.
bool IsApplyEvent(std::string_view name) {
  return name.starts_with("extract_") || name.starts_with("apply_") ||
         name.starts_with("restart_") || name.starts_with("deferred_self_replace_");
}

/// The UTC time now, "YYYY-MM-DDTHH:MM:SSZ".
std::string UtcTimestamp() {
  using Clock = std::chrono::system_clock;
  const std::tm utc = UtcCalendarTime(Clock::to_time_t(Clock::now()));
  char text[32];
  const std::size_t size = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc);
  return {text, size};
}

/// Sets a derived key unless `value` is empty or the stage has given a value of its own.
void SetDerived(nlohmann::json* line, const char* key, std::string_view value) {
  if (value.empty()) return;
  nlohmann::json& slot = (*line)[key];
  if (slot.is_string() && !slot.get_ref<const std::string&>().empty()) return;
  slot = value;
}

std::string RenderLine(std::string_view name, const std::vector<ChainEventField>& fields) {
  nlohmann::json line = nlohmann::json::object();
  line["ts"] = UtcTimestamp();
  line["stage"] = name;
  for (const auto& [key, value] : fields) {
    if (!key.empty()) line[key] = value;
  }
  if (const std::string_view action = MapChainAction(name); !action.empty()) {
    SetDerived(&line, "action_id", action);
    SetDerived(&line, "correlation_id", CorrelationId());
  }
  const std::string_view phase = MapChainEvent(name);
  SetDerived(&line, "chain_event", phase);
  SetDerived(&line, "result", MapChainResult(phase));
  SetDerived(&line, "user_error_id", MapUserErrorId(name));
  return line.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
}

/// Opens the trace. Creates its folders only after a first failure, so that every event except the
/// first costs one call.
fs::File OpenTrace(const fs::Path& path) {
  std::error_code ec;
  fs::File file = fs::OpenForAppend(path, ec);
  if (file.is_open() || !fs::CreateDirectories(path.parent_path(), ec)) return file;
  return fs::OpenForAppend(path, ec);
}

/// The last result of TraceLogPath, and the value of the variable that it depends on.
struct CachedPath {
  std::mutex mutex;
  std::string config_home;
  std::string path;
};

/// Never destroyed: threads that outlive main may write events.
CachedPath& Cache() {
  static CachedPath& cache = *new CachedPath;
  return cache;
}

std::mutex& TraceMutex() {
  static std::mutex& mutex = *new std::mutex;
  return mutex;
}

}  // namespace

/// A relaunched helper is another process with another id.
const std::string& CorrelationId() {
  static std::atomic<std::uint64_t> counter{0};
  static const std::string id = [] {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
    return "update-" + std::to_string(ms) + "-" + std::to_string(counter++);
  }();
  return id;
}

/// To resolve the settings folder may migrate old settings and takes several accesses to the disk,
/// and an update writes hundreds of events. So the path is cached while QORVA_CONFIG_HOME stays the
/// same, but only once its folder exists: a folder that is missing now may exist at the next event.
/// The lock is not held during the resolution, which may log.
std::string TraceLogPath() {
  const std::string config_home = GetEnvironmentPath("QORVA_CONFIG_HOME");
  CachedPath& cache = Cache();
  {
    const std::scoped_lock lock(cache.mutex);
    if (!cache.path.empty() && cache.config_home == config_home) return cache.path;
  }
  std::error_code ec;
  fs::Path folder = PathOrEmpty(ApplicationConfigDirectory());
  if (folder.empty()) folder = fs::CurrentDirectory(ec);
  std::string path = PathToUtf8(folder / "logs" / "update_trace.log");
  if (fs::KindOf(folder, fs::Links::kFollow, ec) == fs::EntryKind::kDirectory) {
    const std::scoped_lock lock(cache.mutex);
    cache.config_home = config_home;
    cache.path = path;
  }
  return path;
}

void EmitChainEvent(std::string_view name, const std::vector<ChainEventField>& fields) {
  if (name.empty()) return;
  try {
    const fs::Path path = PathOrEmpty(TraceLogPath());
    const std::scoped_lock lock(TraceMutex());
    const std::string line = RenderLine(name, fields);
    fs::File file = OpenTrace(path);
    if (!file.is_open()) return;
    std::error_code ec;
    static_cast<void>(fs::WriteAll(file, line.data(), line.size(), ec));
  } catch (...) {  // out of memory: the run goes on without this line
  }
}

std::string_view MapChainAction(std::string_view name) {
  if (name.starts_with("update_check_")) return "update.check";
  if (name.starts_with("download_")) return "update.download";
  if (IsVerifyEvent(name)) return "update.verify";
  if (name.starts_with("updater_run_") || IsApplyEvent(name)) return "update.apply";
  return {};
}

std::string_view MapChainEvent(std::string_view name) {
  if (name.ends_with("_start")) return "start";
  if (name.ends_with("_ok") || name.ends_with("_complete") || name == "download_selected") {
    return "end";
  }
  if (name.ends_with("_stall")) return "timeout";
  if (name.find("_fail") != std::string_view::npos) return "failure";
  if (name.ends_with("_warning")) return "degraded";
  return {};
}

std::string_view MapChainResult(std::string_view chain_event) {
  if (chain_event == "end") return "success";
  if (chain_event == "failure") return "failed";
  if (chain_event == "timeout") return "timeout";
  if (chain_event == "degraded") return "degraded";
  return {};
}

std::string_view MapUserErrorId(std::string_view name) {
  const std::string_view phase = MapChainEvent(name);
  if (phase != "failure" && phase != "timeout") return {};
  if (name.starts_with("update_check_")) return RecoveryFlowErrorId(kRecoveryFlowUpdate);
  if (name.starts_with("download_")) {
    return phase == "timeout" ? "QORVA-UPDATE-DOWNLOAD-TIMEOUT" : "QORVA-UPDATE-DOWNLOAD-FAILED";
  }
  if (IsVerifyEvent(name)) return "QORVA-UPDATE-VERIFY-FAILED";
  if (IsApplyEvent(name)) return "QORVA-UPDATE-APPLY-FAILED";
  return "QORVA-UPDATE-FAILED";
}

}  // namespace zul

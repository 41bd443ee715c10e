#include "diagnostics/report_upload.h"

#include <algorithm>
#include <cstdint>
#include <string_view>
#include <vector>

#include "collector/evidence_record.h"
#include "core/deployment.h"
#include "core/logger.h"
#include "core/system_error.h"
#include "core/text.h"
#include "diagnostics/diagnostic_names.h"
#include "diagnostics/diagnostics.h"
#include "diagnostics/hostile_json.h"
#include "diagnostics/report_manifest.h"
#include "diagnostics/upload_record.h"
#include "diagnostics/upload_worker.h"

namespace zul {

namespace {

using nlohmann::json;

constexpr std::size_t kManifestBytesMax = 1048576;
constexpr std::int32_t kConnectTimeoutMs = 4000;
constexpr std::int32_t kSendTimeoutMs = 6000;
constexpr std::int32_t kReceiveTimeoutMs = 6000;
constexpr std::uint64_t kResponseBytesMax = 65536;  // what the server says is not used

template <typename... Pieces>
void Log(LogLevel level, const Pieces&... pieces) {
  GetLogger().Log(LogCategory::kDiagnostics, level, pieces...);
}

/// Microseconds since 1970, and more than the last time.
std::string NewCorrelationId() {
  using std::chrono::system_clock;
  static std::atomic<std::int64_t> last{0};
  const auto now =
      std::chrono::duration_cast<std::chrono::microseconds>(system_clock::now().time_since_epoch());
  std::int64_t previous = last.load();
  std::int64_t number = 0;
  do {
    number = std::max<std::int64_t>(now.count(), previous + 1);
  } while (!last.compare_exchange_weak(previous, number));
  return "diagnostics-upload-" + std::to_string(number);
}

bool IsQueued(const fs::Path& report) {
  std::error_code ec;
  return fs::KindOf(report, fs::Links::kDoNotFollow, ec) == fs::EntryKind::kRegular;
}

/// A failure is a log line: what the file says of the upload is less than the upload.
void Rewrite(const fs::Path& report, const json& manifest) {
  if (!manifest.contains(kCompactEvidenceKey)) {
    static_cast<void>(WriteDiagnosticsJson(report, manifest));
    return;
  }
  std::string error;
  if (!CommitEvidenceRecord(report, manifest, &error)) {
    LogDiagnosticsFailure("compact upload evidence rewrite", error);
  }
}

net::HttpRequest PostTo(std::string_view origin, std::string payload) {
  net::HttpRequest request;
  request.method = net::HttpMethod::kPost;
  request.url = std::string(origin).append(kReportPath);
  request.headers = {{"Content-Type", "application/json"}};
  request.body = std::move(payload);
  request.resolve_and_connect_timeout_ms = kConnectTimeoutMs;
  request.send_timeout_ms = kSendTimeoutMs;
  request.receive_timeout_ms = kReceiveTimeoutMs;
  request.max_response_bytes = kResponseBytesMax;
  request.user_agent = "QORVA Diagnostics/1.0";
  return request;
}

/// The reports in the queue, by name.
std::vector<fs::Path> ReportsIn(const fs::Path& queue) {
  std::error_code ec;
  std::vector<fs::Path> reports;
  for (const fs::DirectoryEntry& entry : fs::ListDirectory(queue, ec)) {
    if (entry.kind == fs::EntryKind::kRegular && entry.path.extension() == ".json") {
      reports.push_back(entry.path);
    }
  }
  std::sort(reports.begin(), reports.end(), [](const fs::Path& a, const fs::Path& b) {
    return PathToUtf8(a.filename()) < PathToUtf8(b.filename());
  });
  return reports;
}

/// The upload of one report: its file and what the file says.
class Upload {
 public:
  Upload(const fs::Path& report, json manifest)
      : report_(report),
        name_(PathToUtf8(report.filename())),
        manifest_(std::move(manifest)),
        correlation_id_(NewCorrelationId()) {
    PrepareForUpload(&manifest_, correlation_id_);
  }

  void Run(const std::atomic<bool>& cancel, const ReportSender& send) {
    for (const std::string_view origin : deployment::kReportOrigins) {
      // Another process may have delivered it meanwhile.
      if (!IsQueued(report_)) return;
      if (cancel) {
        MarkCancelled(&manifest_);
        Rewrite(report_, manifest_);
        Log(LogLevel::kInfo, "Diagnostics upload cancelled before next origin: ", name_);
        return;
      }
      if (DeliverTo(origin, send)) return;
    }
    MarkFailed(&manifest_);
    if (IsQueued(report_)) Rewrite(report_, manifest_);
  }

 private:
  [[nodiscard]] bool DeliverTo(std::string_view origin, const ReportSender& send) {
    BeginAttempt(&manifest_, origin, correlation_id_);
    Rewrite(report_, manifest_);
    const net::HttpResponse response = send(PostTo(origin, UploadPayload(manifest_)));
    EndAttempt(&manifest_, response);
    if (IsDelivered(response)) {
      RemoveDelivered();
      Log(LogLevel::kInfo, "Diagnostics upload succeeded: ", name_, " -> ", OriginRole(origin));
      return true;
    }
    Log(LogLevel::kWarn, "Diagnostics upload failed: ", name_, " -> ", OriginRole(origin),
        " status=", std::to_string(response.status),
        " transport=", TextIn(manifest_, "last_upload_transport_error"),
        " error_id=", TextIn(manifest_, "last_upload_error_id"));
    return false;
  }

  void RemoveDelivered() {
    std::error_code ec;
    fs::Remove(report_, ec);
    if (!ec) return;
    LogDiagnosticsFailure("delivered report removal", SystemErrorText(ec));
    Rewrite(report_, manifest_);
  }

  const fs::Path report_;
  const std::string name_;
  json manifest_;
  const std::string correlation_id_;
};

/// What the worker of this process does, and what it has done.
void DrainOwnQueue(const std::atomic<bool>& cancel) {
  static TriedReports tried;  // one worker at a time
  const auto crash_directory = PathFromUtf8(GetDiagnosticsState().crash_directory);
  if (!crash_directory || crash_directory->empty()) return;
  DrainReportQueue(PendingReportsDirectory(*crash_directory), cancel, net::SendHttpRequest, &tried);
}

/// Never destroyed: a process may end, without the orderly end of diagnostics, while it runs.
UploadWorker& ProcessWorker() {
  static UploadWorker& worker = *new UploadWorker(DrainOwnQueue);
  return worker;
}

}  // namespace

void DrainReportQueue(const fs::Path& queue, const std::atomic<bool>& cancel,
                      const ReportSender& send, TriedReports* tried) {
  std::error_code ec;
  if (fs::KindOf(queue, fs::Links::kFollow, ec) != fs::EntryKind::kDirectory) return;
  std::vector<fs::Path> reports = ReportsIn(queue);
  std::erase_if(reports, [&](const fs::Path& report) {
    return tried->contains(PathToUtf8(report.filename()));
  });
  const std::size_t share = kReportsPerProcess - std::min(kReportsPerProcess, tried->size());
  reports.resize(std::min(reports.size(), share));
  Log(LogLevel::kInfo, "Diagnostics uploader: pending reports=", std::to_string(reports.size()));
  for (const fs::Path& report : reports) {
    if (cancel) {
      Log(LogLevel::kInfo, "Diagnostics uploader cancelled before next queued report.");
      return;
    }
    tried->insert(PathToUtf8(report.filename()));
    UploadOneReport(report, cancel, send);
  }
}

void UploadOneReport(const fs::Path& report, const std::atomic<bool>& cancel,
                     const ReportSender& send) {
  json manifest;
  switch (ReadJsonObject(report, kManifestBytesMax, &manifest)) {
    case JsonFileState::kObject:
      Upload(report, std::move(manifest)).Run(cancel, send);
      return;
    case JsonFileState::kNotAnObject:
      LogDiagnosticsFailure("upload manifest parse", "not a report");
      return;
    case JsonFileState::kUnreadable:
      // Gone since the queue was listed: another process has delivered it.
      if (IsQueued(report)) LogDiagnosticsFailure("upload manifest parse", "cannot be read");
      return;
  }
}

void StartUploadWorker() {
  RunGuarded("background uploader start", [] { ProcessWorker().Start(); });
}

void StopUploadWorker(std::chrono::milliseconds timeout) {
  RunGuarded("background uploader stop", [&] { ProcessWorker().Stop(timeout); });
}

}  // namespace zul

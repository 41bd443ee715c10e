#include "diagnostics/report_upload.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <string_view>
#include <vector>

#include "collector/evidence_record.h"
#include "core/deployment.h"
#include "core/system_error.h"
#include "core/text.h"
#include "diagnostics/diagnostics_log.h"
#include "diagnostics/json_file.h"
#include "diagnostics/report_files.h"
#include "diagnostics/report_manifest.h"
#include "diagnostics/upload_record.h"

namespace zul {

namespace {

using nlohmann::json;

constexpr std::size_t kManifestBytesMax = 1048576;
constexpr std::int32_t kConnectTimeoutMs = 4000;
constexpr std::int32_t kSendTimeoutMs = 6000;
constexpr std::int32_t kReceiveTimeoutMs = 6000;
constexpr std::uint64_t kResponseBytesMax = 65536;  // the response body is not used

/// Microseconds since 1970, increased where needed to be unique in this process.
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

/// A failure is logged and does not stop the upload, which matters more than its record.
void Rewrite(const fs::Path& report, const json& manifest) {
  if (!manifest.contains(kCompactEvidenceKey)) {
    static_cast<void>(WriteJsonFile(report, manifest));
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

/// The upload of one report: its file and the manifest in it.
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
      // Another process may have delivered the report in the meantime.
      if (!IsQueued(report_)) return;
      if (cancel) {
        MarkCancelled(&manifest_);
        Rewrite(report_, manifest_);
        LogDiagnostics(LogLevel::kInfo, "Diagnostics upload cancelled before next origin: ", name_);
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
      LogDiagnostics(LogLevel::kInfo, "Diagnostics upload succeeded: ", name_, " -> ",
                     OriginRole(origin));
      return true;
    }
    LogDiagnostics(LogLevel::kWarn, "Diagnostics upload failed: ", name_, " -> ",
                   OriginRole(origin), " status=", std::to_string(response.status),
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

}  // namespace

void DrainReportQueue(const fs::Path& queue, const std::set<std::string>& own,
                      const std::atomic<bool>& cancel, const ReportSender& send,
                      TriedReports* tried) {
  std::error_code ec;
  if (fs::KindOf(queue, fs::Links::kFollow, ec) != fs::EntryKind::kDirectory) return;
  std::vector<fs::Path> reports = ListReports(queue);
  std::erase_if(reports, [&](const fs::Path& report) {
    return tried->contains(PathToUtf8(report.filename()));
  });
  std::stable_partition(reports.begin(), reports.end(), [&](const fs::Path& report) {
    return own.contains(PathToUtf8(report.filename()));
  });
  const std::size_t share = kReportsPerProcess - std::min(kReportsPerProcess, tried->size());
  reports.resize(std::min(reports.size(), share));
  LogDiagnostics(LogLevel::kInfo,
                 "Diagnostics uploader: pending reports=", std::to_string(reports.size()));
  for (const fs::Path& report : reports) {
    if (cancel) {
      LogDiagnostics(LogLevel::kInfo, "Diagnostics uploader cancelled before next queued report.");
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
      if (TextIn(manifest, "schema_name") != kReportSchema) break;
      Upload(report, std::move(manifest)).Run(cancel, send);
      return;
    case JsonFileState::kNotAnObject:
      break;
    case JsonFileState::kUnreadable:
      // A report that has gone since the queue was listed was delivered by another process.
      if (IsQueued(report)) LogDiagnosticsFailure("upload manifest parse", "cannot be read");
      return;
  }
  LogDiagnosticsFailure("upload manifest parse", "not a report");
}

}  // namespace zul

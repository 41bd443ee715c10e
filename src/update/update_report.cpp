#include "update/update_report.h"

#include "core/text.h"
#include "diagnostics/diagnostics.h"
#include "diagnostics/report_manifest.h"
#include "trace/chain_events.h"
#include "transfer/url_policy.h"

namespace zul {

void ReportUpdaterError(const UpdateRequest& request, std::string_view stage,
                        std::string_view message) {
  const std::string trace_log_path = TraceLogPath();
  ReportRequest report;
  report.kind = "updater_error";
  report.reason = message.empty() ? stage : message;
  report.report_file = PathOrEmpty(trace_log_path);
  report.details = {{"stage", std::string(stage)},
                    {"trace_log_path", trace_log_path},
                    {"target_dir", request.target_dir},
                    {"restart_exe", request.restart_exe},
                    {"download_url", StripUrlQuery(request.download_url)},
                    {"fallback_download_url", StripUrlQuery(request.fallback_download_url)}};
  EnqueueReport(report);
  StartDiagnosticsSession();
}

}  // namespace zul

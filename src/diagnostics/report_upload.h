#pragma once

// Posting the queued reports to the report origins, in the background. A delivered report goes
// away; another stays, with a bounded record of its attempts, for the next process.

#include <atomic>
#include <chrono>
#include <cstddef>
#include <functional>
#include <set>
#include <string>

#include "core/file_layer.h"
#include "transfer/net/http_client.h"

namespace zul {

/// Sends one request and waits for the response; `net::SendHttpRequest` in the product.
using ReportSender = std::function<net::HttpResponse(const net::HttpRequest&)>;

/// The names of the reports that a process has taken up. Each gets one pass a process.
using TriedReports = std::set<std::string>;

/// One process takes up this many reports.
inline constexpr std::size_t kReportsPerProcess = 25;

/// Starts the one worker of this process. One that runs already looks at the queue once more when
/// it is through.
void StartUploadWorker();

/// Waits for the worker up to `timeout`, then cancels and joins it; the join is bounded by the
/// time-outs of the request in flight.
void StopUploadWorker(std::chrono::milliseconds timeout);

/// Sends the reports of the queue that were not tried yet, by name, until `cancel` is set or the
/// process has taken up its share.
void DrainReportQueue(const fs::Path& queue, const std::atomic<bool>& cancel,
                      const ReportSender& send, TriedReports* tried);

/// One pass of one report over the origins. `cancel` counts before each origin, never during a
/// request.
void UploadOneReport(const fs::Path& report, const std::atomic<bool>& cancel,
                     const ReportSender& send);

}  // namespace zul

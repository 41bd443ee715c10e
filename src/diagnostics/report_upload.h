#pragma once

// One background thread that posts the queued reports to the report origins. A delivered report
// goes away; another stays, with a bounded record of its attempts, for the next process.

#include <atomic>
#include <chrono>
#include <functional>
#include <string_view>

#include "core/file_layer.h"
#include "transfer/net/http_client.h"

namespace zul {

/// Sends one request and waits for the response; `net::SendHttpRequest` in the product.
using ReportSender = std::function<net::HttpResponse(const net::HttpRequest&)>;

/// Starts the one worker when none runs.
void StartUploadWorker();

/// Waits for the worker up to `timeout`, then cancels and joins it; the join is bounded by the
/// time-outs of the request in flight.
void StopUploadWorker(std::chrono::milliseconds timeout);

/// Sends the first 25 reports of the queue, by name, until `cancel` is set.
void DrainReportQueue(const fs::Path& queue, const std::atomic<bool>& cancel,
                      const ReportSender& send);

/// One pass of one report over the origins.
void UploadOneReport(const fs::Path& report, const std::atomic<bool>& cancel,
                     const ReportSender& send);

}  // namespace zul

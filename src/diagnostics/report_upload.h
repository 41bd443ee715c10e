#pragma once

// Posting the queued reports to the report origins. A delivered report is deleted. Any other report
// stays in the queue, with a bounded record of its attempts, for the next process.

#include <atomic>
#include <cstddef>
#include <functional>
#include <set>
#include <string>

#include "core/file_layer.h"
#include "transfer/net/http_client.h"

namespace zul {

/// Sends one request and waits for the response; `net::SendHttpRequest` in the product.
using ReportSender = std::function<net::HttpResponse(const net::HttpRequest&)>;

/// The file names of the reports that this process has tried. Each is tried once per process.
using TriedReports = std::set<std::string>;

/// The most reports that one process tries.
inline constexpr std::size_t kReportsPerProcess = 25;

/// Uploads the reports in `queue` that were not tried yet: those of this process, whose file names
/// are `own`, before the others, and each group in the order of its names. So old reports that no
/// origin accepts cannot keep a new one waiting. Ends when `cancel` is set or the process has tried
/// kReportsPerProcess reports. Blocks for the requests.
void DrainReportQueue(const fs::Path& queue, const std::set<std::string>& own,
                      const std::atomic<bool>& cancel, const ReportSender& send,
                      TriedReports* tried);

/// Offers one report to each origin in turn until one accepts it. `cancel` is read before each
/// origin, never during a request. A file that does not have the schema of a report is neither sent
/// nor changed.
void UploadOneReport(const fs::Path& report, const std::atomic<bool>& cancel,
                     const ReportSender& send);

}  // namespace zul

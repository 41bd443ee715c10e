#pragma once

// What a failed run leaves for support: one report, queued and sent in the background.

#include <string>
#include <string_view>

#include "request/update_request.h"

namespace zul {

/// Queues the report of a run that failed in `stage`, with the trace as its text, and starts the
/// session of this process: what earlier processes left is reported too, and the upload begins.
/// `message` is what the user is told; the stage when it is empty. Waits for no upload, and its own
/// failure is a log line.
void ReportUpdaterError(const UpdateRequest& request, std::string_view stage,
                        std::string_view message);

}  // namespace zul

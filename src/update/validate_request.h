#pragma once

// Whether a request may run. Every check comes before the first side effect of a run. The first
// check that fails decides the message that the user sees.

#include <string>

#include "request/update_request.h"

namespace zul {

/// True when the request may run. Reads the disk, changes nothing. On failure `error` (may be null)
/// receives the message, UTF-8.
[[nodiscard]] bool ValidateUpdateRequest(const UpdateRequest& request, std::string* error);

}  // namespace zul

#pragma once

// Functions and lines for the frames of a stack, from the symbols of exactly that build.

#include <string>
#include <vector>

#include "core/path.h"
#include "inspect/evidence_inspection.h"

namespace zul {

/// True when the program or library at `binary` is the build that `frame` is in: the same build id,
/// or, where the frame has none, the same time stamp and image size.
[[nodiscard]] bool IsBuildOf(const StackFrame& frame, const fs::Path& binary);

/// Fills `symbol` of each frame whose build lies below `folder` (UTF-8) with its symbols: a file
/// "<program>.debug" beside the program or in its folder "symbols". Starts llvm-symbolizer or
/// addr2line. Returns one sentence when no frame could be resolved, else the
/// empty text.
[[nodiscard]] std::string ResolveFrames(const std::string& folder, std::vector<StackFrame>* frames);

/// Starts a program of the search path, without a window or input, and waits for its end. False
/// when it cannot be started or its exit code is not 0. `output` receives its standard output.
[[nodiscard]] bool RunTool(const std::string& program, const std::vector<std::string>& arguments,
                           std::string* output);

}  // namespace zul

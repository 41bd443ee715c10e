#pragma once

// The path type of the system.

#include <filesystem>

namespace zul::fs {

/// A path as a lexical value: joining, splitting, comparing. What touches the disk goes through
/// core/file_layer.h.
using Path = std::filesystem::path;

}  // namespace zul::fs

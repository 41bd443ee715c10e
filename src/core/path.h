#pragma once

// The path type.

#include <filesystem>

namespace zul::fs {

/// A path as a lexical value, for joining, splitting and comparing. For disk access use
/// core/file_layer.h.
using Path = std::filesystem::path;

}  // namespace zul::fs

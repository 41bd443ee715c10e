#pragma once

#include <string>
#include <string_view>

namespace zul::fuzz {

/// The archive with its CRCs and uncompressed sizes made those of the data, and its local headers
/// made those of the central directory. A changed byte is then not caught by the first comparison
/// of two headers, so that the code behind it is reached. What cannot be mended stays.
[[nodiscard]] std::string MendZip(std::string_view archive);

}  // namespace zul::fuzz

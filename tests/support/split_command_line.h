#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace zul::test {

/// Splits a command line as CommandLineToArgvW does: the program's name ends at its closing quote,
/// or at the first blank when it is not quoted, and knows no escapes; in the other arguments 2n
/// backslashes before a quote are n and the quote toggles quoting, 2n+1 are n and a plain quote,
/// and within quotes a doubled quote is a plain one and ends them (which is not documented).
[[nodiscard]] std::vector<std::wstring> SplitCommandLine(std::wstring_view line);

}  // namespace zul::test

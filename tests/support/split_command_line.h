#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace zul::test {

// The splitting of command lines for tests on systems without CommandLineToArgvW.

/// Splits a command line as CommandLineToArgvW does. The program's name ends at its closing quote,
/// or at the first blank when it is not quoted, and has no escapes. In the other arguments 2n
/// backslashes before a quote become n, and the quote starts or ends a quoted part; 2n+1
/// backslashes become n, and the quote is literal. In a quoted part a doubled quote is a literal
/// quote and ends the part, which the platform's documentation does not say.
[[nodiscard]] std::vector<std::wstring> SplitCommandLine(std::wstring_view line);

}  // namespace zul::test

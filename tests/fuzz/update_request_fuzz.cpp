// The command line of an update, in both directions.
// Input: arguments with a NUL between them. Bytes that are not UTF-8 become unpaired surrogates,
// which Windows permits.

#include <optional>
#include <string>

#include "core/text.h"
#include "request/update_request.h"
#include "tests/fuzz/fuzz_target.h"
#include "tests/support/split_command_line.h"

namespace zul::fuzz {

namespace {

std::wstring Argument(std::string_view bytes) {
  if (std::optional<std::wstring> wide = Utf8ToWide(bytes)) return *std::move(wide);
  std::wstring argument;
  for (const char c : bytes) {
    argument += static_cast<wchar_t>(c >= 0 ? c : 0xDC00 + static_cast<unsigned char>(c));
  }
  return argument;
}

UpdateRequest Parse(const std::vector<std::wstring>& arguments) {
  std::vector<const wchar_t*> argv;
  for (const std::wstring& argument : arguments) argv.push_back(argument.c_str());
  return ParseUpdateRequest(static_cast<int>(argv.size()), argv.data());
}

}  // namespace

void Run(std::string_view input) {
  const std::wstring program = L"C:\\temp dir\\zul_updater.exe";
  std::vector<std::wstring> arguments = {program};
  std::wstring line = QuoteCommandArgument(program);
  for (const std::string_view bytes : SplitAt(input, std::string_view("\0", 1))) {
    arguments.push_back(Argument(bytes));
    line += L' ' + QuoteCommandArgument(arguments.back());
  }
  Require(test::SplitCommandLine(line) == arguments, "quoted arguments split into themselves");

  const UpdateRequest request = Parse(arguments);
  const std::vector<std::wstring> rendered =
      test::SplitCommandLine(RenderHelperCommandLine(*PathFromUtf8(*WideToUtf8(program)), request));
  Require(rendered.front() == program, "the path of the helper stays the same");
  Require(Parse(rendered) == request, "a rendered request is the same when it is parsed");
}

}  // namespace zul::fuzz

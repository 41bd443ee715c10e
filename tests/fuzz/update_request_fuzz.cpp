// The switches of an update, in both directions. The Windows tests compare the quoting with the
// system. Input: arguments with a NUL between them. Bytes that are not UTF-8 become unpaired
// surrogates, which Windows permits.

#include <optional>
#include <string>

#include "core/text.h"
#include "request/update_request.h"
#include "tests/fuzz/fuzz_target.h"

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
  std::vector<std::wstring> arguments = {{}};
  for (const std::string_view bytes : SplitAt(input, std::string_view("\0", 1))) {
    arguments.push_back(Argument(bytes));
  }
  UpdateRequest request = Parse(arguments);
  request.unreadable_switch.clear();  // such a request is refused and never rendered
  std::vector<std::wstring> rendered = {{}};
  for (const auto& [prefix, value] : ListUpdateSwitches(request)) {
    rendered.push_back(*Utf8ToWide(std::string(prefix) + value));
  }
  Require(Parse(rendered) == request, "a rendered request is the same when it is parsed");
}

}  // namespace zul::fuzz

// The process entry on Windows. A console gets wide text, so that no code page matters; a file or a
// pipe gets UTF-8.

#include <windows.h>

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include "core/process_environment.h"
#include "core/text.h"
#include "inspect/inspect.h"

namespace zul {

namespace {

/// True when the stream is a console that understands colour sequences from now on.
bool EnableColours(HANDLE stream) {
  DWORD mode = 0;
  return ::GetConsoleMode(stream, &mode) != 0 &&
         ::SetConsoleMode(stream, mode | ENABLE_VIRTUAL_TERMINAL_PROCESSING) != 0;
}

void WriteConsoleText(HANDLE console, std::string_view text) {
  const std::wstring wide = Utf8ToWide(text).value_or(std::wstring());
  constexpr std::size_t kPiece = 8192;  // older systems take less than 64 KiB at once
  for (std::size_t at = 0; at < wide.size(); at += kPiece) {
    const auto size = static_cast<DWORD>(std::min(kPiece, wide.size() - at));
    DWORD written = 0;
    if (::WriteConsoleW(console, wide.data() + at, size, &written, nullptr) == 0) return;
  }
}

void Write(DWORD stream_id, std::string_view text) {
  HANDLE const stream = ::GetStdHandle(stream_id);
  DWORD mode = 0;
  if (::GetConsoleMode(stream, &mode) != 0) return WriteConsoleText(stream, text);
  while (!text.empty()) {
    DWORD written = 0;
    const auto size = static_cast<DWORD>(std::min<std::size_t>(text.size(), 1u << 20));
    if (::WriteFile(stream, text.data(), size, &written, nullptr) == 0 || written == 0) return;
    text.remove_prefix(written);
  }
}

int Main(int argc, const wchar_t* const* argv) {
  std::vector<std::string> arguments;
  for (int i = 1; i < argc; ++i) arguments.push_back(WideToUtf8Lossy(argv[i]));
  const bool colours =
      GetEnvironmentPath("NO_COLOR").empty() && EnableColours(::GetStdHandle(STD_OUTPUT_HANDLE));
  const InspectOutput output = RunInspect(arguments, colours);
  Write(STD_OUTPUT_HANDLE, output.out);
  Write(STD_ERROR_HANDLE, output.err);
  return output.status;
}

}  // namespace

}  // namespace zul

int wmain(int argc, wchar_t** argv) {
  return zul::Main(argc, argv);
}

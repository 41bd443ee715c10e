#include <algorithm>
#include <limits>

#include "core/text.h"
#include "request/update_request.h"

namespace zul {

namespace {

// A switch is one argument, `--name=value`; both directions share these beginnings.
constexpr std::string_view kPid = "--pid=";
constexpr std::string_view kDownloadUrl = "--download-url=";
constexpr std::string_view kFallbackDownloadUrl = "--fallback-download-url=";
constexpr std::string_view kSha256 = "--sha256=";
constexpr std::string_view kTargetDir = "--target-dir=";
constexpr std::string_view kRestartExe = "--restart-exe=";
constexpr std::string_view kRestartArgs = "--restart-args=";
constexpr std::string_view kHeadlessProof = "--headless-restart-version-proof=";
constexpr std::string_view kRequiredFile = "--required-payload-file=";
constexpr std::string_view kRequireSigned = "--require-signed-payload-binaries=";

/// The platform's strtoul with its 32-bit unsigned long, on every system: leading digits count, a
/// minus sign negates modulo 2^32, and what does not fit becomes the largest value.
std::uint32_t ParsePid(std::string_view text) {
  constexpr std::uint64_t kMax = std::numeric_limits<std::uint32_t>::max();
  text.remove_prefix(std::min(text.find_first_not_of(" \t\n\v\f\r"), text.size()));
  const bool negative = text.starts_with('-');
  if (negative || text.starts_with('+')) text.remove_prefix(1);
  std::uint64_t value = 0;
  for (const char c : text) {
    if (c < '0' || c > '9') break;
    value = value * 10 + static_cast<std::uint64_t>(c - '0');
    if (value > kMax) return static_cast<std::uint32_t>(kMax);
  }
  const auto pid = static_cast<std::uint32_t>(value);
  return negative ? 0U - pid : pid;
}

std::string Word(std::string_view value) {
  return AsciiLower(TrimWhitespace(value));
}

struct Switch {
  std::string_view beginning;
  void (*take)(UpdateRequest& request, std::string&& value);
};

constexpr Switch kSwitches[] = {
    {kPid, [](UpdateRequest& r, std::string&& v) { r.pid = ParsePid(v); }},
    {kDownloadUrl, [](UpdateRequest& r, std::string&& v) { r.download_url = std::move(v); }},
    {kFallbackDownloadUrl,
     [](UpdateRequest& r, std::string&& v) { r.fallback_download_url = std::move(v); }},
    {kSha256, [](UpdateRequest& r, std::string&& v) { r.sha256 = std::move(v); }},
    {kTargetDir, [](UpdateRequest& r, std::string&& v) { r.target_dir = std::move(v); }},
    {kRestartExe, [](UpdateRequest& r, std::string&& v) { r.restart_exe = std::move(v); }},
    {kRestartArgs, [](UpdateRequest& r, std::string&& v) { r.restart_args = std::move(v); }},
    // The two bools accept different words on purpose: a headless run must be asked for exactly.
    {kHeadlessProof,
     [](UpdateRequest& r, std::string&& v) { r.headless_restart_version_proof = Word(v) == "1"; }},
    {kRequiredFile,
     [](UpdateRequest& r, std::string&& v) { r.required_payload_files.push_back(std::move(v)); }},
    {kRequireSigned,
     [](UpdateRequest& r, std::string&& v) {
       const std::string word = Word(v);
       r.require_signed_payload_binaries =
           word == "1" || word == "true" || word == "yes" || word == "on";
     }},
};

bool BeginsWith(std::wstring_view argument, std::string_view beginning) {
  return argument.size() >= beginning.size() &&
         std::equal(beginning.begin(), beginning.end(), argument.begin(),
                    [](char a, wchar_t b) { return static_cast<wchar_t>(a) == b; });
}

void TakeArgument(UpdateRequest& request, std::wstring_view argument) {
  for (const Switch& known : kSwitches) {
    if (!BeginsWith(argument, known.beginning)) continue;
    // Text that is not valid UTF-16 counts as an empty value, and an empty value changes nothing.
    std::string value = WideToUtf8(argument.substr(known.beginning.size())).value_or(std::string());
    if (value.empty()) continue;
    known.take(request, std::move(value));
    return;
  }
}

void AppendSwitch(std::wstring& line, std::string_view beginning, std::string_view value) {
  line.push_back(L' ');
  line.append(beginning.begin(), beginning.end());
  line.append(QuoteCommandArgument(Utf8ToWide(value).value_or(std::wstring())));
}

}  // namespace

UpdateRequest ParseUpdateRequest(int argc, const wchar_t* const* argv) {
  UpdateRequest request;
  for (int i = 1; i < argc; ++i) {
    if (argv[i] != nullptr) TakeArgument(request, argv[i]);
  }
  return request;
}

std::wstring RenderHelperCommandLine(const fs::Path& helper_path, const UpdateRequest& request) {
  const auto append_if = [](std::wstring& line, std::string_view beginning,
                            const std::string& value) {
    if (!value.empty()) AppendSwitch(line, beginning, value);
  };
  std::wstring line =
      QuoteCommandArgument(Utf8ToWide(PathToUtf8(helper_path)).value_or(std::wstring()));
  AppendSwitch(line, kPid, std::to_string(request.pid));
  AppendSwitch(line, kDownloadUrl, request.download_url);
  append_if(line, kFallbackDownloadUrl, request.fallback_download_url);
  AppendSwitch(line, kSha256, request.sha256);
  AppendSwitch(line, kTargetDir, request.target_dir);
  AppendSwitch(line, kRestartExe, request.restart_exe);
  append_if(line, kRestartArgs, request.restart_args);
  if (request.headless_restart_version_proof) AppendSwitch(line, kHeadlessProof, "1");
  for (const std::string& file : request.required_payload_files) {
    AppendSwitch(line, kRequiredFile, file);
  }
  if (request.require_signed_payload_binaries) AppendSwitch(line, kRequireSigned, "1");
  return line;
}

std::wstring QuoteCommandArgument(std::wstring_view text) {
  if (text.empty()) return L"\"\"";
  if (text.find_first_of(L" \t\"") == std::wstring_view::npos) return std::wstring(text);
  std::wstring quoted = L"\"";
  std::size_t backslashes = 0;  // the run that ends just before the current character
  for (const wchar_t c : text) {
    if (c == L'"') quoted.append(backslashes + 1, L'\\');
    quoted.push_back(c);
    backslashes = c == L'\\' ? backslashes + 1 : 0;
  }
  quoted.append(backslashes, L'\\');
  quoted.push_back(L'"');
  return quoted;
}

}  // namespace zul

#include "request/update_request.h"

#include <algorithm>
#include <limits>
#include <optional>

#include "core/text.h"

namespace zul {

namespace {

// Every switch is one argument of the form `--name=value`. These are the parts before the value.
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

/// Reads a number as strtoul does on Windows, where unsigned long has 32 bits: the digits up to the
/// first other character count, a minus sign negates modulo 2^32, and a number that is too large
/// gives the largest value.
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
  std::string_view prefix;
  void (*store)(UpdateRequest* request, std::string&& value);
};

constexpr Switch kSwitches[] = {
    {kPid, [](UpdateRequest* r, std::string&& v) { r->pid = ParsePid(v); }},
    {kDownloadUrl, [](UpdateRequest* r, std::string&& v) { r->download_url = std::move(v); }},
    {kFallbackDownloadUrl,
     [](UpdateRequest* r, std::string&& v) { r->fallback_download_url = std::move(v); }},
    {kSha256, [](UpdateRequest* r, std::string&& v) { r->sha256 = std::move(v); }},
    {kTargetDir, [](UpdateRequest* r, std::string&& v) { r->target_dir = std::move(v); }},
    {kRestartExe, [](UpdateRequest* r, std::string&& v) { r->restart_exe = std::move(v); }},
    {kRestartArgs, [](UpdateRequest* r, std::string&& v) { r->restart_args = std::move(v); }},
    // The two bools accept different words on purpose: only "1" requests a headless run.
    {kHeadlessProof,
     [](UpdateRequest* r, std::string&& v) { r->headless_restart_version_proof = Word(v) == "1"; }},
    {kRequiredFile,
     [](UpdateRequest* r, std::string&& v) { r->required_payload_files.push_back(std::move(v)); }},
    {kRequireSigned,
     [](UpdateRequest* r, std::string&& v) {
       const std::string word = Word(v);
       r->require_signed_payload_binaries =
           word == "1" || word == "true" || word == "yes" || word == "on";
     }},
};

bool StartsWith(std::wstring_view argument, std::string_view prefix) {
  return argument.size() >= prefix.size() &&
         std::equal(prefix.begin(), prefix.end(), argument.begin(),
                    [](char a, wchar_t b) { return static_cast<wchar_t>(a) == b; });
}

void ReadArgument(std::wstring_view argument, UpdateRequest* request) {
  for (const Switch& known : kSwitches) {
    if (!StartsWith(argument, known.prefix)) continue;
    std::optional<std::string> value = WideToUtf8(argument.substr(known.prefix.size()));
    if (!value && request->unreadable_switch.empty()) {
      request->unreadable_switch = known.prefix.substr(0, known.prefix.size() - 1);
    }
    // An empty value changes nothing.
    if (value && !value->empty()) known.store(request, *std::move(value));
    return;
  }
}

std::wstring Widen(std::string_view text) {
  return Utf8ToWide(text).value_or(std::wstring());
}

}  // namespace

UpdateRequest ParseUpdateRequest(int argc, const wchar_t* const* argv) {
  UpdateRequest request;
  for (int i = 1; i < argc; ++i) {
    if (argv[i] != nullptr) ReadArgument(argv[i], &request);
  }
  return request;
}

std::vector<UpdateSwitch> ListUpdateSwitches(const UpdateRequest& request) {
  std::vector<UpdateSwitch> switches;
  const auto append = [&switches](std::string_view prefix, std::string value) {
    switches.push_back({prefix, std::move(value)});
  };
  append(kPid, std::to_string(request.pid));
  append(kDownloadUrl, request.download_url);
  if (!request.fallback_download_url.empty()) {
    append(kFallbackDownloadUrl, request.fallback_download_url);
  }
  append(kSha256, request.sha256);
  append(kTargetDir, request.target_dir);
  append(kRestartExe, request.restart_exe);
  if (!request.restart_args.empty()) append(kRestartArgs, request.restart_args);
  if (request.headless_restart_version_proof) append(kHeadlessProof, "1");
  for (const std::string& file : request.required_payload_files) append(kRequiredFile, file);
  if (request.require_signed_payload_binaries) append(kRequireSigned, "1");
  return switches;
}

std::wstring RenderHelperCommandLine(const fs::Path& helper_path, const UpdateRequest& request) {
  std::wstring line = QuoteCommandArgument(Widen(PathToUtf8(helper_path)));
  for (const auto& [prefix, value] : ListUpdateSwitches(request)) {
    line += L' ' + Widen(prefix) + QuoteCommandArgument(Widen(value));
  }
  return line;
}

std::wstring QuoteCommandArgument(std::wstring_view text) {
  if (text.empty()) return L"\"\"";
  if (text.find_first_of(L" \t\"") == std::wstring_view::npos) return std::wstring(text);
  std::wstring quoted = L"\"";
  std::size_t backslashes = 0;  // those directly before the current character
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

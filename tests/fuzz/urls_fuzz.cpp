// The URL parsers, the allow-list and redirects.
// Input: a URL; behind a line feed where it redirects to, and what else could be seen in it.

#include <string>

#include "core/text.h"
#include "tests/fuzz/fuzz_target.h"
#include "transfer/redirect_url.h"
#include "transfer/url_cracker.h"
#include "transfer/url_policy.h"

namespace zul::fuzz {

namespace {

// The host as connecting to it would see it: without brackets and case.
std::string BareHost(std::string_view host) {
  if (host.starts_with('[') && host.ends_with(']')) host = host.substr(1, host.size() - 2);
  return AsciiLower(host);
}

// True when the text says by its first letters that it leads to `host`.
bool PlainlyLeadsTo(std::string_view text, std::string_view host) {
  const std::string url = AsciiLower(TrimWhitespace(text));
  const std::string start = "https://" + std::string(host);
  return url.starts_with(start) &&
         (url.size() == start.size() ||
          std::string_view("/?#:").find(url[start.size()]) != std::string_view::npos);
}

void RequireSoundUrl(std::string_view text) {
  const NormalizedUrl url = NormalizeUrl(text, false);
  const NormalizedUrl secure = NormalizeUrl(text, true);
  const UpdateUrlParts update = ParseUpdateUrl(text);
  Require(url.ok == url.error.empty() && update.ok == update.error.empty(),
          "a failure has a reason and a success has none");
  Require(secure.ok == (url.ok && url.scheme == "https"), "only https is secure");
  Require(!update.ok || (update.secure && !update.host.empty()), "an update comes over https");
  if (!url.ok) return;
  Require(!url.host.empty() && url.port > 0 && url.port < 65536, "a URL has a host and a port");
  Require(url.path_and_query.starts_with('/') && url.path_and_query.find('#') == std::string::npos,
          "a request path is absolute and without a fragment");
  Require(!update.ok || (BareHost(WideToUtf8Lossy(update.host)) == BareHost(url.host) &&
                         update.port == url.port),
          "both parsers see the same host and port");
}

// A cracker that sees something else in `text`, as the platform's may: what our own sees in
// `other`.
void RequireJudgement(std::string_view text, std::string_view other) {
  CrackedUrl cracked;
  if (!CrackUrl(Utf8ToWide(other).value_or(std::wstring()), cracked)) return;
  const NormalizedUrl url = NormalizeUrl(text, true);
  const UpdateUrlParts update = JudgeCrackedUrl(text, cracked);
  Require(!update.ok || !url.ok ||
              (BareHost(WideToUtf8Lossy(update.host)) == BareHost(url.host) &&
               update.port == url.port && cracked.scheme == UrlScheme::kHttps),
          "a cracker that sees another host or port is not believed");
}

void RequireListedHost(std::string_view text) {
  const std::vector<std::string> listed = DefaultUpdateDownloadHosts();
  if (!IsAllowedDownloadUrl(text, listed, nullptr)) return;
  const UpdateUrlParts update = ParseUpdateUrl(text);
  bool plain = false;
  bool connected = !update.ok;
  for (const std::string& host : listed) {
    plain = plain || PlainlyLeadsTo(text, host) || PlainlyLeadsTo(text, "[" + host + "]");
    connected = connected || BareHost(WideToUtf8Lossy(update.host)) == host;
  }
  Require(plain && connected, "an allowed URL leads to a listed host");
}

void RequireSameOrigin(std::string_view base, std::string_view location) {
  const NormalizedUrl from = NormalizeUrl(base, false);
  const NormalizedUrl to = NormalizeUrl(ResolveRedirect(base, location), false);
  const bool relative =
      location.find_first_of(":/\\") != 0 && location.find_first_of("/\\?#") <= location.find(':');
  Require(!from.ok || !to.ok || !relative ||
              (to.scheme == from.scheme && to.host == from.host && to.port == from.port),
          "a relative redirect stays where it was");
}

}  // namespace

void Run(std::string_view input) {
  const std::size_t end = input.find('\n');
  const std::string_view text = input.substr(0, end);
  RequireSoundUrl(text);
  RequireListedHost(text);
  if (end != std::string_view::npos) {
    RequireSoundUrl(ResolveRedirect(text, input.substr(end + 1)));
    RequireJudgement(text, input.substr(end + 1));
    RequireSameOrigin(text, input.substr(end + 1));
  }
  const std::string stripped = StripUrlQuery(input);
  Require(stripped.find_first_of("?#") == std::string::npos && input.starts_with(stripped) &&
              (stripped.size() == input.size() || input[stripped.size()] == '?' ||
               input[stripped.size()] == '#'),
          "a stripped URL ends before its query and nowhere else");
}

}  // namespace zul::fuzz

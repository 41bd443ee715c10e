// The URL parsers, the allow-list and redirects.
// Input: a URL. After a line feed, where it redirects to; this is also what another parser could
// take the first URL for.

#include <algorithm>
#include <string>
#include <tuple>

#include "core/text.h"
#include "tests/fuzz/fuzz_target.h"
#include "transfer/url_cracker.h"
#include "transfer/url_policy.h"

namespace zul::fuzz {

namespace {

/// The host to connect to: without brackets, in lower case.
std::string BareHost(std::string_view host) {
  if (host.starts_with('[') && host.ends_with(']')) host = host.substr(1, host.size() - 2);
  return AsciiLower(host);
}

/// True when the text begins with https and `host`.
bool BeginsWithHost(std::string_view text, const std::string& host) {
  const std::string url = AsciiLower(TrimWhitespace(text)) + "/";
  const std::string start = "https://" + host;
  return url.starts_with(start) && url.find_first_of("/?#:", start.size()) == start.size();
}

bool SameServer(const UpdateUrlParts& update, const NormalizedUrl& url) {
  return BareHost(WideToUtf8Lossy(update.host)) == BareHost(url.host) && update.port == url.port;
}

void RequireSoundUrl(std::string_view text) {
  const NormalizedUrl url = NormalizeUrl(text, false);
  const NormalizedUrl secure = NormalizeUrl(text, true);
  const UpdateUrlParts update = ParseUpdateUrl(text);
  Require(url.ok == url.error.empty() && update.ok == update.error.empty(),
          "a failure has a reason and a success has none");
  Require(secure.ok == (url.ok && url.scheme == "https"), "a secure URL is an https URL");
  Require(!update.ok || (update.secure && !update.host.empty()),
          "an update is fetched over https from a host");
  if (!url.ok) return;
  Require(!url.host.empty() && url.port > 0 && url.port < 65536, "a URL has a host and a port");
  Require(url.path_and_query.starts_with('/') && url.path_and_query.find('#') == std::string::npos,
          "a request path is absolute and without a fragment");
  Require(!update.ok || SameServer(update, url), "both parsers see the same host and port");
}

/// Requires that a parser of the platform that takes `text` for `other` is not believed.
void RequireJudgement(std::string_view text, std::string_view other) {
  CrackedUrl cracked;
  if (!CrackUrl(Utf8ToWide(other).value_or(std::wstring()), &cracked)) return;
  const NormalizedUrl url = NormalizeUrl(text, true);
  const UpdateUrlParts update = JudgeCrackedUrl(text, cracked);
  Require(!update.ok || !url.ok || (SameServer(update, url) && cracked.scheme == UrlScheme::kHttps),
          "two parsers that differ in host or port make no URL");
}

void RequireListedHost(std::string_view text) {
  const std::vector<std::string> listed = DefaultUpdateDownloadHosts();
  if (!IsAllowedDownloadUrl(text, listed, nullptr)) return;
  const UpdateUrlParts update = ParseUpdateUrl(text);
  const auto leads_to = [&](const std::string& host) {
    return (BeginsWithHost(text, host) || BeginsWithHost(text, "[" + host + "]")) &&
           (!update.ok || BareHost(WideToUtf8Lossy(update.host)) == host);
  };
  Require(std::any_of(listed.begin(), listed.end(), leads_to), "only listed hosts are allowed");
}

void RequireSameOrigin(std::string_view base, std::string_view location) {
  const NormalizedUrl from = NormalizeUrl(base, false);
  const NormalizedUrl to = NormalizeUrl(ResolveRedirect(base, location), false);
  const bool relative =
      location.find_first_of(":/\\") != 0 && location.find_first_of("/\\?#") <= location.find(':');
  const auto origin = [](const NormalizedUrl& u) { return std::tie(u.scheme, u.host, u.port); };
  const bool stays = !from.ok || !to.ok || origin(to) == origin(from);
  Require(!relative || stays, "a relative redirect keeps its origin");
}

}  // namespace

void Run(std::string_view input) {
  const std::size_t end = input.find('\n');
  const std::string_view text = input.substr(0, end);
  RequireSoundUrl(text);
  RequireListedHost(text);
  const std::string_view other = end == input.npos ? std::string_view() : input.substr(end + 1);
  RequireSoundUrl(ResolveRedirect(text, other));
  RequireJudgement(text, other);
  RequireSameOrigin(text, other);
  Require(StripUrlQuery(input) == input.substr(0, input.find_first_of("?#")),
          "only query and fragment are removed");
}

}  // namespace zul::fuzz

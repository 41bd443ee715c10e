#include "transfer/url_policy.h"

#include <gtest/gtest.h>

#include "core/text.h"
#include "transfer/redirect_url.h"
#include "transfer/url_cracker.h"

namespace zul {
namespace {

using namespace std::string_literals;

const char* const kNoScheme = "URL must include http or https scheme";
const char* const kBadScheme = "URL scheme must be http or https";
const char* const kBadAuthority = "URL host is empty or contains user info";
const char* const kBadHost = "URL host contains unsupported characters";
const char* const kBadPort = "URL port is invalid";
const char* const kPortRange = "URL port is out of range";

TEST(NormalizeUrl, SplitsWhatItAccepts) {
  struct Row {
    const char* text;
    const char* scheme;
    const char* host;
    int port;
    const char* path;
  };
  const Row rows[] = {
      {"https://host", "https", "host", 443, "/"},
      {"http://host", "http", "host", 80, "/"},
      {" \t\r\n\v\fhttps://host/a \n", "https", "host", 443, "/a"},
      {"HTTPS://HOST.Example/Path?Query", "https", "host.example", 443, "/Path?Query"},
      {"https://host:65535/", "https", "host", 65535, "/"},
      {"https://host:00080/", "https", "host", 80, "/"},
      {"https://host:/", "https", "host", 443, "/"},
      {"https://host?x=1", "https", "host", 443, "/?x=1"},
      {"https://host#frag", "https", "host", 443, "/"},
      {"https://host#/a?b", "https", "host", 443, "/"},
      {"https://host/a?b#c?d", "https", "host", 443, "/a?b"},
      {"https://host?#", "https", "host", 443, "/?"},
      {"https://host/p@q://r", "https", "host", 443, "/p@q://r"},
      {"https://host?@evil/", "https", "host", 443, "/?@evil/"},
      {"https://[::1]/", "https", "::1", 443, "/"},
      {"https://[::1]:8443?x", "https", "::1", 8443, "/?x"},
      {"https://[::1]:", "https", "::1", 443, "/"},
      {"https://[FE80::1]/", "https", "FE80::1", 443, "/"},
      {"https://[\xC3\xA9 _]/", "https", "\xC3\xA9 _", 443, "/"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.text);
    const NormalizedUrl url = NormalizeUrl(row.text, false);
    EXPECT_TRUE(url.ok);
    EXPECT_EQ(url.error, "");
    EXPECT_EQ(url.scheme, row.scheme);
    EXPECT_EQ(url.secure, url.scheme == "https");
    EXPECT_EQ(url.host, row.host);
    EXPECT_EQ(url.port, row.port);
    EXPECT_EQ(url.path_and_query, row.path);
    // Without its scheme's security the same text has one reason to fail.
    const NormalizedUrl required = NormalizeUrl(row.text, true);
    EXPECT_EQ(required.ok, url.secure);
    EXPECT_EQ(required.error, url.secure ? "" : "URL must use HTTPS");
  }
}

TEST(NormalizeUrl, SaysWhyItRefuses) {
  struct Row {
    std::string text;
    const char* error;
  };
  const Row rows[] = {
      {"", kNoScheme},
      {"  ", kNoScheme},
      {"ab", kNoScheme},
      {"host", kNoScheme},
      {"https:host", kNoScheme},
      {"https:\\\\host\\", kNoScheme},
      {" ://host", kNoScheme},
      {"ftp://host", kBadScheme},
      {"https ://host", kBadScheme},
      {"//host/a://b", kBadScheme},
      {"https://", kBadAuthority},
      {"https:///path", kBadAuthority},
      {"https://?x", kBadAuthority},
      {"https://user@host/", kBadAuthority},
      {"https://@host/", kBadAuthority},
      {"https://good\\@evil/", kBadAuthority},
      {"https://[@]/", kBadAuthority},
      {"https://[]/", "Invalid IPv6 URL host"},
      {"https://[::1/", "Invalid IPv6 URL host"},
      {"https://[/]", "Invalid IPv6 URL host"},
      {"https://[::1]x/", "Invalid URL authority"},
      {"https://[::1]]:1/", "Invalid URL authority"},
      {"https://[::1]:x/", kBadPort},
      {"https://:443/", "URL host is empty"},
      {"https://:/", "URL host is empty"},
      {"https://a:b:c/", kBadHost},
      {"https://a_b/", kBadHost},
      {"https://a b/", kBadHost},
      {"https://a\tb/", kBadHost},
      {"https://a\0.evil/"s, kBadHost},
      {"https://a%2eb/", kBadHost},
      {"https://a\\b/", kBadHost},
      {"https://\xC5\xBElu\xC5\xA5/", kBadHost},
      {"https://host:0/", kPortRange},
      {"https://host:000/", kPortRange},
      {"https://host:65536/", kPortRange},
      {"https://host:99999999999999999999x/", kPortRange},
      {"https://host:65536x/", kPortRange},
      {"https://host:80a/", kBadPort},
      {"https://host:6553x/", kBadPort},
      {"https://host:-1/", kBadPort},
      {"https://host: 80/", kBadPort},
  };
  for (const Row& row : rows) {
    const NormalizedUrl url = NormalizeUrl(row.text, true);
    EXPECT_FALSE(url.ok) << row.text;
    EXPECT_EQ(url.error, row.error) << row.text;
  }
}

/// Wine's cracker does not end a host at `?` or `#` and does not check ports; Windows' and ours do.
bool CrackerIsWeak() {
  CrackedUrl cracked;
  return !CrackUrl(L"https://h?x", cracked) || cracked.host != L"h";
}

TEST(ParseUpdateUrl, PreparesHostPortAndPath) {
  const std::string ok;
  const char* const unparsable = "Cannot parse update URL";
  const char* const insecure = "Update URL must use HTTPS";
  enum class Cracker { kAny, kSound };
  struct Row {
    std::string text;
    std::string error;
    std::string host;
    int port;
    std::string path;
    Cracker cracker = Cracker::kAny;
  };
  const Row rows[] = {
      {" https://Host.Example/Path \n", ok, "Host.Example", 443, "/Path"},
      {"https://host:8443/a?b=1#c", ok, "host", 8443, "/a?b=1#c"},
      {"https://host", ok, "host", 443, "/"},
      {"https://host/a b\\c\xC5\xBE", ok, "host", 443, "/a b\\c\xC5\xBE"},
      // What the allow-list refuses next, with a message of its own.
      {"https://user:pw@host/", ok, "host", 443, "/"},
      {"https://a_b/", ok, "a_b", 443, "/"},
      {"https://host:0/", ok, "host", 443, "/"},
      {"https://host?x=1", ok, "host", 443, "/?x=1", Cracker::kSound},
      {"https://host#frag", ok, "host", 443, "/#frag", Cracker::kSound},
      {"https://[::1]:8443/a", ok, "[::1]", 8443, "/a", Cracker::kSound},
      {"", "Invalid URL", "", 443, ""},
      {" \t ", "Invalid URL", "", 443, ""},
      {"https://host/\xFF", "Invalid URL", "", 443, ""},
      {"host/path", unparsable, "", 443, ""},
      {"ftp://host/", unparsable, "", 443, ""},
      {"https:host/", unparsable, "", 443, ""},
      {"https://host:65536/", unparsable, "", 443, ""},
      {"https://host:80a/", unparsable, "", 443, "", Cracker::kSound},
      {"https://host/a\0b"s, unparsable, "", 443, ""},
      {"https://host\0.evil/"s, unparsable, "", 443, ""},
      {"https://host/a\r\nX: y", unparsable, "", 443, ""},
      {"https://ho\tst/", unparsable, "", 443, ""},
      {"https://host/\x7F", unparsable, "", 443, ""},
      {"https:///path", "Update URL host is empty", "", 443, ""},
      {"http://host:8080/a", insecure, "host", 443, "/a"},
      {"http:///path", "Update URL host is empty", "", 443, ""},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.text);
    const UpdateUrlParts parts = ParseUpdateUrl(row.text);
    EXPECT_EQ(parts.ok, parts.error.empty());
    const NormalizedUrl normalized = NormalizeUrl(row.text, true);
    if (parts.ok && normalized.ok && normalized.host.front() != ':') {
      EXPECT_EQ(AsciiLower(WideToUtf8Lossy(parts.host)), normalized.host);
    }
    if (row.cracker == Cracker::kSound && CrackerIsWeak()) continue;
    EXPECT_EQ(parts.error, row.error);
    EXPECT_EQ(parts.secure, row.error != insecure);
    EXPECT_EQ(WideToUtf8Lossy(parts.host), row.host);
    EXPECT_EQ(parts.port, row.port);
    EXPECT_EQ(WideToUtf8Lossy(parts.path_and_query), row.path);
  }
}

TEST(JudgeCrackedUrl, RefusesATextInWhichTheParsersSeeDifferentOrigins) {
  const UrlScheme https = UrlScheme::kHttps;
  struct Row {
    const char* text;
    CrackedUrl cracked;
    bool ok;
  };
  const Row rows[] = {
      {"https://Good/", {https, L"gOOD", 443, L"/", L""}, true},
      {"https://good", {https, L"good", 0, L"", L""}, true},
      {"https://[::1]/", {https, L"[::1]", 443, L"/", L""}, true},
      {"https://[FE80::1]/", {https, L"fe80::1", 443, L"/", L""}, true},
      {"https://good?@evil/", {https, L"evil", 443, L"/", L""}, false},
      {"https://good#@evil/", {https, L"evil", 443, L"/", L""}, false},
      {"https://good?x", {https, L"good?x", 443, L"", L""}, false},
      {"https://good:8443/", {https, L"good", 443, L"/", L""}, false},
      {"https://good/", {https, L"good", 8443, L"/", L""}, false},
      {"https://[::1]:8443/", {https, L"[", 0, L"/", L""}, false},
      {"https://user@good/", {https, L"good", 443, L"/", L""}, true},
  };
  for (const Row& row : rows) {
    const UpdateUrlParts parts = JudgeCrackedUrl(row.text, row.cracked);
    EXPECT_EQ(parts.ok, row.ok) << row.text;
    EXPECT_EQ(parts.error, row.ok ? "" : "Cannot parse update URL") << row.text;
  }
}

TEST(IsAllowedDownloadUrl, TakesExactHostsOnly) {
  const std::string first = DefaultUpdateDownloadHosts().front();
  const std::string refused = "Update download host is not allowed: ";
  struct Row {
    std::string url;
    std::vector<std::string> hosts;
    std::string error;
  };
  const Row rows[] = {
      {"https://GOOD.example:8443/a", {"other", " Good.Example\t"}, ""},
      {" https://good.example ", {"good.example"}, ""},
      {"https://sub.good.example/", {"good.example"}, refused + "sub.good.example"},
      {"https://good.example./", {"good.example"}, refused + "good.example."},
      {"https://good.example.evil/", {"good.example"}, refused + "good.example.evil"},
      {"https://" + first + "/", {}, ""},
      {"https://" + first + "/", {"  ", ""}, ""},
      {"https://" + first + "/", {"good.example"}, refused + first},
      {"http://good.example/",
       {"good.example"},
       "Invalid HTTPS URL in download_url: URL must use HTTPS"},
      {"https://u@good.example/",
       {"good.example"},
       "Invalid HTTPS URL in download_url: URL host is empty or contains user info"},
  };
  for (const Row& row : rows) {
    std::string error;
    EXPECT_EQ(IsAllowedDownloadUrl(row.url, row.hosts, &error), row.error.empty()) << row.url;
    EXPECT_EQ(error, row.error) << row.url;
    EXPECT_EQ(IsAllowedDownloadUrl(row.url, row.hosts, nullptr), row.error.empty()) << row.url;
  }
  std::string host = "stale";
  EXPECT_FALSE(NormalizeHttpsUrl("nowhere", host, nullptr));
  EXPECT_EQ(host, "");
}

TEST(UrlTexts, QueriesAreCutAndRedirectsResolved) {
  const std::pair<std::string, std::string> stripped[] = {
      {"https://h/a?t=1#f", "https://h/a"},
      {"https://h/a#f?t=1", "https://h/a"},
      {"https://h/a", "https://h/a"},
      {"?t", ""},
      {"", ""},
  };
  for (const auto& [url, expected] : stripped) EXPECT_EQ(StripUrlQuery(url), expected);

  struct Row {
    const char* base;
    const char* location;
    const char* url;
  };
  const Row rows[] = {
      {"https://h:1/a/b?q", "https://i/c", "https://i/c"},
      {"https://h:1/a/b?q", "ftp:x", "ftp:x"},
      {"https://h:1/a/b?q", "/c?r", "https://h:1/c?r"},
      {"https://h:1/a/b?q", "c/d:e", "https://h:1/a/c/d:e"},
      {"https://h:1/a/b?q", "?r", "https://h:1/a/b?r"},
      {"https://h:1/a/b?q", "", "https://h:1/a/b"},
      {"https://h", "c", "https://h/c"},
      {"https://h", "/c", "https://h/c"},
      // Not a URL by any check: whether these name a host is read in two ways.
      {"https://h/a", "//evil/c", "//evil/c"},
      {"https://h/a", "/\\evil/c", "/\\evil/c"},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(ResolveRedirect(row.base, row.location), row.url) << row.location;
  }
}

}  // namespace
}  // namespace zul

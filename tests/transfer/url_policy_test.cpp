#include "transfer/url_policy.h"

#include <gtest/gtest.h>

#include "core/text.h"
#include "transfer/redirect_url.h"
#include "transfer/url_cracker.h"

namespace zul {
namespace {

using namespace std::string_literals;

/// What one answer stands for, and all the texts that get it.
struct Row {
  std::string answer;
  std::vector<std::string> texts;
  bool needs_sound_cracker = false;
};

TEST(NormalizeUrl, SplitsOrSaysWhyNot) {
  const Row rows[] = {
      {"https host 443 /",
       {"https://host", "https://host:/", "https://host#frag", "https://host#/a?b"}},
      {"http host 80 /", {"http://host"}},
      {"https host 443 /a", {" \t\r\n\v\fhttps://host/a \n"}},
      {"https host.example 443 /Path?Query", {"HTTPS://HOST.Example/Path?Query"}},
      {"https host 65535 /", {"https://host:65535/"}},
      {"https host 80 /", {"https://host:00080/"}},
      {"https host 443 /?x=1", {"https://host?x=1"}},
      {"https host 443 /a?b", {"https://host/a?b#c?d"}},
      {"https host 443 /?", {"https://host?#"}},
      {"https host 443 /p@q://r", {"https://host/p@q://r"}},
      {"https host 443 /?@evil/", {"https://host?@evil/"}},
      {"https ::1 443 /", {"https://[::1]/", "https://[::1]:"}},
      {"https ::1 8443 /?x", {"https://[::1]:8443?x"}},
      {"https FE80::1 443 /", {"https://[FE80::1]/"}},
      {"https \xC3\xA9 _ 443 /", {"https://[\xC3\xA9 _]/"}},
      {"URL must include http or https scheme",
       {"", "  ", "ab", "host", "https:host", "https:\\\\host\\", " ://host"}},
      {"URL scheme must be http or https", {"ftp://host", "https ://host", "//host/a://b"}},
      {"URL host is empty or contains user info",
       {"https://", "https:///path", "https://?x", "https://user@host/", "https://@host/",
        "https://good\\@evil/", "https://[@]/"}},
      {"Invalid IPv6 URL host", {"https://[]/", "https://[::1/", "https://[/]"}},
      {"Invalid URL authority", {"https://[::1]x/", "https://[::1]]:1/"}},
      {"URL host is empty", {"https://:443/", "https://:/"}},
      {"URL host contains unsupported characters",
       {"https://a:b:c/", "https://a_b/", "https://a b/", "https://a\tb/", "https://a\0.evil/"s,
        "https://a%2eb/", "https://a\\b/", "https://\xC5\xBElu\xC5\xA5/"}},
      {"URL port is out of range",
       {"https://host:0/", "https://host:000/", "https://host:65536/",
        "https://host:99999999999999999999x/", "https://host:65536x/"}},
      {"URL port is invalid",
       {"https://[::1]:x/", "https://host:80a/", "https://host:6553x/", "https://host:-1/",
        "https://host: 80/"}},
  };
  for (const Row& row : rows) {
    for (const std::string& text : row.texts) {
      SCOPED_TRACE(text);
      const NormalizedUrl url = NormalizeUrl(text, false);
      EXPECT_EQ(url.ok, url.error.empty());
      EXPECT_EQ(url.ok ? url.scheme + " " + url.host + " " + std::to_string(url.port) + " " +
                             url.path_and_query
                       : url.error,
                row.answer);
      EXPECT_EQ(url.ok && url.secure, row.answer.starts_with("https "));
      // Without its scheme's security the same text has one reason more to fail.
      const NormalizedUrl required = NormalizeUrl(text, true);
      EXPECT_EQ(required.ok, url.ok && url.secure);
      EXPECT_EQ(required.error, url.ok && !url.secure ? "URL must use HTTPS" : url.error);
    }
  }
}

/// Wine's cracker does not end a host at `?` or `#` and does not check ports; Windows' and ours do.
bool CrackerIsWeak() {
  CrackedUrl cracked;
  return !CrackUrl(L"https://h?x", cracked) || cracked.host != L"h";
}

TEST(ParseUpdateUrl, PreparesHostPortAndPath) {
  const Row rows[] = {
      {"|Host.Example 443 /Path", {" https://Host.Example/Path \n"}},
      {"|host 8443 /a?b=1#c", {"https://host:8443/a?b=1#c"}},
      {"|host 443 /a b\\c\xC5\xBE", {"https://host/a b\\c\xC5\xBE"}},
      // The allow-list refuses the last two, with a message of its own.
      {"|host 443 /", {"https://host", "https://user:pw@host/", "https://host:0/"}},
      {"|a_b 443 /", {"https://a_b/"}},
      {"|host 443 /?x=1", {"https://host?x=1"}, true},
      {"|host 443 /#frag", {"https://host#frag"}, true},
      {"|[::1] 8443 /a", {"https://[::1]:8443/a"}, true},
      {"Invalid URL| 443 ", {"", " \t ", "https://host/\xFF"}},
      {"Cannot parse update URL| 443 ",
       {"host/path", "ftp://host/", "https:host/", "https://host:65536/", "https://host/a\0b"s,
        "https://host\0.evil/"s, "https://host/a\r\nX: y", "https://ho\tst/", "https://host/\x7F"}},
      {"Cannot parse update URL| 443 ", {"https://host:80a/"}, true},
      {"Update URL host is empty| 443 ", {"https:///path", "http:///path"}},
      {"Update URL must use HTTPS|host 443 /a", {"http://host:8080/a"}},
  };
  for (const Row& row : rows) {
    for (const std::string& text : row.texts) {
      SCOPED_TRACE(text);
      const UpdateUrlParts parts = ParseUpdateUrl(text);
      EXPECT_EQ(parts.ok, parts.error.empty());
      const NormalizedUrl normalized = NormalizeUrl(text, true);
      if (parts.ok && normalized.ok && normalized.host.front() != ':') {
        EXPECT_EQ(AsciiLower(WideToUtf8Lossy(parts.host)), normalized.host);
      }
      if (row.needs_sound_cracker && CrackerIsWeak()) continue;
      EXPECT_EQ(parts.error + "|" + WideToUtf8Lossy(parts.host) + " " + std::to_string(parts.port) +
                    " " + WideToUtf8Lossy(parts.path_and_query),
                row.answer);
      EXPECT_EQ(parts.secure, !text.starts_with("http://host"));
    }
  }
}

TEST(JudgeCrackedUrl, RefusesATextInWhichTheParsersSeeDifferentOrigins) {
  const struct {
    const char* text;
    const wchar_t *host, *path;
    std::uint16_t port;
    bool ok;
  } rows[] = {
      {"https://Good/", L"gOOD", L"/", 443, true},
      {"https://good", L"good", L"", 0, true},
      {"https://[::1]/", L"[::1]", L"/", 443, true},
      {"https://[FE80::1]/", L"fe80::1", L"/", 443, true},
      {"https://user@good/", L"good", L"/", 443, true},
      {"https://good?@evil/", L"evil", L"/", 443, false},
      {"https://good#@evil/", L"evil", L"/", 443, false},
      {"https://good?x", L"good?x", L"", 443, false},
      {"https://good:8443/", L"good", L"/", 443, false},
      {"https://good/", L"good", L"/", 8443, false},
      {"https://[::1]:8443/", L"[", L"/", 0, false},
  };
  for (const auto& row : rows) {
    const UpdateUrlParts parts =
        JudgeCrackedUrl(row.text, {UrlScheme::kHttps, row.host, row.port, row.path, L""});
    EXPECT_EQ(parts.ok, row.ok) << row.text;
    EXPECT_EQ(parts.error, row.ok ? "" : "Cannot parse update URL") << row.text;
  }
}

TEST(IsAllowedDownloadUrl, TakesExactHostsOnly) {
  const std::string first = DefaultUpdateDownloadHosts().front();
  const std::string refused = "Update download host is not allowed: ";
  const std::string invalid = "Invalid HTTPS URL in download_url: ";
  const struct {
    std::string url;
    std::vector<std::string> hosts;
    std::string error;
  } rows[] = {
      {"https://GOOD.example:8443/a", {"other", " Good.Example\t"}, ""},
      {" https://good.example ", {"good.example"}, ""},
      {"https://sub.good.example/", {"good.example"}, refused + "sub.good.example"},
      {"https://good.example./", {"good.example"}, refused + "good.example."},
      {"https://good.example.evil/", {"good.example"}, refused + "good.example.evil"},
      {"https://" + first + "/", {"  ", ""}, ""},
      {"https://" + first + "/", {"good.example"}, refused + first},
      {"http://good.example/", {"good.example"}, invalid + "URL must use HTTPS"},
  };
  for (const auto& row : rows) {
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
  for (const char* url : {"https://h/a?t=1#f", "https://h/a#f?t=1", "https://h/a"}) {
    EXPECT_EQ(StripUrlQuery(url), "https://h/a");
  }
  const struct {
    const char *base, *location, *url;
  } rows[] = {
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
  for (const auto& row : rows) {
    EXPECT_EQ(ResolveRedirect(row.base, row.location), row.url) << row.location;
  }
}

}  // namespace
}  // namespace zul

#include "transfer/url_policy.h"

#include <gtest/gtest.h>

#include "core/text.h"
#include "transfer/url_cracker.h"

namespace zul {
namespace {

using namespace std::string_literals;

/// One result, and all the texts that have it.
struct Row {
  std::string result;
  std::vector<std::string> texts;
};

TEST(NormalizeUrl, SplitsAUrlOrNamesTheFault) {
  const Row rows[] = {
      {"https host 443 /", {"https://host", "https://host:/", "https://host#/a?b"}},
      {"https host.example 443 /Path?Query", {" \t\vHTTPS://HOST.Example/Path?Query#c?d\n"}},
      {"https host 65535 /", {"https://host:065535/"}},
      {"https host 443 /?@evil/", {"https://host?@evil/"}},
      {"https FE80::1 8443 /?x", {"https://[FE80::1]:8443?x"}},
      {"URL must include http or https scheme", {"", "host", "https:\\host\\", " ://host"}},
      {"URL scheme must be http or https", {"ftp://host", "https ://host", "//host/a://b"}},
      {"URL host is empty or contains user info",
       {"https:///path", "https://?x", "https://@host/", "https://good\\@evil/"}},
      {"Invalid IPv6 URL host", {"https://[]/", "https://[::1/"}},
      {"Invalid URL authority", {"https://[::1]x/"}},
      {"URL host is empty", {"https://:443/"}},
      {"URL host contains unsupported characters",
       {"https://a:b:c/", "https://a_b/", "https://a\0.evil/"s, "https://a%2eb/", "https://a\\b/",
        "https://\xC5\xBElu\xC5\xA5/"}},
      {"URL port is out of range",
       {"https://host:0/", "https://host:65536/", "https://host:99999999999999999999x/"}},
      {"URL port is invalid", {"https://[::1]:x/", "https://host:6553x/", "https://host: 80/"}},
  };
  for (const Row& row : rows) {
    for (const std::string& text : row.texts) {
      const NormalizedUrl url = NormalizeUrl(text, false);
      const std::string parts =
          url.scheme + " " + url.host + " " + std::to_string(url.port) + " " + url.path_and_query;
      EXPECT_EQ(url.ok ? parts : url.error, row.result) << text;
    }
  }
}

std::string Shown(const UpdateUrlParts& parts) {
  EXPECT_EQ(parts.ok, parts.error.empty());
  return parts.error + "|" + WideToUtf8Lossy(parts.host) + " " + std::to_string(parts.port) + " " +
         WideToUtf8Lossy(parts.path_and_query);
}

TEST(ParseUpdateUrl, PreparesHostPortAndPath) {
  const Row rows[] = {
      {"|Host.Example 443 /Path", {" https://Host.Example/Path \n"}},
      {"|host 8443 /a \\\xC5\xBE?b=1#c", {"https://host:8443/a \\\xC5\xBE?b=1#c"}},
      // The allow-list refuses the last two, with a message of its own.
      {"|host 443 /", {"https://host", "https://user:pw@host/", "https://host:0/"}},
      {"Invalid URL| 443 ", {" \t ", "https://host/\xFF"}},
      {"Cannot parse update URL| 443 ",
       {"ftp://host/", "https:host/", "https://host:65536/", "https://host\0.evil/"s,
        "https://host/a\r\nX: y", "https://host/\x7F"}},
      {"Update URL host is empty| 443 ", {"https:///path"}},
      {"Update URL must use HTTPS|host 443 /a", {"http://host:8080/a"}},
  };
  for (const Row& row : rows) {
    for (const std::string& text : row.texts) {
      EXPECT_EQ(Shown(ParseUpdateUrl(text)), row.result) << text;
    }
  }
}

TEST(JudgeCrackedUrl, RefusesAHostOrPortThatNormalizeUrlDoesNotFind) {
  const std::string differs = "Cannot parse update URL|";
  const struct {
    std::string text;
    std::wstring host;
    std::uint16_t port;
    std::string result;
  } rows[] = {
      {"https://[FE80::1]/", L"[fe80::1]", 0, "|[fe80::1] 443 /"},
      {"https://good?@evil/", L"evil", 443, differs + "evil 443 /"},
      {"https://host:8443/", L"host", 443, differs + "host 443 /"},
      {"https://host/", L"host", 8443, differs + "host 8443 /"},
  };
  for (const auto& row : rows) {
    const CrackedUrl cracked = {UrlScheme::kHttps, row.host, row.port, L"/", L""};
    EXPECT_EQ(Shown(JudgeCrackedUrl(row.text, cracked)), row.result) << row.text;
  }
}

TEST(IsAllowedDownloadUrl, RequiresTheExactHost) {
  const std::string first = DefaultUpdateDownloadHosts().front();
  const std::string refused = "Update download host is not allowed: ";
  const std::pair<std::string, std::string> rows[] = {
      {"https://GOOD.example:8443/a", ""},
      {"https://sub.good.example/", refused + "sub.good.example"},
      {"https://good.example./", refused + "good.example."},
      {"https://good.example.evil/", refused + "good.example.evil"},
      {"https://" + first + "/", refused + first},
      {"http://good.example/", "Invalid HTTPS URL in download_url: URL must use HTTPS"}};
  for (const auto& [url, refusal] : rows) {
    std::string error;
    EXPECT_EQ(IsAllowedDownloadUrl(url, {"other", " Good.Example\t"}, &error), refusal.empty());
    EXPECT_EQ(error, refusal);
  }
  EXPECT_TRUE(IsAllowedDownloadUrl("https://" + first + "/", {"  ", ""}, nullptr));
}

TEST(ResolveRedirect, ResolvesARelativeLocation) {
  const std::pair<const char*, const char*> rows[] = {
      {"https://i/c", "https://i/c"},
      {"/c?r", "https://h:1/c?r"},
      {"c/d:e", "https://h:1/a/c/d:e"},
      {"?r", "https://h:1/a/b?r"},
      {"", "https://h:1/a/b"},
      // Clients do not agree on whether these name a host; no URL check accepts them.
      {"//evil/c", "//evil/c"},
      {"/\\evil/c", "/\\evil/c"},
  };
  for (const auto& [location, url] : rows) {
    EXPECT_EQ(ResolveRedirect("https://h:1/a/b?q", location), url) << location;
  }
  EXPECT_EQ(ResolveRedirect("https://h", "c"), "https://h/c");
}

}  // namespace
}  // namespace zul

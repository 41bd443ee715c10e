#include "core/build_identity.h"

#include "core/deployment.h"
#include "core/text.h"

namespace zul {

namespace {

std::string TrimmedOr(std::string_view text, std::string_view fallback) {
  const std::string_view trimmed = TrimWhitespace(text);
  return std::string(trimmed.empty() ? fallback : trimmed);
}

}  // namespace

BuildIdentity MakeBuildIdentity(std::string_view version, std::string_view build_id,
                                std::string_view channel) {
  return {.version = TrimmedOr(version, "0.1.0"),
          .build_id = TrimmedOr(build_id, "dev"),
          .channel = AsciiLower(TrimmedOr(channel, "stable")),
          .platform = "windows",
          .arch = "x64"};
}

BuildIdentity GetBuildIdentity() {
  return MakeBuildIdentity(deployment::kVersion, deployment::kBuildId, deployment::kChannel);
}

std::string BuildAppVersionJson() {
  return BuildAppVersionJson(GetBuildIdentity());
}

std::string BuildAppVersionJson(const BuildIdentity& identity) {
  std::string json = "{\"version\":\"";
  AppendJsonEscaped(json, identity.version);
  json += "\",\"build_id\":\"";
  AppendJsonEscaped(json, identity.build_id);
  json += "\",\"channel\":\"";
  AppendJsonEscaped(json, identity.channel);
  json += "\",\"platform\":\"";
  AppendJsonEscaped(json, identity.platform);
  json += "\",\"arch\":\"";
  AppendJsonEscaped(json, identity.arch);
  json += "\"}";
  return json;
}

void AppendJsonEscaped(std::string& out, std::string_view text) {
  constexpr std::string_view kDigits = "0123456789abcdef";
  out.reserve(out.size() + text.size() + 8);
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\r':
        out += "\\r";
        break;
      case '\t':
        out += "\\t";
        break;
      default:
        if (byte >= 32) {
          out.push_back(c);
        } else {
          out += "\\u00";
          out.push_back(kDigits[byte >> 4]);
          out.push_back(kDigits[byte & 0xF]);
        }
    }
  }
}

}  // namespace zul

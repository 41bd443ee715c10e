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
  AppendJsonEscaped(&json, identity.version);
  json += "\",\"build_id\":\"";
  AppendJsonEscaped(&json, identity.build_id);
  json += "\",\"channel\":\"";
  AppendJsonEscaped(&json, identity.channel);
  json += "\",\"platform\":\"";
  AppendJsonEscaped(&json, identity.platform);
  json += "\",\"arch\":\"";
  AppendJsonEscaped(&json, identity.arch);
  json += "\"}";
  return json;
}

}  // namespace zul

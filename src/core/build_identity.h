#pragma once

// The identity of the build, for reports, evidence and the version query.

#include <string>
#include <string_view>

namespace zul {

/// All texts are UTF-8.
struct BuildIdentity {
  std::string version;
  std::string build_id;
  std::string channel;
  std::string platform;
  std::string arch;
};

/// The identity from the texts of the build definitions. Each text is trimmed, the channel is
/// lower-cased, and a text that is empty then gets a default.
[[nodiscard]] BuildIdentity MakeBuildIdentity(std::string_view version, std::string_view build_id,
                                              std::string_view channel);

/// The identity of this build.
[[nodiscard]] BuildIdentity GetBuildIdentity();

/// The identity of this build as JSON, in a fixed order of keys and without blanks, so that scripts
/// can match it.
[[nodiscard]] std::string BuildAppVersionJson();
/// As above, for any identity.
[[nodiscard]] std::string BuildAppVersionJson(const BuildIdentity& identity);

}  // namespace zul

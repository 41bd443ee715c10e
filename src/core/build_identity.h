#pragma once

// Which build this is.

#include <string>
#include <string_view>

namespace zul {

struct BuildIdentity {
  std::string version;
  std::string build_id;
  std::string channel;
  std::string platform;
  std::string arch;
};

/// The identity from the texts of the build definitions: trimmed, the channel lowered, and a
/// default where nothing is left.
[[nodiscard]] BuildIdentity MakeBuildIdentity(std::string_view version, std::string_view build_id,
                                              std::string_view channel);

/// The identity of this build.
[[nodiscard]] BuildIdentity GetBuildIdentity();

/// The identity as one line of JSON in a fixed key order and without blanks, so that scripts can
/// match it.
[[nodiscard]] std::string BuildAppVersionJson();
[[nodiscard]] std::string BuildAppVersionJson(const BuildIdentity& identity);

}  // namespace zul

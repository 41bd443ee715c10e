#include "core/build_identity.h"

#include <gtest/gtest.h>

namespace zul {
namespace {

TEST(BuildIdentity, TrimsLowersAndEscapesItsTextsAndHasDefaults) {
  EXPECT_EQ(BuildAppVersionJson(MakeBuildIdentity(" 0.1.8\n", "\"12\\6\n\r\t\x1F/ž", " BETA ")),
            R"({"version":"0.1.8","build_id":"\"12\\6\n\r\t\u001f/ž","channel":"beta",)"
            R"("platform":"windows","arch":"x64"})");
  EXPECT_EQ(BuildAppVersionJson(MakeBuildIdentity("\t", "", " ")),
            R"({"version":"0.1.0","build_id":"dev","channel":"stable","platform":"windows",)"
            R"("arch":"x64"})");
}

}  // namespace
}  // namespace zul

#include "core/build_identity.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "core/error_catalogue.h"

namespace zul {
namespace {

TEST(BuildIdentity, TrimsLowersAndFillsInDefaults) {
  EXPECT_EQ(BuildAppVersionJson(MakeBuildIdentity(" 0.1.8\n", "1264", " BETA ")),
            R"({"version":"0.1.8","build_id":"1264","channel":"beta","platform":"windows",)"
            R"("arch":"x64"})");
  EXPECT_EQ(BuildAppVersionJson(MakeBuildIdentity("\t", "", " ")),
            R"({"version":"0.1.0","build_id":"dev","channel":"stable","platform":"windows",)"
            R"("arch":"x64"})");
}

TEST(BuildIdentity, EscapesJson) {
  std::string out = ">";
  AppendJsonEscaped(out, std::string_view("\"\\\n\r\t\x01\x1f\0 \x7f"
                                          "ž/",
                                          13));
  EXPECT_EQ(out,
            ">\\\"\\\\\\n\\r\\t\\u0001\\u001f\\u0000 \x7f"
            "ž/");
}

TEST(ErrorCatalogue, FindsFlowsAndRefusesUnknownOnes) {
  EXPECT_EQ(RecoveryFlowErrorId(kRecoveryFlowUpdate), "QORVA-UPDATE-CHECK-FAILED");
  EXPECT_EQ(RecoveryFlowErrorId(7), "QORVA-HOTFOLDER-UNAVAILABLE");
  for (const std::uint32_t unknown : {0U, 8U}) {
    EXPECT_THROW((void)RecoveryFlowErrorId(unknown), std::logic_error) << unknown;
  }
}

}  // namespace
}  // namespace zul

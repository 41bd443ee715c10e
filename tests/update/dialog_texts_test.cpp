#include <gtest/gtest.h>

#include "core/deployment.h"
#include "update/dialogs.h"
#include "update/install_classification.h"
#include "update/restart.h"

namespace zul {
namespace {

// The whole boxes, with what their buttons do, are the end-to-end runs' matter.
TEST(DialogTexts, NameThePageAndTheReason) {
  // The application compares against this text, so its length is part of the contract.
  EXPECT_EQ(InstallerMigrationMessage().size(), 295u);
  const std::string page(deployment::kPageUrl);
  EXPECT_EQ(ResolveInstallerPageUrl(""), page);
  EXPECT_EQ(ResolveInstallerPageUrl("https://x.example/"), "https://x.example/");
  EXPECT_NE(BuildApplyFailureDialogText("Broken.").find("Broken.\n\n"), std::string::npos);
  EXPECT_NE(BuildApplyFailureDialogText("").find("No additional error details.\n\n"),
            std::string::npos);
  EXPECT_TRUE(BuildMigrationDialogText("").starts_with(
      std::string(InstallerMigrationMessage()) +
      "\n\nDownload and run the current QORVA installer from:\n" + page));
}

TEST(RestartArguments, AreEmptyUnlessAProofIsAskedFor) {
  UpdateRequest request;
  request.target_dir = "/opt/qorva app";
  EXPECT_EQ(BuildRestartArguments(request), "");
  EXPECT_EQ(RestartModeName(request), "normal_gui");
  request.headless_restart_version_proof = true;
  const std::string separator(1, static_cast<char>(std::filesystem::path::preferred_separator));
  EXPECT_EQ(BuildRestartArguments(request), "--write-app-version-json \"/opt/qorva app" +
                                                separator + ".qorva_update_restart_proof.json\"");
  EXPECT_EQ(RestartModeName(request), "headless_version_proof");
}

}  // namespace
}  // namespace zul

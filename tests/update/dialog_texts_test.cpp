#include <gtest/gtest.h>

#include "core/deployment.h"
#include "update/dialogs.h"
#include "update/install_classification.h"
#include "update/restart.h"

namespace zul {
namespace {

TEST(DialogTexts, OfferThePageAndSayWhatTheButtonsDo) {
  // The application compares against this text, so its length is part of the contract.
  EXPECT_EQ(InstallerMigrationMessage().size(), 295u);

  const std::string page(deployment::kPageUrl);
  EXPECT_EQ(ResolveInstallerPageUrl(""), page);
  EXPECT_EQ(ResolveInstallerPageUrl("https://x.example/"), "https://x.example/");

  EXPECT_EQ(BuildApplyFailureDialogText("It broke."),
            "Automatic update failed during apply stage.\n\nIt broke.\n\n"
            "Download and run the current QORVA installer from:\n" +
                page +
                "\n\nUse Yes to open the download page now, No to copy the link to clipboard.");
  EXPECT_NE(BuildApplyFailureDialogText("").find("No additional error details."),
            std::string::npos);

  const std::string migration = BuildMigrationDialogText("");
  EXPECT_TRUE(migration.starts_with(InstallerMigrationMessage()));
  EXPECT_NE(migration.find("installer from:\n" + page + "\n\nAfter installation,"),
            std::string::npos);
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

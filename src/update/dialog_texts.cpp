#include "core/deployment.h"
#include "update/dialogs.h"
#include "update/install_classification.h"

namespace zul {

namespace {

constexpr std::string_view kInstallerLead =
    "\n\nDownload and run the current QORVA installer from:\n";

}  // namespace

std::string ResolveInstallerPageUrl(std::string_view page_url) {
  return std::string(page_url.empty() ? deployment::kPageUrl : page_url);
}

std::string BuildApplyFailureDialogText(std::string_view message) {
  std::string text = "Automatic update failed during apply stage.\n\n";
  text += message.empty() ? std::string_view("No additional error details.") : message;
  text += kInstallerLead;
  text += ResolveInstallerPageUrl({});
  text += "\n\nUse Yes to open the download page now, No to copy the link to clipboard.";
  return text;
}

std::string BuildMigrationDialogText(std::string_view page_url) {
  std::string text(InstallerMigrationMessage());
  text += kInstallerLead;
  text += ResolveInstallerPageUrl(page_url);
  text +=
      "\n\nAfter installation, close this old copy and start QORVA from the Start Menu/Desktop "
      "shortcut or from the folder chosen in the installer.\n\n"
      "Yes opens the download page now. No copies the link to the clipboard.";
  return text;
}

}  // namespace zul

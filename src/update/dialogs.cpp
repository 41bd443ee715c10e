#include "update/dialogs.h"

#include "core/deployment.h"
#include "core/text.h"
#include "update/install_classification.h"
#include "update/update_world.h"

namespace zul {

namespace {

constexpr std::string_view kInstallerLead =
    "\n\nDownload and run the current QORVA installer from:\n";
constexpr std::string_view kErrorFallback = "Updater failed.";

BoxAnswer ShowBox(const UpdateWorld& world, std::string_view text, std::string_view fallback,
                  BoxStyle style) {
  const bool displayable = !text.empty() && IsValidUtf8(text);
  return world.show_box(std::string(displayable ? text : fallback), style);
}

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

/// Does what the user chose in a box that offers the installer's page.
void FollowChoice(const UpdateWorld& world, BoxAnswer answer, const std::string& address) {
  const char* failure = nullptr;
  if (answer == BoxAnswer::kYes && !world.open_url_in_browser(address)) {
    failure = "Cannot open browser automatically.\n\n";
  } else if (answer == BoxAnswer::kNo && !world.copy_text_to_clipboard(address)) {
    failure = "Cannot copy download link to clipboard.\n\n";
  }
  if (failure != nullptr) {
    ShowBox(world, failure + address, kErrorFallback, BoxStyle::kWarning);
  }
}

}  // namespace

void ShowUpdaterError(const UpdateWorld& world, std::string_view message) {
  ShowBox(world, message, kErrorFallback, BoxStyle::kError);
}

void ShowApplyFailureDialog(const UpdateWorld& world, std::string_view message,
                            std::string_view /*selected_url*/) {
  const BoxAnswer answer = ShowBox(world, BuildApplyFailureDialogText(message),
                                   "Automatic update failed.", BoxStyle::kErrorChoice);
  FollowChoice(world, answer, ResolveInstallerPageUrl({}));
}

void ShowInstallerMigrationDialog(const UpdateWorld& world, std::string_view page_url) {
  const BoxAnswer answer =
      ShowBox(world, BuildMigrationDialogText(page_url), "QORVA installer migration is required.",
              BoxStyle::kNoticeChoice);
  FollowChoice(world, answer, ResolveInstallerPageUrl(page_url));
}

}  // namespace zul

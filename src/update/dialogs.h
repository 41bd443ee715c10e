#pragma once

// What the user is told when a run ends badly: modal message boxes without an owner window, shown
// on the run's thread after the progress window has gone. Each call blocks until its box is
// dismissed. All texts UTF-8.

#include <string>
#include <string_view>

namespace zul {

/// The plain error.
void ShowUpdaterError(std::string_view message);

/// A failed apply, with the way to the current installer: Yes opens the page, No copies its
/// address, anything else does nothing. `selected_url` is deliberately ignored: a page is offered,
/// never the package that has just failed.
void ShowApplyFailureDialog(std::string_view message, std::string_view selected_url);

/// The notice that stops an archive-mode copy, with the same choice. An empty `page_url` selects
/// the product's page.
void ShowInstallerMigrationDialog(std::string_view page_url);

/// Asks the system to open `url`. False when it could not be started.
[[nodiscard]] bool OpenUrlInBrowser(std::string_view url);

/// Puts `text` on the clipboard. False when the clipboard was out of reach.
[[nodiscard]] bool CopyTextToClipboard(std::string_view text);

/// `page_url`, or the product's page when it is empty.
[[nodiscard]] std::string ResolveInstallerPageUrl(std::string_view page_url);

/// The texts of the two boxes that offer the installer.
[[nodiscard]] std::string BuildApplyFailureDialogText(std::string_view message);
[[nodiscard]] std::string BuildMigrationDialogText(std::string_view page_url);

}  // namespace zul

#pragma once

// The message boxes of a run that ends badly. A box has no owner window: the progress window is
// gone by then. Each call blocks until the user has dismissed its box. All texts are UTF-8; one
// that is empty or malformed shows as a fixed text of its box.

#include <cstdint>
#include <string>
#include <string_view>

namespace zul {

struct UpdateWorld;

/// Shows a plain error.
void ShowUpdaterError(const UpdateWorld& world, std::string_view message);

/// Shows that an apply failed, and offers the current installer: Yes opens its page, No copies the
/// page's address. When that fails, a warning shows the address. `selected_url` is ignored on
/// purpose: the box offers a page, never the package that has just failed.
void ShowApplyFailureDialog(const UpdateWorld& world, std::string_view message,
                            std::string_view selected_url);

/// Asks the user of an archive-mode copy to move to the installer, with the same choice. An empty
/// `page_url` selects the product's page.
void ShowInstallerMigrationDialog(const UpdateWorld& world, std::string_view page_url);

}  // namespace zul

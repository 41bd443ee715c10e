#pragma once

// Executables that earlier versions shipped under names which the current layout no longer has.
// Left in the installation, a shortcut could start a stale program; the apply stage removes them as
// part of its transaction, unless the update still brings a file of that name.

#include <array>
#include <string>
#include <string_view>
#include <vector>

#include "core/file_layer.h"

namespace zul {

/// File names at the top level of an installation, in the order in which they are removed.
inline constexpr std::array<std::string_view, 5> kRetiredExecutables = {
    "qorva.exe", "zul_rip_gui.exe", "zul_rip.exe", "zul_updater.exe", "qorva_nest_bench.exe"};

/// Fills `removals` with the paths of the retired executables that lie in `target_root` and that
/// the staged tree does not bring. False with the reason in `error` when one cannot be inspected,
/// is not a regular file, or may not be written. Changes nothing.
[[nodiscard]] bool ListRetiredExecutables(const fs::Path& staged_root, const fs::Path& target_root,
                                          std::vector<fs::Path>* removals, std::string* error);

}  // namespace zul

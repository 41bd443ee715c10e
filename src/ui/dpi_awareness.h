#pragma once

namespace zul {

/// Makes the process DPI aware, so that the system does not stretch bitmaps of its windows and
/// message boxes on screens above 96 dpi. Per monitor where the system can, else for the system's
/// dpi. Call it before the first window or box; later calls do nothing. Windows only.
void MakeProcessDpiAware();

}  // namespace zul

#pragma once

#include <windows.h>

namespace zul::rig {

/// Which of the system's message box icons a static control of another process shows: "error",
/// "warning", "information", "question", "none" for no control, "unknown" when the screen shows
/// none of them there. An icon's handle means nothing outside its process, so the pixels on the
/// screen are compared.
[[nodiscard]] const char* IconName(HWND control);

}  // namespace zul::rig

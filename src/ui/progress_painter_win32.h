#pragma once

// Draws the progress window's client area. For _win32.cpp files only.

#include <windows.h>

#include "core/handle_win32.h"

namespace zul {

class UpdateProgressWindow;

/// A font, bitmap or other object that DeleteObject ends.
template <typename Handle>
struct GdiObjectTraits {
  using Type = Handle;
  static Handle Invalid() { return nullptr; }
  static void Close(Handle handle) { ::DeleteObject(handle); }
};
using UniqueFont = UniqueHandle<GdiObjectTraits<HFONT>>;

/// The window's four fonts for one dpi. A font that cannot be had is the stock GUI font.
class ProgressFonts {
 public:
  /// None are made yet: every font is the stock one.
  ProgressFonts() = default;
  explicit ProgressFonts(int dpi);

  // Borrowed; valid while this object lives and is not assigned to.
  [[nodiscard]] HFONT body() const { return OrStock(body_); }
  [[nodiscard]] HFONT title() const { return OrStock(title_); }
  [[nodiscard]] HFONT large() const { return OrStock(large_); }
  [[nodiscard]] HFONT small_print() const { return OrStock(small_); }

 private:
  [[nodiscard]] static HFONT OrStock(const UniqueFont& font);

  UniqueFont body_;
  UniqueFont title_;
  UniqueFont large_;
  UniqueFont small_;
};

/// Colour behind everything.
inline constexpr COLORREF kProgressBackground = RGB(31, 35, 40);

/// Draws the whole client area of `client` pixels into `target` in one step, by way of a bitmap in
/// memory, so that nothing half drawn is ever seen.
void PaintProgress(HDC target, SIZE client, int dpi, const UpdateProgressWindow& state,
                   const ProgressFonts& fonts);

}  // namespace zul

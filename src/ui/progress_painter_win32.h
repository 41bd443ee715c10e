#pragma once

// Draws the client area of the progress window. For _win32.cpp files only.

#include <windows.h>

#include "core/handle_win32.h"

namespace zul {

class UpdateProgressWindow;

/// A font, bitmap or other object that DeleteObject closes.
template <typename Handle>
struct GdiObjectTraits {
  using Type = Handle;
  static Handle Invalid() { return nullptr; }
  static void Close(Handle handle) { ::DeleteObject(handle); }
};
using UniqueFont = UniqueHandle<GdiObjectTraits<HFONT>>;

/// The window's four fonts for one dpi. The stock GUI font replaces an unavailable font.
class ProgressFonts {
 public:
  /// Every font is the stock font.
  ProgressFonts() = default;
  explicit ProgressFonts(int dpi);

  // Borrowed; valid until this object is destroyed or assigned to.
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

/// The background colour of the client area.
inline constexpr COLORREF kProgressBackground = RGB(31, 35, 40);

/// Draws the client area of `client` pixels into a bitmap in memory and copies it to `target` in
/// one step, so that the user never sees a partly drawn window.
void PaintProgress(HDC target, SIZE client, int dpi, const UpdateProgressWindow& state,
                   const ProgressFonts& fonts);

}  // namespace zul

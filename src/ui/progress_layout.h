#pragma once

// The positions in the progress window. They are defined in units of 1/96 inch and scaled to the
// dots per inch (dpi) of the screen; a dpi below 1 counts as 96.

namespace zul {

/// Client area of the window in units.
inline constexpr int kProgressClientWidth = 600;
inline constexpr int kProgressClientHeight = 236;

/// A rectangle in client pixels. `right` and `bottom` are exclusive, as in GDI.
struct PixelRect {
  int left = 0;
  int top = 0;
  int right = 0;
  int bottom = 0;

  [[nodiscard]] int width() const { return right - left; }
  [[nodiscard]] int height() const { return bottom - top; }
  bool operator==(const PixelRect&) const = default;
};

/// The rectangles that are drawn.
struct ProgressLayout {
  PixelRect title;
  PixelRect detail;
  PixelRect bar;
  PixelRect bar_fill;  ///< width 0 when nothing is filled
  PixelRect percent_text;
  PixelRect figures;
};

/// `value * dpi / per`, rounded to the nearest, halves away from zero, as MulDiv rounds.
[[nodiscard]] int ScaleForDpi(int value, int dpi, int per = 96);

/// The layout for a client area of `client_width` pixels. A negative `percent` is unknown and
/// leaves the bar empty; one above 100 counts as 100.
[[nodiscard]] ProgressLayout LayOutProgress(int client_width, int dpi, int percent,
                                            bool force_visible);

/// The rectangle of the Force close button.
[[nodiscard]] PixelRect LayOutForceButton(int client_width, int dpi);

}  // namespace zul

#pragma once

// Where everything in the progress window stands, in pixels. Positions are laid down in units of
// 1/96 inch and scaled to the screen's dots per inch; a dpi below 1 counts as 96.

namespace zul {

/// Client area of the window in units.
inline constexpr int kProgressClientWidth = 600;
inline constexpr int kProgressClientHeight = 236;

/// A rectangle in client pixels; right and bottom lie outside, as everywhere in GDI.
struct PixelRect {
  int left = 0;
  int top = 0;
  int right = 0;
  int bottom = 0;

  [[nodiscard]] int width() const { return right - left; }
  [[nodiscard]] int height() const { return bottom - top; }
  bool operator==(const PixelRect&) const = default;
};

struct ProgressLayout {
  PixelRect title;
  PixelRect detail;
  PixelRect bar;
  PixelRect bar_fill;  ///< no width when there is nothing to fill
  PixelRect percent_text;
  PixelRect figures;
};

/// `value * dpi / per`, rounded to the nearest, halves away from zero, as MulDiv rounds.
[[nodiscard]] int ScaleForDpi(int value, int dpi, int per = 96);

/// `percent` as it is drawn: negative is unknown and leaves the bar empty. `client_width` is in
/// pixels.
[[nodiscard]] ProgressLayout LayOutProgress(int client_width, int dpi, int percent,
                                            bool force_visible);

/// Place of the Force close button.
[[nodiscard]] PixelRect LayOutForceButton(int client_width, int dpi);

}  // namespace zul

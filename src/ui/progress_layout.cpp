#include "ui/progress_layout.h"

#include <algorithm>
#include <cstdint>

namespace zul {

namespace {

constexpr int kMargin = 28;
constexpr int kForceButtonRoom = 184;  // the figures line is shorter by the button and a gap

}  // namespace

int ScaleForDpi(int value, int dpi, int per) {
  const std::int64_t product = std::int64_t{value} * (dpi < 1 ? 96 : dpi);
  const std::int64_t half = per / 2;
  return static_cast<int>((product < 0 ? product - half : product + half) / per);
}

ProgressLayout LayOutProgress(int client_width, int dpi, int percent, bool force_visible) {
  const auto scaled = [dpi](int units) { return ScaleForDpi(units, dpi); };
  const int left = scaled(kMargin);
  const int right = client_width - scaled(kMargin);
  const auto row = [&](int top, int bottom) {
    return PixelRect{left, scaled(top), right, scaled(bottom)};
  };
  ProgressLayout layout;
  layout.title = row(26, 54);
  layout.detail = row(66, 118);
  layout.bar = row(146, 184);
  layout.bar_fill = layout.bar;
  layout.bar_fill.right = left + std::clamp(percent, 0, 100) * layout.bar.width() / 100;
  layout.percent_text = layout.bar;
  layout.percent_text.top -= scaled(3);
  layout.percent_text.bottom += scaled(3);
  layout.figures = row(198, 224);
  if (force_visible) layout.figures.right -= scaled(kForceButtonRoom);
  return layout;
}

PixelRect LayOutForceButton(int client_width, int dpi) {
  const auto scaled = [dpi](int units) { return ScaleForDpi(units, dpi); };
  const int right = client_width - scaled(kMargin);
  const int top = scaled(194);
  return {right - scaled(170), top, right, top + scaled(32)};
}

}  // namespace zul

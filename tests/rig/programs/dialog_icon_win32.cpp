#include "tests/rig/programs/dialog_icon_win32.h"

#include <cstdlib>
#include <vector>

namespace zul::rig {

namespace {

/// A square of pixels in memory that can be drawn on.
class Canvas {
 public:
  explicit Canvas(SIZE size) : size_(size), dc_(CreateCompatibleDC(nullptr)) {
    BITMAPINFO info{};
    info.bmiHeader = {sizeof(BITMAPINFOHEADER), size.cx, -size.cy, 1, 32, BI_RGB, 0, 0, 0, 0, 0};
    bitmap_ = CreateDIBSection(dc_, &info, DIB_RGB_COLORS, &bits_, nullptr, 0);
    previous_ = SelectObject(dc_, bitmap_);
  }
  ~Canvas() {
    SelectObject(dc_, previous_);
    DeleteObject(bitmap_);
    DeleteDC(dc_);
  }
  Canvas(const Canvas&) = delete;
  Canvas& operator=(const Canvas&) = delete;

  [[nodiscard]] HDC dc() const { return dc_; }

  /// Mean difference of the colour values, 0 to 255.
  [[nodiscard]] double DifferenceFrom(const Canvas& other) const {
    GdiFlush();
    const auto* mine = static_cast<const RGBQUAD*>(bits_);
    const auto* theirs = static_cast<const RGBQUAD*>(other.bits_);
    const long count = size_.cx * size_.cy;
    long sum = 0;
    for (long i = 0; i < count; ++i) {
      sum += std::abs(mine[i].rgbRed - theirs[i].rgbRed) +
             std::abs(mine[i].rgbGreen - theirs[i].rgbGreen) +
             std::abs(mine[i].rgbBlue - theirs[i].rgbBlue);
    }
    return static_cast<double>(sum) / (3.0 * static_cast<double>(count));
  }

 private:
  SIZE size_;
  HDC dc_;
  void* bits_ = nullptr;
  HBITMAP bitmap_ = nullptr;
  HGDIOBJ previous_ = nullptr;
};

struct Candidate {
  const wchar_t* resource;
  const char* name;
};

}  // namespace

const char* IconName(HWND control) {
  if (control == nullptr) return "none";
  RECT place{};
  GetWindowRect(control, &place);
  const SIZE size{place.right - place.left, place.bottom - place.top};
  if (size.cx <= 0 || size.cy <= 0) return "unknown";
  const Canvas shown(size);
  const HDC screen = GetDC(nullptr);
  BitBlt(shown.dc(), 0, 0, size.cx, size.cy, screen, place.left, place.top, SRCCOPY);
  ReleaseDC(nullptr, screen);

  constexpr double kSame = 12;  // edges are blended differently here and there
  const char* best = "unknown";
  double least = kSame;
  const Candidate candidates[] = {{IDI_ERROR, "error"},
                                  {IDI_WARNING, "warning"},
                                  {IDI_INFORMATION, "information"},
                                  {IDI_QUESTION, "question"}};
  for (const Candidate& candidate : candidates) {
    const Canvas drawn(size);
    SetDCBrushColor(drawn.dc(), GetPixel(shown.dc(), 0, 0));
    const RECT whole{0, 0, size.cx, size.cy};
    FillRect(drawn.dc(), &whole, static_cast<HBRUSH>(GetStockObject(DC_BRUSH)));
    DrawIconEx(drawn.dc(), 0, 0, LoadIconW(nullptr, candidate.resource), size.cx, size.cy, 0,
               nullptr, DI_NORMAL);
    const double difference = shown.DifferenceFrom(drawn);
    if (difference < least) {
      least = difference;
      best = candidate.name;
    }
  }
  return best;
}

}  // namespace zul::rig

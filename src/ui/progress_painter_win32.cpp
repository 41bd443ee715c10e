#include "ui/progress_painter_win32.h"

#include <string_view>

#include "ui/progress_layout.h"
#include "ui/progress_window.h"

namespace zul {

namespace {

constexpr COLORREF kTitleColour = RGB(234, 242, 252);
constexpr COLORREF kDetailColour = RGB(221, 231, 244);
constexpr COLORREF kBarColour = RGB(15, 18, 22);
constexpr COLORREF kBarBorderColour = RGB(64, 74, 88);
constexpr COLORREF kBarFillColour = RGB(91, 158, 245);
constexpr COLORREF kPercentColour = RGB(255, 255, 255);
constexpr COLORREF kFiguresColour = RGB(190, 205, 223);

// Without DT_NOPREFIX the ampersand of a file name would underline the next character.
constexpr UINT kLineFormat = DT_LEFT | DT_SINGLELINE | DT_VCENTER | DT_END_ELLIPSIS | DT_NOPREFIX;
constexpr UINT kParagraphFormat = DT_LEFT | DT_WORDBREAK | DT_END_ELLIPSIS | DT_NOPREFIX;
constexpr UINT kCentredFormat = DT_CENTER | DT_SINGLELINE | DT_VCENTER | DT_NOPREFIX;

struct MemoryDcTraits {
  using Type = HDC;
  static HDC Invalid() { return nullptr; }
  static void Close(HDC dc) { ::DeleteDC(dc); }
};
using UniqueMemoryDc = UniqueHandle<MemoryDcTraits>;
using UniqueBitmap = UniqueHandle<GdiObjectTraits<HBITMAP>>;

/// Selects an object into a device context for a scope.
class ScopedSelection {
 public:
  ScopedSelection(HDC dc, HGDIOBJ object) : dc_(dc), previous_(SelectObject(dc, object)) {}
  ~ScopedSelection() { SelectObject(dc_, previous_); }
  ScopedSelection(const ScopedSelection&) = delete;
  ScopedSelection& operator=(const ScopedSelection&) = delete;

 private:
  HDC dc_;
  HGDIOBJ previous_;
};

RECT ToRect(const PixelRect& rect) {
  return RECT{rect.left, rect.top, rect.right, rect.bottom};
}

void Fill(HDC dc, const PixelRect& rect, COLORREF colour) {
  const RECT area = ToRect(rect);
  SetDCBrushColor(dc, colour);
  FillRect(dc, &area, static_cast<HBRUSH>(GetStockObject(DC_BRUSH)));
}

void Frame(HDC dc, const PixelRect& rect, COLORREF colour) {
  const ScopedSelection pen(dc, GetStockObject(DC_PEN));
  const ScopedSelection hollow(dc, GetStockObject(NULL_BRUSH));
  SetDCPenColor(dc, colour);
  Rectangle(dc, rect.left, rect.top, rect.right, rect.bottom);
}

void Text(HDC dc, std::wstring_view text, const PixelRect& rect, HFONT font, COLORREF colour,
          UINT format) {
  const ScopedSelection selected(dc, font);
  RECT area = ToRect(rect);
  SetTextColor(dc, colour);
  DrawTextW(dc, text.data(), static_cast<int>(text.size()), &area, format);
}

void DrawProgress(HDC dc, SIZE client, int dpi, const UpdateProgressWindow& state,
                  const ProgressFonts& fonts) {
  const ProgressLayout layout =
      LayOutProgress(client.cx, dpi, state.shown_percent(), state.force_visible());
  SetBkMode(dc, TRANSPARENT);
  Fill(dc, {0, 0, client.cx, client.cy}, kProgressBackground);
  Text(dc, state.shown_title(), layout.title, fonts.title(), kTitleColour, kLineFormat);
  Text(dc, state.detail(), layout.detail, fonts.body(), kDetailColour, kParagraphFormat);
  Fill(dc, layout.bar, kBarColour);
  Frame(dc, layout.bar, kBarBorderColour);
  if (layout.bar_fill.width() > 0) Fill(dc, layout.bar_fill, kBarFillColour);
  Text(dc, state.percent_text(), layout.percent_text, fonts.large(), kPercentColour,
       kCentredFormat);
  if (const std::wstring figures = state.figures(); !figures.empty()) {
    Text(dc, figures, layout.figures, fonts.small_print(), kFiguresColour, kLineFormat);
  }
}

UniqueFont MakeFont(int points, int weight, int dpi) {
  return UniqueFont(CreateFontW(-ScaleForDpi(points, dpi, 72), 0, 0, 0, weight, FALSE, FALSE, FALSE,
                                DEFAULT_CHARSET, OUT_DEFAULT_PRECIS, CLIP_DEFAULT_PRECIS,
                                CLEARTYPE_QUALITY, DEFAULT_PITCH | FF_DONTCARE, L"Segoe UI"));
}

}  // namespace

ProgressFonts::ProgressFonts(int dpi)
    : body_(MakeFont(10, FW_NORMAL, dpi)),
      title_(MakeFont(10, FW_SEMIBOLD, dpi)),
      large_(MakeFont(12, FW_SEMIBOLD, dpi)),
      small_(MakeFont(9, FW_NORMAL, dpi)) {}

HFONT ProgressFonts::OrStock(const UniqueFont& font) {
  return font ? font.get() : static_cast<HFONT>(GetStockObject(DEFAULT_GUI_FONT));
}

void PaintProgress(HDC target, SIZE client, int dpi, const UpdateProgressWindow& state,
                   const ProgressFonts& fonts) {
  const UniqueMemoryDc memory(CreateCompatibleDC(target));
  const UniqueBitmap bitmap(CreateCompatibleBitmap(target, client.cx, client.cy));
  if (!memory || !bitmap) {  // draws directly, which may flicker
    DrawProgress(target, client, dpi, state, fonts);
    return;
  }
  const ScopedSelection selected(memory.get(), bitmap.get());
  DrawProgress(memory.get(), client, dpi, state, fonts);
  BitBlt(target, 0, 0, client.cx, client.cy, memory.get(), 0, 0, SRCCOPY);
}

}  // namespace zul

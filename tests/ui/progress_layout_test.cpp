#include "ui/progress_layout.h"

#include <gtest/gtest.h>

#include <ostream>

namespace zul {

void PrintTo(const PixelRect& rect, std::ostream* out) {
  *out << rect.left << "," << rect.top << " to " << rect.right << "," << rect.bottom;
}

namespace {

TEST(ScaleForDpi, RoundsToTheNearest) {
  const struct {
    int value, dpi, per, expected;
  } cases[] = {{28, 96, 96, 28},  {28, 0, 96, 28}, {28, -5, 96, 28}, {3, 144, 96, 5},  // 4.5
               {-3, 144, 96, -5},  // away from zero
               {1, 120, 96, 1},    // 1.25
               {10, 96, 72, 13}};  // 13.33: points to pixels
  for (const auto& c : cases) {
    EXPECT_EQ(ScaleForDpi(c.value, c.dpi, c.per), c.expected) << c.value << " at " << c.dpi;
  }
}

TEST(LayOutProgress, PlacesEverythingFromTheClientWidthAndTheDpi) {
  const ProgressLayout plain = LayOutProgress(600, 96, 25, false);
  EXPECT_EQ(plain.title, (PixelRect{28, 26, 572, 54}));
  EXPECT_EQ(plain.detail, (PixelRect{28, 66, 572, 118}));
  EXPECT_EQ(plain.bar, (PixelRect{28, 146, 572, 184}));
  EXPECT_EQ(plain.percent_text, (PixelRect{28, 143, 572, 187}));
  EXPECT_EQ(plain.figures, (PixelRect{28, 198, 572, 224}));
  EXPECT_EQ(LayOutForceButton(600, 96), (PixelRect{402, 194, 572, 226}));

  const ProgressLayout doubled = LayOutProgress(1200, 192, 25, true);
  EXPECT_EQ(doubled.bar, (PixelRect{56, 292, 1144, 368}));
  EXPECT_EQ(doubled.percent_text, (PixelRect{56, 286, 1144, 374}));
  EXPECT_EQ(doubled.figures.right, 1144 - 368);
  EXPECT_EQ(LayOutForceButton(1200, 192), (PixelRect{804, 388, 1144, 452}));

  for (const auto& [percent, width] :
       {std::pair{-1, 0}, {0, 0}, {1, 5}, {50, 272}, {100, 544}, {250, 544}}) {
    EXPECT_EQ(LayOutProgress(600, 96, percent, false).bar_fill.width(), width) << percent;
  }
}

}  // namespace
}  // namespace zul

#include "ui/progress_window.h"

#include <gtest/gtest.h>

#include "tests/ui/fake_screen.h"

namespace zul {
namespace {

class ProgressWindow : public testing::Test {
 protected:
  test::FakeScreen screen;
  std::chrono::milliseconds now{0};
  UpdateProgressWindow window{std::make_unique<test::FakeSurface>(screen),
                              [this] { return std::chrono::steady_clock::time_point(now); }};
};

TEST_F(ProgressWindow, StatusPaintsAtOnceAndClearsTheFigures) {
  window.set_download_progress("primary", 512, 1024, 0);
  screen.TakeCalls();
  window.set_status("Installiere \xC5\xBElu\xC5\xA5...", "Replacing application files.", 250);
  EXPECT_EQ(screen.TakeCalls(), "CRP");
  EXPECT_EQ(screen.paints.back(),
            "Installiere \xC5\xBElu\xC5\xA5... | Replacing application files. | 100% | ");
  window.set_status("", "", -1);
  EXPECT_EQ(screen.paints.back(), "Preparing update... |  | Working... | ");
}

TEST_F(ProgressWindow, FormatsTheFiguresOfADownload) {
  const std::string primary =
      "Downloading update... | Please wait while the update package is downloaded. | ";
  const std::string mirror =
      "Downloading update from RF mirror... | "
      "Primary server was unavailable. Using RF fallback. | ";
  const std::uint64_t mb = 1048576;
  const struct {
    const char* source;
    std::uint64_t done, total, rate;
    std::string paint;
  } cases[] = {
      {"primary", 0, 100 * mb, 0, primary + "0% | 0 B of 100.0 MB"},
      {"primary", 50 * mb, 100 * mb, 3 * mb, primary + "50% | 50.0 MB of 100.0 MB  (3.0 MB/s)"},
      {"primary", 1023, 1024, 0, primary + "99% | 1023 B of 1.0 KB"},
      {"rf_fallback", mb - 1, 0, 512, mirror + "Working... | 1024.0 KB downloaded  (512 B/s)"},
      {"primary", 1024 * mb, 2048, 0, primary + "100% | 1.0 GB of 2.0 KB"},
      {"primary", UINT64_MAX / 2 + 1, UINT64_MAX, 0,
       primary + "50% | 8589934592.0 GB of 17179869184.0 GB"}};
  for (const auto& c : cases) {
    now += std::chrono::seconds(1);
    window.set_download_progress(c.source, c.done, c.total, c.rate);
    EXPECT_EQ(screen.paints.back(), c.paint);
  }
}

TEST_F(ProgressWindow, PaintsAtMostEvery250MsAndAlwaysWhenComplete) {
  const struct {
    int at_ms;
    std::uint64_t done, total;
    bool painted;
  } steps[] = {{0, 0, 1000, true},  // the first figures
               {249, 100, 1000, false}, {250, 100, 1000, true},
               {600, 100, 1000, false},  // no change since the paint
               {601, 101, 1000, true},   // same percent, more bytes
               {602, 1000, 1000, true},  // complete
               {604, 1000, 0, false},    // a download of unknown size is never complete
               {900, 1000, 0, true}};    // the percent has become unknown
  for (const auto& s : steps) {
    now = std::chrono::milliseconds(s.at_ms);
    window.set_download_progress("primary", s.done, s.total, 0);
    EXPECT_EQ(screen.TakeCalls(), s.painted ? "CRP" : "CP") << "at " << s.at_ms << " ms";
  }
}

TEST_F(ProgressWindow, ForceCloseCountsWhileTheButtonIsShown) {
  window.PressForceClose();
  EXPECT_FALSE(window.force_close_requested()) << "a stray message while the button is hidden";
  window.set_force_close_available(true);
  EXPECT_EQ(screen.TakeCalls(), "CBRP");
  EXPECT_TRUE(window.force_visible() && window.force_enabled());
  window.PressForceClose();
  EXPECT_EQ(screen.TakeCalls(), "B");
  EXPECT_TRUE(window.force_visible() && !window.force_enabled());
  EXPECT_STREQ(window.force_button_text(), L"Closing...");
  window.set_force_close_available(true);  // as each cycle of the lock clearing does
  EXPECT_TRUE(window.force_close_requested());
  window.set_force_close_available(false);
  EXPECT_FALSE(window.force_close_requested() || window.force_visible());
}

}  // namespace
}  // namespace zul

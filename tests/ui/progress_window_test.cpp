#include "ui/progress_window.h"

#include <gtest/gtest.h>

#include "tests/ui/fake_screen.h"

namespace zul {
namespace {

class ProgressWindow : public testing::Test {
 protected:
  void Download(const char* source, std::uint64_t done, std::uint64_t total, int at_ms) {
    now_ = std::chrono::steady_clock::time_point(std::chrono::milliseconds(at_ms));
    window.set_download_progress(source, done, total, rate);
  }

  test::FakeScreen screen;
  std::uint64_t rate = 0;
  UpdateProgressWindow window{std::make_unique<test::FakeSurface>(screen), [this] { return now_; }};

 private:
  std::chrono::steady_clock::time_point now_{};
};

TEST(FormatByteCount, ChoosesTheUnitBelowTheNextPowerOf1024) {
  const std::pair<std::uint64_t, const char*> cases[] = {{0, "0 B"},
                                                         {1023, "1023 B"},
                                                         {1024, "1.0 KB"},
                                                         {1536, "1.5 KB"},
                                                         {1048575, "1024.0 KB"},
                                                         {1048576, "1.0 MB"},
                                                         {1073741823, "1024.0 MB"},
                                                         {1073741824, "1.0 GB"},
                                                         {UINT64_MAX, "17179869184.0 GB"}};
  for (const auto& [bytes, text] : cases) EXPECT_EQ(FormatByteCount(bytes), text);
}

TEST_F(ProgressWindow, StatusShowsAtOnceAndClearsTheFigures) {
  Download("primary", 512, 1024, 0);
  screen.TakeCalls();
  window.set_status("Installiere \xC5\xBElu\xC5\xA5...", "Replacing application files.", 100);
  EXPECT_EQ(screen.TakeCalls(), "CRP");
  EXPECT_EQ(screen.paints.back(),
            "Installiere \xC5\xBElu\xC5\xA5... | Replacing application files. | 100% | ");
  window.set_status("", "", -1);
  EXPECT_EQ(screen.paints.back(), "Preparing update... |  | Working... | ");
  window.set_status("", "", 250);
  EXPECT_EQ(screen.paints.back(), "Preparing update... |  | 100% | ");
  screen.TakeCalls();
  window.PumpMessages();
  window.Destroy();
  EXPECT_EQ(screen.TakeCalls(), "PD");
}

TEST_F(ProgressWindow, DownloadFiguresInEveryForm) {
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
      {"primary", 999, 1000, 0, primary + "99% | 999 B of 1000 B"},
      {"rf_fallback", 2048, 0, 512, mirror + "Working... | 2.0 KB downloaded  (512 B/s)"},
      {"RF_fallback", 3072, 0, 0, primary + "Working... | 3.0 KB downloaded"},
      {"primary", 4096, 2048, 0, primary + "100% | 4.0 KB of 2.0 KB"},
      {"primary", UINT64_MAX / 2 + 1, UINT64_MAX, 0,
       primary + "50% | 8589934592.0 GB of 17179869184.0 GB"}};
  int at_ms = 0;
  for (const auto& c : cases) {
    rate = c.rate;
    Download(c.source, c.done, c.total, at_ms += 1000);
    EXPECT_EQ(screen.paints.back(), c.paint);
  }
}

TEST_F(ProgressWindow, PaintsAtMostEvery250MsAndAlwaysTheEnd) {
  const struct {
    int at_ms;
    std::uint64_t done, total;
    bool painted;
  } steps[] = {{0, 0, 1000, true},  // the first figures
               {249, 100, 1000, false}, {250, 100, 1000, true},
               {400, 900, 1000, false}, {600, 100, 1000, false},  // nothing new since the paint
               {601, 101, 1000, true},                            // same percent, more bytes
               {602, 1000, 1000, true},                           // finished
               {603, 1000, 1000, true},                           // still finished
               {604, 1000, 0, false},                             // unknown total: never finished
               {900, 1000, 0, true}};                             // the percent has become unknown
  for (const auto& s : steps) {
    Download("primary", s.done, s.total, s.at_ms);
    EXPECT_EQ(screen.TakeCalls(), s.painted ? "CRP" : "CP") << "at " << s.at_ms << " ms";
  }
}

TEST_F(ProgressWindow, ForceCloseIsOfferedPressedOnceAndForgottenWhenWithdrawn) {
  window.PressForceClose();
  EXPECT_FALSE(window.force_close_requested()) << "a stray message while it is not offered";
  window.set_force_close_available(true);
  EXPECT_EQ(screen.TakeCalls(), "CBRP");
  EXPECT_EQ(screen.button, "Force close QORVA shown enabled");

  window.PressForceClose();
  EXPECT_EQ(screen.TakeCalls(), "B");
  EXPECT_TRUE(window.force_close_requested());
  EXPECT_EQ(screen.button, "Closing... shown");

  window.set_force_close_available(true);  // offered again in the next cycle
  EXPECT_EQ(screen.TakeCalls(), "CBP");
  EXPECT_TRUE(window.force_close_requested());

  window.set_force_close_available(false);
  EXPECT_FALSE(window.force_close_requested());
  EXPECT_EQ(screen.button, "Force close QORVA");
}

}  // namespace
}  // namespace zul

#include "ui/progress_window.h"

#include <gtest/gtest.h>

#include <utility>

#include "core/text.h"

namespace zul {
namespace {

using std::chrono::milliseconds;

/// What the surface was asked to do, and what it would have shown.
struct Screen {
  std::string calls;  ///< C create, R repaint, B button, P pump, D destroy
  std::string title, detail, percent, figures, button;
  bool button_visible = false, button_enabled = false;
  std::chrono::steady_clock::time_point now{};

  std::string TakeCalls() { return std::exchange(calls, std::string()); }
};

class FakeSurface final : public ProgressSurface {
 public:
  explicit FakeSurface(Screen& screen) : screen_(screen) {}
  void EnsureCreated(UpdateProgressWindow& state) override {
    state_ = &state;
    screen_.calls += 'C';
  }
  void Repaint() override {
    screen_.calls += 'R';
    screen_.title = WideToUtf8Lossy(state_->shown_title());
    screen_.detail = WideToUtf8Lossy(state_->detail());
    screen_.percent = WideToUtf8Lossy(state_->percent_text());
    screen_.figures = WideToUtf8Lossy(state_->figures());
  }
  void RefreshButton() override {
    screen_.calls += 'B';
    screen_.button = WideToUtf8Lossy(state_->force_button_text());
    screen_.button_visible = state_->force_visible();
    screen_.button_enabled = state_->force_enabled();
  }
  void PumpMessages() override { screen_.calls += 'P'; }
  void DestroyWindow() override { screen_.calls += 'D'; }

 private:
  Screen& screen_;
  UpdateProgressWindow* state_ = nullptr;
};

class ProgressWindow : public testing::Test {
 protected:
  Screen screen;
  UpdateProgressWindow window{std::make_unique<FakeSurface>(screen), [this] { return screen.now; }};
};

TEST(FormatByteCount, ChoosesTheUnitBelowTheNextPowerOf1024) {
  struct Case {
    std::uint64_t bytes;
    const char* text;
  };
  for (const Case& c : {Case{0, "0 B"}, Case{1023, "1023 B"}, Case{1024, "1.0 KB"},
                        Case{1536, "1.5 KB"}, Case{1048575, "1024.0 KB"}, Case{1048576, "1.0 MB"},
                        Case{104857600, "100.0 MB"}, Case{1073741823, "1024.0 MB"},
                        Case{1073741824, "1.0 GB"}, Case{UINT64_MAX, "17179869184.0 GB"}}) {
    EXPECT_EQ(FormatByteCount(c.bytes), c.text) << c.bytes;
  }
}

TEST_F(ProgressWindow, StatusShowsAtOnceAndClearsTheFigures) {
  window.set_download_progress("primary", 512, 1024, 0);
  screen.TakeCalls();
  window.set_status("Installiere \xC5\xBElu\xC5\xA5...", "Replacing application files.", 100);
  EXPECT_EQ(screen.TakeCalls(), "CRP");
  EXPECT_EQ(screen.title, "Installiere \xC5\xBElu\xC5\xA5...");
  EXPECT_EQ(screen.detail, "Replacing application files.");
  EXPECT_EQ(screen.percent, "100%");
  EXPECT_EQ(screen.figures, "");
  window.set_status("", "", -1);
  EXPECT_EQ(screen.title, "Preparing update...");
  EXPECT_EQ(screen.percent, "Working...");
  window.set_status("", "", 250);
  EXPECT_EQ(screen.percent, "100%");
  screen.TakeCalls();
  window.PumpMessages();
  window.Destroy();
  EXPECT_EQ(screen.TakeCalls(), "PD");
}

TEST_F(ProgressWindow, DownloadFiguresInEveryForm) {
  struct Case {
    const char* source;
    std::uint64_t downloaded, total, rate;
    const char *title, *percent, *figures;
  };
  const char* const primary = "Downloading update...";
  const char* const mirror = "Downloading update from RF mirror...";
  const std::uint64_t mb = 1048576;
  for (const Case& c : {
           Case{"primary", 0, 100 * mb, 0, primary, "0%", "0 B of 100.0 MB"},
           Case{"primary", 50 * mb, 100 * mb, 3 * mb, primary, "50%",
                "50.0 MB of 100.0 MB  (3.0 MB/s)"},
           Case{"primary", 999, 1000, 0, primary, "99%", "999 B of 1000 B"},
           Case{"rf_fallback", 2048, 0, 512, mirror, "Working...", "2.0 KB downloaded  (512 B/s)"},
           Case{"RF_fallback", 3072, 0, 0, primary, "Working...", "3.0 KB downloaded"},
           Case{"primary", 4096, 2048, 0, primary, "100%", "4.0 KB of 2.0 KB"},
           Case{"primary", UINT64_MAX / 2 + 1, UINT64_MAX, 0, primary, "50%",
                "8589934592.0 GB of 17179869184.0 GB"},
       }) {
    screen.now += milliseconds(1000);
    window.set_download_progress(c.source, c.downloaded, c.total, c.rate);
    EXPECT_EQ(screen.title, c.title);
    EXPECT_EQ(screen.percent, c.percent);
    EXPECT_EQ(screen.figures, c.figures);
    EXPECT_EQ(screen.detail, c.title == mirror
                                 ? "Primary server was unavailable. Using RF fallback."
                                 : "Please wait while the update package is downloaded.");
  }
}

TEST_F(ProgressWindow, PaintsAtMostEvery250MsAndAlwaysTheEnd) {
  struct Step {
    int at_ms;
    std::uint64_t downloaded, total;
    bool painted;
  };
  for (const Step& s :
       {Step{0, 0, 1000, true},  // the first figures
        Step{249, 100, 1000, false}, Step{250, 100, 1000, true}, Step{400, 900, 1000, false},
        Step{600, 100, 1000, false},  // nothing new since the paint
        Step{601, 101, 1000, true},   // same percent, more bytes
        Step{602, 1000, 1000, true},  // finished
        Step{603, 1000, 1000, true},  // still finished
        Step{604, 1000, 0, false},    // unknown total: never finished
        Step{900, 1000, 0, true}}) {  // the percent has become unknown
    screen.now = std::chrono::steady_clock::time_point(milliseconds(s.at_ms));
    window.set_download_progress("primary", s.downloaded, s.total, 0);
    EXPECT_EQ(screen.TakeCalls(), s.painted ? "CRP" : "CP") << "at " << s.at_ms << " ms";
  }
}

TEST_F(ProgressWindow, ForceCloseIsOfferedPressedOnceAndForgottenWhenWithdrawn) {
  window.PressForceClose();
  EXPECT_FALSE(window.force_close_requested()) << "a stray message while it is not offered";
  window.set_force_close_available(true);
  EXPECT_EQ(screen.TakeCalls(), "CBRP");
  EXPECT_EQ(screen.button, "Force close QORVA");
  EXPECT_TRUE(screen.button_visible && screen.button_enabled);

  window.PressForceClose();
  EXPECT_EQ(screen.TakeCalls(), "B");
  EXPECT_TRUE(window.force_close_requested());
  EXPECT_EQ(screen.button, "Closing...");
  EXPECT_TRUE(screen.button_visible && !screen.button_enabled);

  window.set_force_close_available(true);  // offered again in the next cycle
  EXPECT_EQ(screen.TakeCalls(), "CBP");
  EXPECT_TRUE(window.force_close_requested());

  window.set_force_close_available(false);
  EXPECT_FALSE(window.force_close_requested());
  EXPECT_FALSE(screen.button_visible || screen.button_enabled);
  EXPECT_EQ(screen.button, "Force close QORVA");
}

}  // namespace
}  // namespace zul

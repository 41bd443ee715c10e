#include "ui/progress_window.h"

#include <array>
#include <charconv>
#include <utility>

#include "core/text.h"

namespace zul {

namespace {

constexpr std::chrono::milliseconds kPaintInterval{250};

/// A malformed text becomes an empty one.
std::wstring Widen(std::string_view text) {
  return Utf8ToWide(text).value_or(std::wstring());
}

/// `part` of `whole` in percent, at most 100. -1 when `whole` is 0, which means unknown.
int PercentOf(std::uint64_t part, std::uint64_t whole) {
  if (whole == 0) return -1;
  if (part >= whole) return 100;
  constexpr std::uint64_t kSafe = UINT64_MAX / 100;
  return static_cast<int>(part > kSafe ? part / (whole / 100) : part * 100 / whole);
}

/// "512 B", "1.5 KB", "2.0 MB", "1.1 GB", with powers of 1024.
std::string FormatByteCount(std::uint64_t bytes) {
  constexpr std::array<const char*, 3> kUnits = {" KB", " MB", " GB"};
  if (bytes < 1024) return std::to_string(bytes) + " B";
  std::size_t unit = 0;
  double value = static_cast<double>(bytes) / 1024;
  // The count selects the unit, not the rounded value: 1048575 bytes are "1024.0 KB".
  std::uint64_t limit = 1048576;
  for (; unit + 1 < kUnits.size() && bytes >= limit; ++unit, limit *= 1024) value /= 1024;
  std::array<char, 32> digits{};
  const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), value,
                                 std::chars_format::fixed, 1)
                       .ptr;
  return std::string(digits.data(), end) + kUnits[unit];
}

std::string FormatFigures(std::uint64_t downloaded, std::uint64_t total, std::uint64_t rate) {
  std::string text = FormatByteCount(downloaded);
  text += total > 0 ? " of " + FormatByteCount(total) : " downloaded";
  if (rate > 0) text += "  (" + FormatByteCount(rate) + "/s)";
  return text;
}

}  // namespace

UpdateProgressWindow::UpdateProgressWindow(std::unique_ptr<ProgressSurface> surface, Clock clock)
    : surface_(std::move(surface)), clock_(std::move(clock)) {
  if (!clock_) clock_ = [] { return std::chrono::steady_clock::now(); };
}

UpdateProgressWindow::~UpdateProgressWindow() {
  surface_.reset();  // first, because it draws the other members
}

void UpdateProgressWindow::set_status(std::string_view title, std::string_view detail,
                                      int percent) {
  surface_->EnsureCreated(*this);
  title_ = Widen(title);
  detail_ = Widen(detail);
  has_figures_ = false;
  downloaded_ = 0;
  total_ = 0;
  percent_ = percent;
  surface_->Repaint();
  surface_->PumpMessages();
}

void UpdateProgressWindow::set_download_progress(std::string_view source, std::uint64_t downloaded,
                                                 std::uint64_t total,
                                                 std::uint64_t bytes_per_second) {
  surface_->EnsureCreated(*this);
  if (source == "rf_fallback") {
    title_ = L"Downloading update from RF mirror...";
    detail_ = L"Primary server was unavailable. Using RF fallback.";
  } else {
    title_ = L"Downloading update...";
    detail_ = L"Please wait while the update package is downloaded.";
  }
  downloaded_ = downloaded;
  total_ = total;
  percent_ = PercentOf(downloaded, total);
  bytes_per_second_ = bytes_per_second;
  has_figures_ = true;
  const auto now = clock_();
  if (PaintIsDue(now)) {
    painted_ = true;
    last_paint_time_ = now;
    last_paint_downloaded_ = downloaded_;
    last_paint_percent_ = percent_;
    surface_->Repaint();
  }
  surface_->PumpMessages();
}

bool UpdateProgressWindow::PaintIsDue(std::chrono::steady_clock::time_point now) const {
  const bool finished = total_ > 0 && downloaded_ >= total_;
  if (!painted_ || finished) return true;
  const bool changed = percent_ != last_paint_percent_ || downloaded_ != last_paint_downloaded_;
  return changed && now - last_paint_time_ >= kPaintInterval;
}

void UpdateProgressWindow::set_force_close_available(bool visible) {
  surface_->EnsureCreated(*this);
  const bool changed = force_visible_ != visible;
  force_visible_ = visible;
  if (!visible) force_requested_ = false;
  surface_->RefreshButton();
  if (changed) surface_->Repaint();  // the button changes the width of the figures line
  surface_->PumpMessages();
}

void UpdateProgressWindow::give_way_to(std::vector<std::uint32_t> pids) {
  surface_->EnsureCreated(*this);
  gives_way_to_ = std::move(pids);
  surface_->RefreshPlacement();
  surface_->PumpMessages();
}

/// Only the beginning handles messages: the end is also called while an exception is under way.
void UpdateProgressWindow::set_changes_in_progress(bool in_progress) {
  if (in_progress) surface_->EnsureCreated(*this);
  changes_in_progress_ = in_progress;
  surface_->RefreshSessionBlock();
  if (in_progress) surface_->PumpMessages();
}

void UpdateProgressWindow::PumpMessages() {
  surface_->PumpMessages();
}

void UpdateProgressWindow::Destroy() {
  surface_->DestroyWindow();
}

void UpdateProgressWindow::PressForceClose() {
  if (!force_visible_) return;
  force_requested_ = true;
  surface_->RefreshButton();
}

std::wstring_view UpdateProgressWindow::shown_title() const {
  return title_.empty() ? std::wstring_view(L"Preparing update...") : title_;
}

/// Formatted only when they are drawn, not for each chunk.
std::wstring UpdateProgressWindow::figures() const {
  if (!has_figures_) return {};
  return Widen(FormatFigures(downloaded_, total_, bytes_per_second_));
}

std::wstring UpdateProgressWindow::percent_text() const {
  return percent_ < 0 ? L"Working..." : std::to_wstring(shown_percent()) + L"%";
}

const wchar_t* UpdateProgressWindow::force_button_text() const {
  return force_requested_ ? L"Closing..." : L"Force close QORVA";
}

KeepAlive KeepingAlive(UpdateProgressWindow* window) {
  if (window == nullptr) return {};
  return [window] { window->PumpMessages(); };
}

}  // namespace zul

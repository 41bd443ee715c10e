// The cost of redacting hostile texts, relative to the same amount of ordinary log text: alone, and
// as the text of a report, from which whole values are removed first. Prints a line for each shape,
// with tabs: the shape and both ratios. The first line has milliseconds.

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <string>

#include "diagnostics/redaction.h"
#include "diagnostics/report_text.h"
#include "tests/support/hostile_texts.h"

namespace {

constexpr std::size_t kBytes = 131072;  // the longest text of a report
constexpr int kRuns = 7;

std::string AsReportText(std::string_view text) {
  return zul::ReportText(text, true);
}

/// The shortest of some runs, since other work on the machine only adds time.
double Seconds(std::string (*pass)(std::string_view), const std::string& text) {
  double best = 1e9;
  for (int run = 0; run < kRuns; ++run) {
    const auto start = std::chrono::steady_clock::now();
    const std::string result = pass(text);
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
    if (!result.empty()) best = std::min(best, elapsed.count());
  }
  return best;
}

}  // namespace

int main() {
  const std::string ordinary = zul::test::OrdinaryLogText(kBytes);
  const double alone = Seconds(zul::RedactSupportText, ordinary);
  const double in_report = Seconds(AsReportText, ordinary);
  std::printf("ordinary log text\t%.2f\t%.2f\n", 1000 * alone, 1000 * in_report);
  for (const zul::test::NamedText& hostile : zul::test::HostileTexts(kBytes)) {
    const double ratio = Seconds(zul::RedactSupportText, hostile.text) / alone;
    const double report_ratio = Seconds(AsReportText, hostile.text) / in_report;
    std::printf("%s\t%.2f\t%.2f\n", hostile.shape, ratio, report_ratio);
  }
  return 0;
}

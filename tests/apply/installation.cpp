#include "tests/apply/installation.h"

#include <sstream>
#include <utility>

#include "core/text.h"

namespace zul::test {

namespace {

/// A window that nobody sees.
class PumpOnly final : public ProgressSurface {
 public:
  explicit PumpOnly(std::function<void()> on_pump) : on_pump_(std::move(on_pump)) {}
  void EnsureCreated(UpdateProgressWindow&) override {}
  void Repaint() override {}
  void RefreshButton() override {}
  void PumpMessages() override {
    if (on_pump_) on_pump_();
  }
  void DestroyWindow() override {}

 private:
  std::function<void()> on_pump_;
};

}  // namespace

Snapshot TakeSnapshot(const fs::Path& root) {
  Snapshot snapshot;
  std::istringstream lines(ListTree(root));
  for (std::string line; std::getline(lines, line);) {
    const fs::Path path = root / PathFromUtf8(line).value();
    std::error_code ec;
    const fs::EntryKind kind = fs::KindOf(path, fs::Links::kDoNotFollow, ec);
    snapshot[line] = kind == fs::EntryKind::kRegular ? ReadFile(path) : std::string();
  }
  return snapshot;
}

Installation::Installation() {
  std::error_code ec;
  if (!fs::CreateDirectories(staged_root, ec) || !fs::CreateDirectories(target_root, ec)) {
    throw std::system_error(ec);
  }
}

void Installation::Install(std::string_view name, std::string_view contents) {
  WriteFile(target_root / PathFromUtf8(name).value(), contents);
}

void Installation::Stage(std::string_view name, std::string_view contents) {
  WriteFile(staged_root / PathFromUtf8(name).value(), contents);
}

bool Installation::Apply(const ApplyFaultInjection& faults, std::function<void()> on_pump) {
  // A destructor pumps too; that is none of the apply's.
  auto hook = std::make_shared<std::function<void()>>(std::move(on_pump));
  UpdateProgressWindow window(std::make_unique<PumpOnly>([this, hook] {
    if (*hook && Exists(backup_root)) (*hook)();
  }));
  ApplyCloseContext context{&window, false};
  error = "left over from an earlier stage";
  const bool applied =
      ApplyStagedUpdate(staged_root, target_root, 0, &context, false, &error, &outcome, &faults);
  *hook = {};
  return applied;
}

}  // namespace zul::test

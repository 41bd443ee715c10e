#include "tests/faults/sample_update.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>

#include "core/process_environment.h"
#include "core/text.h"
#include "package/extract.h"
#include "tests/support/file_tricks.h"
#include "tests/support/zip_builder.h"

namespace zul::test {

namespace {

#if defined(__has_feature)
constexpr bool kChecksThreads = __has_feature(thread_sanitizer);
#else
constexpr bool kChecksThreads = false;
#endif
constexpr bool kStepsAreSlow = kOnWindows || kChecksThreads;

constexpr std::uint32_t kChanges = 8;  // 2 retired, 4 replaced, 2 added

Files FilesOfAge(const std::string& age, std::size_t size, const char* names) {
  Files files;
  std::istringstream words(names);
  for (std::string name; words >> name;) {
    std::string& text = files[name] = age + " " + name + "\n";
    while (text.size() < size) text += text;
  }
  return files;
}

}  // namespace

const Files SampleUpdate::kOld = FilesOfAge(
    "old", 2000,
    "app.exe core.dll data/profile.icc data/deep/table.bin qorva.exe zul_rip.exe mine.txt");

const Files SampleUpdate::kPackage = FilesOfAge(
    "new", 3000,
    "app.exe core.dll data/profile.icc data/deep/table.bin data/deep/er/new.bin fresh/added.dll");

const Files SampleUpdate::kNew = [] {
  Files files = kPackage;
  files["mine.txt"] = kOld.at("mine.txt");
  return files;
}();

namespace {

/// Files that no update changes.
const Files kElsewhere = [] {
  ZipBuilder zip;
  for (const auto& [name, data] : SampleUpdate::kPackage) zip.File(name, data).Deflated();
  return Files{{"work/package.zip", zip.Build()}, {"elsewhere/file.txt", "not ours"}};
}();

bool Has(const Files& files, const Files::value_type& file) {
  return std::ranges::find(files, file) != files.end();
}

void WriteFiles(const fs::Path& root, const Files& files) {
  for (const auto& [name, contents] : files) WriteFile(root / *PathFromUtf8(name), contents);
}

bool Extracts(Scenario scenario) {
  return scenario != Scenario::kApply && scenario != Scenario::kRollback;
}

}  // namespace

Files SampleUpdate::FoundAtDestination() const {
  if (scenario_ != Scenario::kReextraction) return {};
  return FilesOfAge("of an earlier run", 1, "app.exe data/x");
}

SampleUpdate::SampleUpdate(Scenario scenario, const fs::Path& place)
    : scenario_(scenario),
      folder_(place.empty() ? fresh_.path() : place),
      config_home_("QORVA_CONFIG_HOME", PathToUtf8(fresh_ / "config")) {
  WriteFiles(folder_, kElsewhere);
  WriteFiles(folder_ / "app", kOld);
  WriteFiles(folder_ / "work/payload", Extracts(scenario) ? FoundAtDestination() : kPackage);
}

bool SampleUpdate::Run(Scenario scenario, const fs::Path& folder, std::string* error,
                       ApplyOutcome* outcome) {
  const fs::Path payload = folder / "work" / "payload";
  if (Extracts(scenario) && !ExtractPackage(folder / "work" / "package.zip", payload, error)) {
    return false;
  }
  if (scenario == Scenario::kExtraction || scenario == Scenario::kReextraction) return true;
  ApplyFaultInjection faults;
  if (scenario == Scenario::kRollback) faults.fail_after_replacements = kChanges;
  return ApplyStagedUpdate(payload, folder / "app", 0, nullptr, false, error, outcome, &faults);
}

Files SampleUpdate::Installed() const {
  Files files = FilesBelow(folder_ / "app");
  std::erase_if(files, [](const auto& file) {
    return file.first.find(".zul_update_tmp_") != std::string::npos;
  });
  return files;
}

std::vector<fs::Path> SampleUpdate::ExtractionLeftovers() const {
  std::vector<fs::Path> folders;
  std::error_code ec;
  for (const fs::DirectoryEntry& entry : fs::ListDirectory(folder_ / "work", ec)) {
    const bool ours = PathToUtf8(entry.path.filename()).starts_with(".qorva-zip-");
    if (ours) folders.push_back(entry.path);
  }
  return folders;
}

bool SampleUpdate::HasWholeDestination() const {
  const Files before = FoundAtDestination();
  if (Exists(folder_ / "work/payload")) {
    const Files found = FilesBelow(folder_ / "work/payload");
    return found == kPackage || (!before.empty() && found == before);
  }
  // Between its two renames an extraction has the old tree in a backup.
  const auto is_backup = [&](const auto& at) { return FilesBelow(at / "previous") == before; };
  return before.empty() || std::ranges::any_of(ExtractionLeftovers(), is_backup);
}

std::string SampleUpdate::Damage() const {
  std::string damage;
  const Files found = Installed();
  for (const auto& file : found) {
    if (!Has(kOld, file) && !Has(kNew, file)) damage += "torn: " + file.first + "\n";
  }
  const Files backups = FilesBelow(folder_ / "work/rollback_backup");
  for (const auto& file : kOld) {
    if (found == kNew) break;  // a finished update needs no backups
    if (kNew.contains(file.first) && !found.contains(file.first))
      damage += "gone: " + file.first + "\n";
    if (!Has(found, file) && !Has(backups, file)) damage += "lost: " + file.first + "\n";
  }
  if (!HasWholeDestination()) damage += "the destination is not whole\n";
  Files others = FilesBelow(folder_);
  for (const char* ours :
       {"app/", "config/", "work/payload/", "work/rollback_backup/", "work/.qorva-zip-"}) {
    std::erase_if(others, [&](const auto& file) { return file.first.starts_with(ours); });
  }
  if (others != kElsewhere) damage += "another file has changed\n";
  return damage;
}

std::optional<std::string> NameBelow(std::string_view folder, const FileCall& call) {
  const std::string start = std::string(folder) + "/";
  if (!call.file.starts_with(start)) return std::nullopt;
  return call.file.substr(start.size());
}

bool TriesEverything() {
  return GetEnvironmentPath("QORVA_FAULTS") == "all";
}

void ForEachStep(const Steps& steps, const std::function<void(const FileCall& step)>& test) {
  const SampleUpdate update(steps.scenario);
  StartScript(update.folder(), [](const FileCall&) { return Verdict(); });
  static_cast<void>(SampleUpdate::Run(steps.scenario, update.folder()));
  const unsigned stride = kStepsAreSlow && !TriesEverything() ? 17 : 1;
  unsigned replaced = 0, tried = 0;
  for (const FileCall& step : StopScript()) {
    if (replaced >= steps.from_replaced && replaced < steps.to_replaced &&
        step.number % stride == 0 && !testing::Test::HasFatalFailure()) {
      SCOPED_TRACE(std::string(steps.name) + ", step " + std::to_string(step.number) + ": " +
                   std::string(step.name) + " " + step.file + " for the " +
                   std::to_string(step.turn) + ". time");
      test(step);
      ++tried;
    }
    if (step.call == Call::kMoveReplacing || step.call == Call::kMoveToNewName) ++replaced;
  }
  EXPECT_GT(tried, 0u) << steps.name;
}

}  // namespace zul::test

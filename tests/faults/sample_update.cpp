#include "tests/faults/sample_update.h"

#include <algorithm>
#include <set>

#include "core/text.h"
#include "package/extract.h"
#include "tests/support/zip_builder.h"

namespace zul::test {

namespace {

constexpr std::uint32_t kChanges = 8;  // 2 retired, 4 replaced, 2 added

std::string Content(std::string_view age, std::string_view name, std::size_t size) {
  std::string text = std::string(age) + " " + std::string(name) + "\n";
  while (text.size() < size) text += text;
  text.resize(std::max(size, text.size()));
  return text;
}

bool IsTemporary(const std::string& name) {
  return name.find(".zul_update_tmp_") != std::string::npos;
}

void Write(const fs::Path& root, const Files& files) {
  for (const auto& [name, contents] : files) WriteFile(root / *PathFromUtf8(name), contents);
}

const Files& Stale() {
  static const Files files = {{"app.exe", "of an earlier run"}, {"data/x", "of an earlier run"}};
  return files;
}

const Files& Elsewhere() {
  static const Files files = {{"file.txt", "nobody's business"}};
  return files;
}

const std::string& Archive() {
  static const std::string archive = [] {
    ZipBuilder zip;
    for (const auto& [name, contents] : SampleUpdate::Package())
      zip.File(name, contents).Deflated();
    return zip.Build();
  }();
  return archive;
}

std::vector<std::string> Names(const fs::Path& folder, std::string_view prefix = {}) {
  std::vector<std::string> names;
  std::error_code ec;
  for (const fs::DirectoryEntry& entry : fs::ListDirectory(folder, ec)) {
    std::string name = PathToUtf8(entry.path.filename());
    if (name.starts_with(prefix)) names.push_back(std::move(name));
  }
  return names;
}

bool Extracts(Scenario scenario) {
  return scenario != Scenario::kApply && scenario != Scenario::kRollback;
}

fs::Path Destination(const fs::Path& folder) {
  return folder / "work" / "payload";
}

}  // namespace

const Files& SampleUpdate::Package() {
  static const Files files = [] {
    Files made;
    for (const char* name : {"app.exe", "core.dll", "data/profile.icc", "data/deep/table.bin",
                             "data/deep/er/new.bin", "fresh/added.dll"}) {
      made[name] = Content("new", name, 3000);
    }
    return made;
  }();
  return files;
}

bool SampleUpdate::IsRetired(const fs::Path& name) {
  return name == "qorva.exe" || name == "zul_rip.exe";
}

Files SampleUpdate::Replaced() {
  Files files = Old();
  files.erase("mine.txt");
  return files;
}

Files SampleUpdate::FoundAtDestination() const {
  return scenario_ == Scenario::kReextraction ? Stale() : Files();
}

std::size_t SampleUpdate::Temporaries() const {
  const Files files = FilesBelow(folder_ / "app");
  return static_cast<std::size_t>(std::count_if(
      files.begin(), files.end(), [](const auto& file) { return IsTemporary(file.first); }));
}

const Files& SampleUpdate::Old() {
  static const Files files = [] {
    Files made = {{"mine.txt", "the user's own"}};
    for (const char* name : {"app.exe", "core.dll", "data/profile.icc", "data/deep/table.bin",
                             "qorva.exe", "zul_rip.exe"}) {
      made[name] = Content("old", name, 2000);
    }
    return made;
  }();
  return files;
}

const Files& SampleUpdate::New() {
  static const Files files = [] {
    Files made = Package();
    made["mine.txt"] = Old().at("mine.txt");
    return made;
  }();
  return files;
}

SampleUpdate::SampleUpdate(Scenario scenario, const fs::Path& place)
    : scenario_(scenario),
      folder_(place.empty() ? fresh_.path() : place),
      config_home_("QORVA_CONFIG_HOME", PathToUtf8(fresh_ / "config")) {
  WriteFile(folder_ / "work" / "package.zip", Archive());
  Write(folder_ / "elsewhere", Elsewhere());
  Write(folder_ / "app", Old());
  if (scenario == Scenario::kReextraction) Write(Destination(folder()), Stale());
  if (!Extracts(scenario)) Write(Destination(folder()), Package());
}

bool SampleUpdate::Run(Scenario scenario, const fs::Path& folder, std::string* error,
                       ApplyOutcome* outcome) {
  const fs::Path destination = Destination(folder);
  if (Extracts(scenario) && !ExtractPackage(folder / "work" / "package.zip", destination, error)) {
    return false;
  }
  if (scenario == Scenario::kExtraction || scenario == Scenario::kReextraction) return true;
  ApplyFaultInjection faults;
  if (scenario == Scenario::kRollback) faults.fail_after_replacements = kChanges;
  return ApplyStagedUpdate(destination, folder / "app", 0, nullptr, false, error, outcome, &faults);
}

Files SampleUpdate::Installed() const {
  Files files = FilesBelow(folder_ / "app");
  std::erase_if(files, [](const auto& file) { return IsTemporary(file.first); });
  return files;
}

void SampleUpdate::CheckInstallation(std::string& damage) const {
  const Files found = Installed();
  const Files backups = FilesBelow(folder_ / "work" / "rollback_backup");
  for (const auto& [name, contents] : found) {
    const auto old_file = Old().find(name);
    const auto new_file = New().find(name);
    const bool is_old = old_file != Old().end() && contents == old_file->second;
    const bool is_new = new_file != New().end() && contents == new_file->second;
    if (!is_old && !is_new) damage += "neither old nor new: " + name + "\n";
  }
  if (found == New()) return;  // complete: the backups have served
  for (const auto& [name, contents] : Old()) {
    const auto file = found.find(name);
    if (file == found.end() && !IsRetired(name)) damage += "gone: " + name + "\n";
    if (file != found.end() && file->second == contents) continue;
    const auto backup = backups.find(name);
    if (backup == backups.end() || backup->second != contents) damage += "lost: " + name + "\n";
  }
}

void SampleUpdate::CheckDestination(std::string& damage) const {
  const bool displaces = scenario_ == Scenario::kReextraction;
  const fs::Path destination = Destination(folder());
  bool whole = !displaces;
  if (Exists(destination)) {
    const Files found = FilesBelow(destination);
    whole = found == Package() || (displaces && found == Stale());
  } else if (displaces) {  // between the two renames the old tree is in a backup, whole
    for (const std::string& name : ExtractionLeftovers()) {
      whole = whole || FilesBelow(folder_ / "work" / *PathFromUtf8(name) / "previous") == Stale();
    }
  }
  if (!whole) damage += "no whole tree at the destination\n";
}

void SampleUpdate::CheckSurroundings(std::string& damage) const {
  if (ReadFile(folder_ / "work" / "package.zip") != Archive()) damage += "another package\n";
  if (FilesBelow(folder_ / "elsewhere") != Elsewhere()) damage += "changed elsewhere\n";
  const std::set<std::string> ours = {"app",         "config",  "elsewhere",      "work",
                                      "package.zip", "payload", "rollback_backup"};
  for (const fs::Path& parent : {folder(), folder_ / "work"}) {
    for (const std::string& name : Names(parent)) {
      if (!ours.contains(name) && !name.starts_with(".qorva-zip-"))
        damage += "made: " + name + "\n";
    }
  }
}

std::vector<std::string> SampleUpdate::ExtractionLeftovers() const {
  return Names(folder_ / "work", ".qorva-zip-");
}

std::string SampleUpdate::Damage() const {
  std::string damage;
  CheckInstallation(damage);
  CheckDestination(damage);
  CheckSurroundings(damage);
  return damage;
}

}  // namespace zul::test

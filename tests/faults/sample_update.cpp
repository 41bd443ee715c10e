#include "tests/faults/sample_update.h"

#include <algorithm>

#include "core/text.h"
#include "package/extract.h"
#include "tests/support/zip_builder.h"

namespace zul::test {

namespace {

constexpr std::uint32_t kChanges = 8;  // 2 retired, 4 replaced, 2 added

/// New files of two pages of a disk, and of one, beside old ones of one.
Files Made(const std::string& age, std::size_t size, std::initializer_list<const char*> names) {
  Files files;
  for (const std::string name : names) {
    std::string& text = files[name] = age + " " + name + "\n";
    while (text.size() < size) text += text;
  }
  return files;
}

bool Has(const Files& files, const std::string& name, const std::string& contents) {
  const auto file = files.find(name);
  return file != files.end() && file->second == contents;
}

void Write(const fs::Path& root, const Files& files) {
  for (const auto& [name, contents] : files) WriteFile(root / *PathFromUtf8(name), contents);
}

/// What an update has no business with.
const Files& Elsewhere() {
  static const Files files = [] {
    ZipBuilder zip;
    for (const auto& [name, data] : SampleUpdate::kPackage) zip.File(name, data).Deflated();
    return Files{{"work/package.zip", zip.Build()}, {"elsewhere/file.txt", "nobody's business"}};
  }();
  return files;
}

bool Extracts(Scenario scenario) {
  return scenario != Scenario::kApply && scenario != Scenario::kRollback;
}

}  // namespace

const Files SampleUpdate::kOld =
    Made("old", 2000,
         {"app.exe", "core.dll", "data/profile.icc", "data/deep/table.bin", "qorva.exe",
          "zul_rip.exe", "mine.txt"});

const Files SampleUpdate::kPackage =
    Made("new", 3000,
         {"app.exe", "core.dll", "data/profile.icc", "data/deep/table.bin", "data/deep/er/new.bin",
          "fresh/added.dll"});

const Files SampleUpdate::kNew = [] {
  Files files = kPackage;
  files["mine.txt"] = kOld.at("mine.txt");
  return files;
}();

bool SampleUpdate::IsRetired(const fs::Path& name) {
  return name == "qorva.exe" || name == "zul_rip.exe";
}

Files SampleUpdate::FoundAtDestination() const {
  if (scenario_ != Scenario::kReextraction) return {};
  return Made("of an earlier run", 1, {"app.exe", "data/x"});
}

SampleUpdate::SampleUpdate(Scenario scenario, const fs::Path& place)
    : scenario_(scenario),
      folder_(place.empty() ? fresh_.path() : place),
      config_home_("QORVA_CONFIG_HOME", PathToUtf8(fresh_ / "config")) {
  Write(folder_, Elsewhere());
  Write(folder_ / "app", kOld);
  Write(folder_ / "work/payload", Extracts(scenario) ? FoundAtDestination() : kPackage);
}

bool SampleUpdate::Run(Scenario scenario, const fs::Path& folder, std::string* error,
                       ApplyOutcome* outcome) {
  const fs::Path destination = folder / "work" / "payload";
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
  std::erase_if(files, [](const auto& file) {
    return file.first.find(".zul_update_tmp_") != std::string::npos;
  });
  return files;
}

std::vector<std::string> SampleUpdate::ExtractionLeftovers() const {
  std::vector<std::string> names;
  std::error_code ec;
  for (const fs::DirectoryEntry& entry : fs::ListDirectory(folder_ / "work", ec)) {
    const std::string name = PathToUtf8(entry.path.filename());
    if (name.starts_with(".qorva-zip-")) names.push_back(name);
  }
  return names;
}

bool SampleUpdate::HasWholeDestination() const {
  const Files before = FoundAtDestination();
  if (Exists(folder_ / "work/payload")) {
    const Files found = FilesBelow(folder_ / "work/payload");
    return found == kPackage || (!before.empty() && found == before);
  }
  // Between the two renames the old tree is in a backup, whole.
  const std::vector<std::string> beside = ExtractionLeftovers();
  return before.empty() || std::any_of(beside.begin(), beside.end(), [&](const std::string& name) {
           return FilesBelow(folder_ / "work" / name / "previous") == before;
         });
}

std::string SampleUpdate::Damage() const {
  std::string damage;
  const Files found = Installed();
  for (const auto& [name, contents] : found) {
    if (!Has(kOld, name, contents) && !Has(kNew, name, contents)) damage += "torn: " + name + "\n";
  }
  const Files backups = FilesBelow(folder_ / "work/rollback_backup");
  for (const auto& [name, contents] : kOld) {
    if (found == kNew) break;  // complete: the backups have served
    if (!found.contains(name) && !IsRetired(name)) damage += "gone: " + name + "\n";
    if (!Has(found, name, contents) && !Has(backups, name, contents))
      damage += "lost: " + name + "\n";
  }
  if (!HasWholeDestination()) damage += "no whole tree at the destination\n";
  Files around = FilesBelow(folder_);
  for (const char* ours :
       {"app/", "config/", "work/payload/", "work/rollback_backup/", "work/.qorva-zip-"}) {
    std::erase_if(around, [&](const auto& file) { return file.first.starts_with(ours); });
  }
  if (around != Elsewhere()) damage += "changed elsewhere\n";
  return damage;
}

}  // namespace zul::test

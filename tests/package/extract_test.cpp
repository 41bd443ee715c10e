// What can go wrong around an extraction: other processes, the disk, and an archive that changes.
// tests/rig/hostile_archives.py has the archives that are refused for what they contain.

#include "package/extract.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "core/text.h"
#include "package/extraction_directory.h"
#include "package/zip_extract.h"
#include "tests/support/file_tricks.h"
#include "tests/support/temp_folder.h"
#include "tests/support/zip_builder.h"

namespace zul {
namespace {

using test::ListTree;
using test::MakeLink;
using test::RunsUnderWine;
using test::TempFolder;
using test::WriteFile;
using test::ZipEntryBuilder;
using test::ZipField;

// An archive of these files, after `change` was applied to the first.
std::string Packed(
    const std::vector<std::pair<const char*, const char*>>& files,
    const std::function<void(ZipEntryBuilder&)>& change = [](auto&) {}) {
  test::ZipBuilder zip;
  for (std::size_t i = 0; i < files.size(); ++i) {
    ZipEntryBuilder& entry = zip.File(files[i].first, files[i].second);
    if (i == 0) change(entry);
  }
  return zip.Build();
}

// The message, or "" for success.
std::string Extract(const fs::Path& archive, const fs::Path& destination) {
  std::string error = "stale";
  const bool extracted = ExtractPackage(archive, destination, &error);
  EXPECT_EQ(extracted, error.empty());
  return error;
}

std::string Scan(const fs::Path& archive, ZipScanResult* result) {
  std::string error;
  const bool accepted = ScanZipArchive(PathToUtf8(archive), result, &error);
  EXPECT_EQ(accepted, error.empty());
  return error;
}

TEST(ExtractPackage, RequiresTheExtensionZip) {
  const TempFolder folder;
  WriteFile(folder / "package", Packed({{"a", "x"}}));
  for (const char* name : {"package", "package.", "package.zip.exe", "zip", "package.zipx"}) {
    EXPECT_EQ(Extract(folder / name, folder / "out/stage"), "Not a ZIP archive") << name;
  }
  EXPECT_EQ(Extract(folder / "a.zip", {}), "Destination directory is empty");
  EXPECT_EQ(Extract(folder / "MISSING.1.ZIP", folder / "out/stage"), "cannot open ZIP");
  EXPECT_FALSE(ExtractPackage(folder / "missing.zip", folder / "out/stage", nullptr));
  EXPECT_EQ(ListTree(folder.path()), "package\n");
}

TEST(ExtractPackage, WorksWithPathsBeyond260Characters) {
  const TempFolder folder;
  const std::size_t length = RunsUnderWine() ? 205 : 280;  // Wine resolves no stage beyond 260
  const fs::Path deep = folder / std::string(length - folder.path().native().size(), 'd');
  const fs::Path archive = deep / (std::string(60, 'p') + ".zip");
  WriteFile(archive, Packed({{"d/file", "contents"}}));
  EXPECT_EQ(Extract(archive, deep / "s"), "");
  EXPECT_EQ(test::FilesBelow(deep / "s"), (test::Files{{"d/file", "contents"}}));
}

TEST(ExtractPackage, KeepsItsCallerAliveWhileItRemovesTheStage) {
  const TempFolder folder;
  test::ZipBuilder zip;
  for (int i = 0; i < 30; ++i) zip.File(std::to_string(i), "x");
  zip.File("last", "contents");
  std::string archive = zip.Build();
  archive.replace(archive.find("contents"), 8, "damaged!");
  WriteFile(folder / "p.zip", archive);
  fs::Path stage;
  int most = 0;
  int during_removal = 0;
  std::string error;
  EXPECT_FALSE(ExtractPackage(folder / "p.zip", folder / "out/stage", &error, [&] {
    std::error_code code;
    const auto stages = fs::ListDirectory(folder / "out", code);
    if (stage.empty() && !stages.empty()) stage = stages.front().path;
    int files = 0;
    for (int i = 0; i < 30; ++i) files += fs::Exists(stage / std::to_string(i)) ? 1 : 0;
    if (files < most) ++during_removal;
    most = std::max(most, files);
  }));
  EXPECT_EQ(error, "ZIP entry CRC mismatch");
  EXPECT_GE(during_removal, 29);
}

TEST(ExtractPackage, ReplacesAFileAtTheDestination) {
  const TempFolder folder;
  WriteFile(folder / "p.zip", Packed({{"new", "x"}}));
  WriteFile(folder / "out/stage", "a file");
  EXPECT_EQ(Extract(folder / "p.zip", folder / "out/stage"), "");
  EXPECT_EQ(ListTree(folder / "out"), "stage/\nstage/new\n");
}

TEST(ScanZipArchive, RefusesAnArchiveThatEndsAnywhereBeforeItsEnd) {
  const TempFolder folder;
  const std::string good = Packed({{"a.txt", "hello"}, {"b.txt", "world"}},
                                  [](ZipEntryBuilder& entry) { entry.Deflated().Zip64(); });
  ZipScanResult result;
  for (std::size_t size = 0; size < good.size(); ++size) {
    WriteFile(folder / "p.zip", good.substr(0, size));
    EXPECT_NE(Scan(folder / "p.zip", &result), "") << size;
  }
}

TEST(ExtractScannedEntries, RefusesAnArchiveThatWasReplacedAfterTheScan) {
  const std::string changed = "ZIP source changed during extraction";
  const std::pair<const char*, const char*> skipped = {".DS_Store", "not extracted"};
  const struct {
    const char* what;
    std::string archive, error;
  } cases[] = {
      {"nothing", Packed({{"a", "hello"}, skipped}), ""},
      {"an entry that is not extracted", Packed({{"a", "hello"}, {"/unsafe", "other"}}), ""},
      {"contents", Packed({{"a", "jello"}, skipped}), changed},
      {"name", Packed({{"b", "hello"}, skipped}), changed},
      {"method", Packed({{"a", "hello"}, skipped}, [](auto& a) { a.Deflated(); }), changed},
      {"offset",
       Packed({{"a", "hello"}, {"a", "hello"}},
              [](auto& a) { a.Central(ZipField::kLocalOffset, 36); }),
       changed},
      {"one entry less", Packed({{"a", "hello"}}), changed},
      {"unsafe name", Packed({{"../a", "hello"}, skipped}), "unsafe ZIP entry path"},
      {"local header",
       Packed({{"a", "hello"}, skipped}, [](auto& a) { a.Local(ZipField::kFlags, 2); }),
       "local header flags do not match central directory"},
      {"no local header",
       Packed({{"a", "hello"}, skipped}, [](auto& a) { a.Local(ZipField::kSignature, 0); }),
       "cannot open ZIP entry: invalid format"},
  };
  const TempFolder folder;
  const fs::Path archive = folder / "p.zip";
  ZipScanResult scan;
  WriteFile(archive, cases[0].archive);
  ASSERT_EQ(Scan(archive, &scan), "");
  for (const auto& c : cases) {
    const TempFolder stage;
    WriteFile(archive, c.archive);
    std::string error;
    EXPECT_EQ(ExtractScannedEntries(PathToUtf8(archive), &scan, stage.path(), &error),
              c.error.empty());
    EXPECT_EQ(error, c.error) << c.what;
  }
}

// An archive of d/a and d/b, whose first entry is extracted, and a folder outside the stage.
struct BetweenTwoEntries {
  BetweenTwoEntries() {
    WriteFile(folder / "p.zip", Packed({{"d/a", "first"}, {"d/b", "second"}}));
    WriteFile(outside / "keep", "x");
    std::error_code code;
    std::string error;
    EXPECT_TRUE(fs::CreateDirectories(stage, code));
    EXPECT_EQ(Scan(folder / "p.zip", &scan), "");
    EXPECT_TRUE(OpenZipReader(PathToUtf8(folder / "p.zip"), &reader, &error)) << error;
    EXPECT_EQ(reader.GoToFirstEntry(), kZipOk);
    EXPECT_TRUE(ExtractOneEntry(reader, scan.entries.at(0), stage, pass, &error)) << error;
    EXPECT_EQ(reader.GoToNextEntry(), kZipOk);
  }

  bool RemoveFolder() {
    std::error_code code;
    return fs::RemoveTree(stage / "d", code);
  }

  bool Write(const char* path) {
    WriteFile(stage / path, "theirs");
    return true;
  }

  // Makes a record that no scan returns.
  bool RenameSecond(const char* path) {
    scan.entries.at(1).path = path;
    scan.entries.at(1).unicode_path_used = true;  // so that the name of the local header is ignored
    return true;
  }

  const TempFolder folder;
  const fs::Path stage = folder / "stage";
  const fs::Path outside = folder / "outside";
  ZipScanResult scan;
  ZipReader reader;
  ExtractionPass pass;
};

TEST(ExtractOneEntry, NeverLeavesTheStage) {
  const std::string replaced = "ZIP extraction directory identity changed";
  const std::string escapes = "ZIP entry escapes extraction root";
  const std::string taken = "cannot create extracted file exclusively: path already exists";
  using It = BetweenTwoEntries&;
  const struct {
    const char* what;
    std::function<bool(It)> tamper;  // false where this is not possible
    std::string error;
  } cases[] = {
      {"no folder", [](It it) { return it.RemoveFolder(); }, replaced},
      {"a link in place of the folder",
       [](It it) { return it.RemoveFolder() && MakeLink(it.outside, it.stage / "d"); }, replaced},
      {"the folder of another process",
       [](It it) { return it.Write("e/theirs") && it.RenameSecond("e/b"); },
       "ZIP directory path collision on target filesystem"},
      {"the file of another process", [](It it) { return it.Write("d/b"); }, taken},
      {"a link in place of the file",  // Wine does not see a link without a target
       [](It it) { return !RunsUnderWine() && MakeLink(it.outside / "new", it.stage / "d/b"); },
       taken},
      {"parent", [](It it) { return it.RenameSecond("../a"); }, escapes},
      {"parent at the end", [](It it) { return it.RenameSecond("d/../../a"); }, escapes},
      {"root", [](It it) { return it.RenameSecond("/a"); }, escapes},
      {"no name", [](It it) { return it.RenameSecond(""); }, escapes},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    BetweenTwoEntries it;
    if (!c.tamper(it)) continue;
    std::string error;
    EXPECT_FALSE(ExtractOneEntry(it.reader, it.scan.entries.at(1), it.stage, it.pass, &error));
    EXPECT_EQ(error, c.error);
    EXPECT_EQ(ListTree(it.outside), "keep\n");
    EXPECT_FALSE(test::Exists(it.folder / "a"));
    test::RemoveHostTree(it.folder.path());
  }
}

TEST(IsPathInsideRootFolded, ComparesComponents) {
  const std::pair<const char*, bool> cases[] = {
      {"/a/б/c", true}, {"/A/б/c/d", true}, {"/a/б", false},  {"/a/бc", false},
      {"/a", false},    {"a/б/c", false},   {"/a/Б/c", false}};
  for (const auto& [candidate, inside] : cases) {
    EXPECT_EQ(IsPathInsideRootFolded(PathOrEmpty("/a/б"), PathOrEmpty(candidate)), inside);
  }
}

TEST(CheckFreeSpaceForExtraction, RequiresTheExactSpace) {
  const test::SmallVolume volume;
  if (volume.path().empty()) GTEST_SKIP() << volume.why_not();
  std::error_code code;
  const std::uint64_t available = fs::AvailableSpace(volume.path(), code);
  std::string error;
  EXPECT_TRUE(CheckFreeSpaceForExtraction(volume.path(), available, &error)) << error;
  EXPECT_FALSE(CheckFreeSpaceForExtraction(volume.path(), available + 1, &error));
}

}  // namespace
}  // namespace zul

// What only a real system does: links that lead out, a volume that is full, an entry that is busy.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "core/system_error.h"
#include "core/text.h"
#include "package/extract.h"
#include "package/extraction_directory.h"
#include "package/layout.h"
#include "package/zip_extract.h"
#include "tests/package/busy_entry.h"
#include "tests/support/file_tricks.h"
#include "tests/support/temp_folder.h"
#include "tests/support/zip_builder.h"

namespace zul {
namespace {

using test::BusyEntry;
using test::Exists;
using test::ListTree;
using test::MakeLink;
using test::ReadFile;
using test::RunsUnderWine;
using test::SmallVolume;
using test::TempFolder;
using test::WriteFile;
using test::ZipBuilder;

// An archive of d/a and d/b, whose first entry is extracted, and a folder outside the stage.
class BetweenTwoEntries : public testing::Test {
 protected:
  void SetUp() override {
    ZipBuilder zip;
    zip.File("d/a", "first");
    zip.File("d/b", "second");
    WriteFile(folder_ / "p.zip", zip.Build());
    WriteFile(outside_ / "keep", "x");
    const std::string archive = PathToUtf8(folder_ / "p.zip");
    std::error_code code;
    std::string error;
    ASSERT_TRUE(fs::CreateDirectories(stage_, code));
    ASSERT_TRUE(ScanZipArchive(archive, scan_, &error)) << error;
    ASSERT_TRUE(OpenZipReader(archive, reader_, &error)) << error;
    ASSERT_EQ(reader_.GoToFirstEntry(), kZipOk);
    ASSERT_TRUE(ExtractOneEntry(reader_, scan_.entries[0], stage_, pass_, &error)) << error;
    ASSERT_EQ(reader_.GoToNextEntry(), kZipOk);
  }

  // The message for the second entry. Nothing may have gone outside.
  std::string ExtractSecond() {
    std::string error;
    EXPECT_FALSE(ExtractOneEntry(reader_, scan_.entries[1], stage_, pass_, &error));
    EXPECT_EQ(ListTree(outside_), "keep\n");
    return error;
  }

  const TempFolder folder_;
  const fs::Path stage_ = folder_ / "stage";
  const fs::Path outside_ = folder_ / "outside";
  ZipScanResult scan_;
  ZipReader reader_;
  ExtractionPass pass_;
};

TEST_F(BetweenTwoEntries, RefusesALinkInPlaceOfADirectoryThatItMade) {
  std::error_code code;
  ASSERT_TRUE(fs::RemoveTree(stage_ / "d", code));
  EXPECT_EQ(ExtractSecond(), "ZIP extraction directory identity changed");
  if (!MakeLink(outside_, stage_ / "d")) GTEST_SKIP() << "links are not allowed here";
  EXPECT_EQ(ExtractSecond(), "ZIP extraction directory identity changed");
  pass_.created_dirs.clear();
  EXPECT_EQ(ExtractSecond(), "ZIP directory path collision on target filesystem");
}

TEST_F(BetweenTwoEntries, RefusesALinkInPlaceOfTheFile) {
  if (RunsUnderWine()) GTEST_SKIP() << "Wine does not see a link without a target";
  if (!MakeLink(outside_ / "new", stage_ / "d" / "b")) GTEST_SKIP() << "links are not allowed here";
  EXPECT_NE(ExtractSecond(), "");
}

TEST(ExtractPackage, DisplacesALinkAtTheDestinationAndNotItsTarget) {
  if (RunsUnderWine()) GTEST_SKIP() << "Wine removes a link together with its target";
  const TempFolder folder;
  ZipBuilder zip;
  zip.File("new", "x");
  WriteFile(folder / "p.zip", zip.Build());
  WriteFile(folder / "outside/keep", "x");
  std::error_code code;
  ASSERT_TRUE(fs::CreateDirectories(folder / "out", code));
  if (!MakeLink(folder / "outside", folder / "out/stage")) {
    GTEST_SKIP() << "links are not allowed here";
  }
  std::string error;
  EXPECT_TRUE(ExtractPackage(folder / "p.zip", folder / "out/stage", &error)) << error;
  EXPECT_EQ(ListTree(folder / "out"), "stage/\nstage/new\n");
  EXPECT_EQ(ListTree(folder / "outside"), "keep\n");
}

TEST(ExtractPackage, NeedsExactlyTheSpaceThatItAsksFor) {
  const SmallVolume volume;
  if (volume.path().empty()) GTEST_SKIP() << volume.why_not();
  std::error_code code;
  const std::uint64_t available = fs::AvailableSpace(volume.path(), code);
  std::string error;
  EXPECT_TRUE(CheckFreeSpaceForExtraction(volume.path(), available, &error)) << error;
  EXPECT_FALSE(CheckFreeSpaceForExtraction(volume.path(), available + 1, &error));
  EXPECT_EQ(error, "not enough disk space for ZIP extraction: required " +
                       std::to_string(available + 1) + " bytes, available " +
                       std::to_string(available) + " bytes");

  const TempFolder folder;
  const fs::Path archive = folder / "p.zip";
  const fs::Path destination = volume.path() / "stage";
  ZipBuilder zip;
  zip.File("d/a", std::string(available + 1, '\0')).Deflated();
  WriteFile(archive, zip.Build());
  EXPECT_FALSE(ExtractPackage(archive, destination, &error));
  EXPECT_TRUE(error.starts_with("not enough disk space for ZIP extraction: ")) << error;
  EXPECT_EQ(ListTree(volume.path()), "");

  // What the small files take beyond their size is not counted, so the disk fills while it works.
  ZipBuilder many;
  for (int i = 0; i < 200; ++i) many.File(std::to_string(i), "x");
  many.File("a", std::string(available - 300, '\0')).Deflated();
  WriteFile(archive, many.Build());
  EXPECT_FALSE(ExtractPackage(archive, destination, &error));
  EXPECT_TRUE(error.starts_with("cannot write extracted file: ")) << error;
  EXPECT_EQ(ListTree(volume.path()), "");
}

TEST(RenameWithRetry, WaitsForABusyEntryAndGivesUpInTheEnd) {
  const TempFolder folder;
  BusyEntry entry(folder / "from");
  if (!entry.is_busy()) GTEST_SKIP() << "no entry can be made busy here";
  int sleeps = 0;
  std::chrono::milliseconds slept{0};
  const RetrySleep count = [&](std::chrono::milliseconds duration) {
    ++sleeps;
    slept += duration;
  };
  std::error_code code;
  EXPECT_FALSE(RenameWithRetry(folder / "from", folder / "to", code, count));
  EXPECT_EQ(sleeps, 40);
  EXPECT_EQ(slept, std::chrono::milliseconds(2000));
  EXPECT_EQ(code, std::errc::device_or_resource_busy);

  sleeps = 0;
  EXPECT_TRUE(RenameWithRetry(folder / "from", folder / "to", code, [&](auto) {
    if (++sleeps == 3) entry.LetGo();
  }));
  EXPECT_EQ(sleeps, 3);
  EXPECT_TRUE(Exists(folder / "to"));
  // An error that will not pass is not waited for.
  EXPECT_FALSE(RenameWithRetry(folder / "from", folder / "to2", code, count));
  EXPECT_EQ(sleeps, 3);
}

TEST(CommitExtractionDirectory, TellsWhereTheOldTreeIsWhenItCannotBePutBack) {
  const TempFolder folder;
  BusyEntry stage(folder / "stage");
  if (!stage.is_busy()) GTEST_SKIP() << "no entry can be made busy here";
  WriteFile(folder / "out/tree/old.txt", "old");
  // While the stage is busy someone takes the destination's name.
  std::string error;
  EXPECT_FALSE(CommitExtractionDirectory(folder / "stage", folder / "out/tree", &error, [&](auto) {
    WriteFile(folder / "out/tree/theirs.txt", "theirs");
  }));
  const std::string preserved_at = "; previous destination preserved at ";
  const std::size_t at = error.find(preserved_at);
  ASSERT_NE(at, std::string::npos) << error;
  EXPECT_TRUE(error.starts_with("Cannot finalize extraction directory: code=")) << error;
  EXPECT_NE(error.find("'; rollback failed: code="), std::string::npos) << error;
  const fs::Path previous = *PathFromUtf8(error.substr(at + preserved_at.size()));
  EXPECT_EQ(ReadFile(previous / "old.txt"), "old");
  EXPECT_EQ(ReadFile(folder / "out/tree/theirs.txt"), "theirs");
}

TEST(CommitExtractionDirectory, LeavesADestinationThatCannotBeMoved) {
  const TempFolder folder;
  BusyEntry destination(folder / "out/tree");
  if (!destination.is_busy()) GTEST_SKIP() << "no entry can be made busy here";
  WriteFile(folder / "stage/new.txt", "new");
  const std::string before = ListTree(folder / "out");
  std::string error;
  EXPECT_FALSE(
      CommitExtractionDirectory(folder / "stage", folder / "out/tree", &error, [](auto) {}));
  EXPECT_TRUE(error.starts_with("Cannot stage previous extraction directory: code=")) << error;
  EXPECT_EQ(ListTree(folder / "out"), before);
  EXPECT_EQ(ReadFile(folder / "stage/new.txt"), "new");
}

TEST(PayloadLayout, DoesNotFollowLinks) {
  const TempFolder folder;
  WriteFile(folder / "real/app.exe", "x");
  WriteFile(folder / "stage/readme", "x");
  if (!MakeLink(folder / "real", folder / "stage/wrap")) GTEST_SKIP() << "no links here";
  fs::Path root;
  std::string error;
  EXPECT_FALSE(ResolvePayloadLayout(folder / "stage", {"app.exe"}, root, &error));
  EXPECT_EQ(error, "Update package layout mismatch. Required files are missing: app.exe.");
  if (RunsUnderWine()) return;  // there a link to a file looks like the file
  ASSERT_TRUE(MakeLink(folder / "real/app.exe", folder / "stage/app.exe"));
  std::vector<std::string> missing;
  EXPECT_FALSE(FindMissingRequiredFiles(folder / "stage", {"app.exe"}, missing));
  EXPECT_EQ(missing, std::vector<std::string>{"app.exe"});
}

TEST(IsPathInsideDirectory, ResolvesLinksFirst) {
  const TempFolder folder;
  const fs::Path base = folder / "base";
  WriteFile(folder / "outside/file", "x");
  WriteFile(base / "d" / "file", "x");
  if (!MakeLink(folder / "outside", base / "out")) GTEST_SKIP() << "links are not allowed here";
  ASSERT_TRUE(MakeLink(base / "d", base / "in"));
  ASSERT_TRUE(MakeLink(base, folder / "alias"));
  EXPECT_FALSE(IsPathInsideDirectory(base, base / "out" / "file"));
  EXPECT_FALSE(IsPathInsideDirectory(base, base / "out" / "new"));
  EXPECT_TRUE(IsPathInsideDirectory(base, base / "in" / "file"));
  EXPECT_TRUE(IsPathInsideDirectory(base, folder / "alias/d/file"));
  EXPECT_TRUE(IsPathInsideDirectory(folder / "alias", base / "d"));
  if (RunsUnderWine()) return;  // a link that leads nowhere is not seen there
  ASSERT_TRUE(MakeLink("loop", base / "loop"));
  EXPECT_FALSE(IsPathInsideDirectory(base, base / "loop" / "x"));
  std::string error;
  EXPECT_FALSE(ValidatePayloadTarget(base, base / "loop" / "x", &error));
  EXPECT_EQ(error, "Update payload target cannot be normalized: '" +
                       PathToUtf8(base / "loop" / "x") + "'");
  EXPECT_FALSE(ValidatePayloadTarget(base / "loop", base / "d", &error));
  EXPECT_EQ(error,
            "Update target directory cannot be normalized: '" + PathToUtf8(base / "loop") + "'");
}

}  // namespace
}  // namespace zul

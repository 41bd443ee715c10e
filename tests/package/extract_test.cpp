// What an extraction meets beside the archive: other processes, the disk, and an archive that is
// not what it was. What is refused at which archive stands in tests/rig/hostile_archives.py.

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
using test::ZipBuilder;
using test::ZipEntryBuilder;
using test::ZipField;

using Build = std::function<void(ZipBuilder&)>;

std::string Packed(const Build& build) {
  ZipBuilder zip;
  build(zip);
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

TEST(ExtractPackage, RefusesWhatIsNoArchiveByName) {
  const TempFolder folder;
  WriteFile(folder / "package", Packed([](ZipBuilder& zip) { zip.File("a", "x"); }));
  for (const char* name : {"package", "package.", "package.zip.exe", "zip", "package.zipx"}) {
    EXPECT_EQ(Extract(folder / name, folder / "out/stage"), "Not a ZIP archive") << name;
  }
  EXPECT_EQ(Extract(folder / "a.zip", {}), "Destination directory is empty");
  EXPECT_EQ(Extract(folder / "MISSING.ZIP", folder / "out/stage"), "cannot open ZIP");
  EXPECT_FALSE(ExtractPackage(folder / "missing.zip", folder / "out/stage", nullptr));
  EXPECT_EQ(ListTree(folder.path()), "package\n");
}

TEST(ExtractPackage, DisplacesAFileOrALinkAndNotWhatTheLinkLeadsTo) {
  const TempFolder folder;
  WriteFile(folder / "p.zip", Packed([](ZipBuilder& zip) { zip.File("new", "x"); }));
  WriteFile(folder / "outside/keep", "x");
  WriteFile(folder / "out/stage", "a file");
  EXPECT_EQ(Extract(folder / "p.zip", folder / "out/stage"), "");
  EXPECT_EQ(ListTree(folder / "out"), "stage/\nstage/new\n");
  if (RunsUnderWine()) GTEST_SKIP() << "Wine removes a link together with its target";
  std::error_code code;
  ASSERT_TRUE(fs::RemoveTree(folder / "out/stage", code));
  if (!MakeLink(folder / "outside", folder / "out/stage")) GTEST_SKIP() << "no links here";
  EXPECT_EQ(Extract(folder / "p.zip", folder / "out/stage"), "");
  EXPECT_EQ(ListTree(folder / "out"), "stage/\nstage/new\n");
  EXPECT_EQ(ListTree(folder / "outside"), "keep\n");
}

// Cut anywhere an archive is refused; with any byte changed it is refused or read.
TEST(ScanZipArchive, JudgesDamagedArchives) {
  const TempFolder folder;
  const fs::Path archive = folder / "package.zip";
  const std::string good = Packed([](ZipBuilder& zip) {
    zip.File("a.txt", "hello");
    zip.File("b.txt", "world").Deflated().Zip64();
  });
  ZipScanResult result;
  for (std::size_t size = 0; size < good.size(); ++size) {
    WriteFile(archive, good.substr(0, size));
    EXPECT_NE(Scan(archive, &result), "") << size;
  }
  for (std::size_t at = 0; at < good.size(); ++at) {
    for (const char change : {'\x01', '\x80', '\xFF'}) {
      std::string bytes = good;
      bytes[at] = static_cast<char>(bytes[at] ^ change);
      WriteFile(archive, bytes);
      Scan(archive, &result);
    }
  }
}

// An entry, and one behind it that the scan drops.
Build Two(
    const char* name, const char* data,
    const std::function<void(ZipEntryBuilder&)>& change = [](auto&) {}) {
  return [=](ZipBuilder& zip) {
    change(zip.File(name, data));
    zip.File(".DS_Store", "clutter");
  };
}

TEST(ExtractScannedEntries, NoticesAnArchiveThatWasReplaced) {
  const std::string changed = "ZIP source changed during extraction";
  const struct {
    const char* what;
    Build build;
    std::string error;
  } cases[] = {
      {"nothing", Two("a", "hello"), ""},
      {"dropped entry",
       [](ZipBuilder& zip) {
         zip.File("a", "hello");
         zip.File("/no matter", "other").Deflated();
       },
       ""},
      {"contents", Two("a", "jello"), changed},
      {"name", Two("b", "hello"), changed},
      {"kind", Two("a", "hello", [](auto& a) { a.Deflated(); }), changed},
      {"position",
       [](ZipBuilder& zip) {
         zip.File("c", "clutter").Central(ZipField::kLocalOffset, 0);
         zip.File("a", "hello");
       },
       changed},
      {"one entry less", [](ZipBuilder& zip) { zip.File("a", "hello"); }, changed},
      {"unsafe name", Two("../a", "hello"), "unsafe ZIP entry path"},
      {"local header", Two("a", "hello", [](auto& a) { a.Local(ZipField::kFlags, 2); }),
       "local header flags do not match central directory"},
      {"no local header", Two("a", "hello", [](auto& a) { a.Local(ZipField::kSignature, 0); }),
       "cannot open ZIP entry: invalid format"},
  };
  for (const auto& c : cases) {
    const TempFolder folder;
    const fs::Path archive = folder / "p.zip";
    ZipScanResult scan;
    WriteFile(archive, Packed(Two("a", "hello")));
    ASSERT_EQ(Scan(archive, &scan), "");
    WriteFile(archive, Packed(c.build));
    std::string error;
    EXPECT_EQ(ExtractScannedEntries(PathToUtf8(archive), scan, folder.path(), &error),
              c.error.empty());
    EXPECT_EQ(error, c.error) << c.what;
  }
}

// An archive of d/a and d/b, whose first entry is extracted, and a folder outside the stage.
struct BetweenTwoEntries {
  BetweenTwoEntries() {
    WriteFile(folder / "p.zip", Packed([](ZipBuilder& zip) {
                zip.File("d/a", "first");
                zip.File("d/b", "second");
              }));
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

  // A record that a scan would never have made.
  bool RenameSecond(const char* path) {
    scan.entries.at(1).path = path;
    scan.entries.at(1).unicode_path_used = true;  // so that the local header's name does not count
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
  const struct {
    const char* what;
    std::function<bool(BetweenTwoEntries&)> tamper;  // false where this cannot be done
    std::string error;
  } cases[] = {
      {"the folder is gone", [](auto& it) { return it.RemoveFolder(); }, replaced},
      {"a link in its place",
       [](auto& it) { return it.RemoveFolder() && MakeLink(it.outside, it.stage / "d"); },
       replaced},
      {"another's folder",
       [](auto& it) {
         WriteFile(it.stage / "e" / "theirs", "x");
         return it.RenameSecond("e/b");
       },
       "ZIP directory path collision on target filesystem"},
      {"another's file",
       [](auto& it) {
         WriteFile(it.stage / "d" / "b", "theirs");
         return true;
       },
       taken},
      {"a link in the file's place",
       [](auto& it) {  // Wine does not see a link without a target
         return !RunsUnderWine() && MakeLink(it.outside / "new", it.stage / "d" / "b");
       },
       taken},
      {"climbing", [](auto& it) { return it.RenameSecond("../a"); }, escapes},
      {"climbing at last", [](auto& it) { return it.RenameSecond("d/../../a"); }, escapes},
      {"rooted", [](auto& it) { return it.RenameSecond("/a"); }, escapes},
      {"no name", [](auto& it) { return it.RenameSecond(""); }, escapes},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    BetweenTwoEntries between;
    if (!c.tamper(between)) continue;
    std::string error;
    EXPECT_FALSE(ExtractOneEntry(between.reader, between.scan.entries.at(1), between.stage,
                                 between.pass, &error));
    EXPECT_EQ(error, c.error);
    EXPECT_EQ(ListTree(between.outside), "keep\n");
    EXPECT_FALSE(test::Exists(between.folder / "a"));
    test::RemoveHostTree(between.folder.path());
  }
}

TEST(IsPathInsideRootFolded, ComparesComponents) {
  const struct {
    const char* root;
    const char* candidate;
    bool inside;
  } cases[] = {
      {"/a/b", "/a/b/c", true},  {"/a/b", "/A/B/c/d", true}, {"/a/b", "/a/b", false},
      {"/a/b", "/a/bc", false},  {"/a/b", "/a", false},      {"/a/b", "a/b/c", false},
      {"/a/б", "/a/Б/c", false}, {"/", "/a", true},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(IsPathInsideRootFolded(*PathFromUtf8(c.root), *PathFromUtf8(c.candidate)), c.inside)
        << c.root << " " << c.candidate;
  }
}

TEST(CheckFreeSpaceForExtraction, NeedsExactlyTheSpaceThatItAsksFor) {
  const test::SmallVolume volume;
  if (volume.path().empty()) GTEST_SKIP() << volume.why_not();
  std::error_code code;
  const std::uint64_t available = fs::AvailableSpace(volume.path(), code);
  std::string error;
  EXPECT_TRUE(CheckFreeSpaceForExtraction(volume.path(), available, &error)) << error;
  EXPECT_FALSE(CheckFreeSpaceForExtraction(volume.path(), available + 1, &error));
  EXPECT_EQ(error, "not enough disk space for ZIP extraction: required " +
                       std::to_string(available + 1) + " bytes, available " +
                       std::to_string(available) + " bytes");
}

}  // namespace
}  // namespace zul

#include "package/extract.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "core/text.h"
#include "package/extraction_directory.h"
#include "package/zip_extract.h"
#include "tests/support/temp_folder.h"
#include "tests/support/zip_builder.h"

namespace zul {
namespace {

using test::Exists;
using test::ListTree;
using test::ReadFile;
using test::TempFolder;
using test::WriteFile;
using test::ZipBuilder;
using test::ZipField;

// Bytes that deflate cannot make much of, the same in every run.
std::string Noise(std::size_t size) {
  std::string bytes(size, '\0');
  std::uint32_t state = 1;
  for (char& byte : bytes) {
    state = state * 1664525 + 1013904223;
    byte = static_cast<char>(state >> 24);
  }
  return bytes;
}

// An archive in a folder of its own, and beside it the place where it goes.
class Extraction : public testing::Test {
 protected:
  void Write(const std::function<void(ZipBuilder&)>& build) {
    ZipBuilder zip;
    build(zip);
    WriteFile(archive_, zip.Build());
  }

  // The message, or "" for success.
  std::string Extract() {
    std::string error = "stale";
    const bool extracted = ExtractPackage(archive_, destination_, &error);
    EXPECT_EQ(extracted, error.empty());
    return error;
  }

  // Everything around the destination; a stage or backup that stayed would show here.
  [[nodiscard]] std::string Around() const { return ListTree(destination_.parent_path()); }

  const TempFolder folder_;
  const fs::Path archive_ = folder_ / "in/package.zip";
  const fs::Path destination_ = folder_ / "out/stage";
};

TEST_F(Extraction, WritesEveryFileWithItsParents) {
  const std::string exactly_one_buffer = Noise(ExtractionPass::kBufferBytes);
  const std::string large = Noise(3 * ExtractionPass::kBufferBytes + 17);
  Write([&](ZipBuilder& zip) {
    zip.Directory("empty/");
    zip.File("a.txt", "hello");
    zip.File("d/e/large.bin", large).Deflated();
    zip.File("d/e/stored.bin", large).Zip64();
    zip.File("d/one.bin", exactly_one_buffer).Deflated().Streamed();
    zip.File("d/nothing", "").Deflated();
    zip.File("d/nothing.txt", "").Streamed();
    zip.File("d/.DS_Store", "clutter");
    zip.File("имя/жук.icc", std::string(100000, 'z')).Deflated();
    zip.File("link", "../../outside").Symlink();
  });
  EXPECT_EQ(Extract(), "");
  EXPECT_EQ(Around(),
            "stage/\nstage/a.txt\nstage/d/\nstage/d/e/\nstage/d/e/large.bin\n"
            "stage/d/e/stored.bin\nstage/d/nothing\nstage/d/nothing.txt\nstage/d/one.bin\n"
            "stage/link\nstage/имя/\nstage/имя/жук.icc\n");
  EXPECT_EQ(ReadFile(destination_ / "a.txt"), "hello");
  EXPECT_EQ(ReadFile(destination_ / "d" / "e" / "large.bin"), large);
  EXPECT_EQ(ReadFile(destination_ / "d" / "e" / "stored.bin"), large);
  EXPECT_EQ(ReadFile(destination_ / "d" / "one.bin"), exactly_one_buffer);
  EXPECT_EQ(ReadFile(destination_ / "d" / "nothing"), "");
  EXPECT_EQ(ReadFile(folder_ / "out/stage/имя/жук.icc"), std::string(100000, 'z'));
  // A link in the archive is a file that holds its target's name.
  EXPECT_EQ(ReadFile(destination_ / "link"), "../../outside");
}

TEST_F(Extraction, RefusesBadArguments) {
  Write([](ZipBuilder& zip) { zip.File("a", "x"); });
  std::string error;
  for (const char* name : {"package", "package.", "package.zip.exe", "zip", "package.zipx"}) {
    EXPECT_FALSE(ExtractPackage(folder_ / "in" / name, destination_, &error));
    EXPECT_EQ(error, "Not a ZIP archive") << name;
  }
  EXPECT_FALSE(ExtractPackage(archive_, fs::Path(), &error));
  EXPECT_EQ(error, "Destination directory is empty");
  EXPECT_FALSE(ExtractPackage(folder_ / "in/PACKAGE2.ZIP", destination_, &error));
  EXPECT_EQ(error, "cannot open ZIP");
  EXPECT_FALSE(ExtractPackage(folder_ / "in/other.zip", destination_, nullptr));
  EXPECT_FALSE(Exists(destination_.parent_path()));
}

TEST_F(Extraction, LeavesNothingBehindWhenDataIsNotWhatWasDeclared) {
  WriteFile(destination_ / "old.txt", "old");
  const std::string zeros(5000000, '\0');
  const std::string broken = "\xFF\xFF\xFF\xFF\xFF";
  const struct {
    const char* what;
    std::function<void(ZipBuilder&)> build;
    std::string error;
  } cases[] = {
      {"bomb",
       [&](ZipBuilder& zip) {
         zip.File("a", zeros).Deflated().Both(ZipField::kUncompressedSize, 2000000);
       },
       "ZIP entry output exceeds declared uncompressed size"},
      {"bomb that declares nothing",
       [&](ZipBuilder& zip) {
         zip.File("a", zeros).Deflated().Both(ZipField::kUncompressedSize, 0);
       },
       "ZIP entry output exceeds declared uncompressed size"},
      {"stored bytes beyond the size",
       [](ZipBuilder& zip) { zip.File("a", "hello").Both(ZipField::kUncompressedSize, 4); },
       "ZIP entry output exceeds declared uncompressed size"},
      {"short data",
       [](ZipBuilder& zip) {
         zip.File("a", "hello").Deflated().Both(ZipField::kUncompressedSize, 6);
       },
       "ZIP entry output size mismatch"},
      {"no data", [](ZipBuilder& zip) { zip.File("a", "hello").StoredBytes("").Deflated(); },
       "ZIP entry output size mismatch"},
      {"wrong CRC", [](ZipBuilder& zip) { zip.File("a", "hello").Both(ZipField::kCrc, 1); },
       "ZIP entry CRC mismatch"},
      {"wrong CRC of nothing", [](ZipBuilder& zip) { zip.File("a", "").Both(ZipField::kCrc, 1); },
       "ZIP entry CRC mismatch"},
      {"wrong CRC, and a size that hides it from the library",
       [](ZipBuilder& zip) {
         zip.File("a", std::string(100, 'a'))
             .Deflated()
             .Streamed()
             .Both(ZipField::kCrc, 1)
             .Both(ZipField::kCompressedSize, 8)
             .Both(ZipField::kUncompressedSize, 100);
       },
       "ZIP entry CRC mismatch"},
      {"more compressed bytes declared than there are",
       [](ZipBuilder& zip) {
         zip.File("a", "hello")
             .Deflated()
             .Both(ZipField::kCompressedSize, 8)
             .StoredBytes(std::string("\xCB\x48\xCD\xC9\xC9\x07\x00\x00", 8));
       },
       "ZIP entry close failed: compressed data error"},
      {"no deflate data",
       [&](ZipBuilder& zip) { zip.File("a", "hello").Deflated().StoredBytes(broken); },
       "ZIP inflate failed: compressed data error"},
      {"a later entry",
       [](ZipBuilder& zip) {
         zip.File("first/a", "x");
         zip.File("second/b", "x").Both(ZipField::kCrc, 1);
       },
       "ZIP entry CRC mismatch"},
  };
  for (const auto& c : cases) {
    Write(c.build);
    EXPECT_EQ(Extract(), c.error) << c.what;
    EXPECT_EQ(Around(), "stage/\nstage/old.txt\n") << c.what;
  }
}

TEST_F(Extraction, ReplacesWhateverStandsAtTheDestination) {
  Write([](ZipBuilder& zip) { zip.File("new.txt", "new"); });
  WriteFile(destination_ / "deep/er" / "old.txt", "old");
  EXPECT_EQ(Extract(), "");
  EXPECT_EQ(Around(), "stage/\nstage/new.txt\n");
  Write([](ZipBuilder&) {});
  EXPECT_EQ(Extract(), "");
  EXPECT_EQ(Around(), "stage/\n");
  std::error_code code;
  ASSERT_TRUE(fs::RemoveTree(destination_, code));
  WriteFile(destination_, "a file");
  EXPECT_EQ(Extract(), "");
  EXPECT_EQ(Around(), "stage/\n");
}

TEST_F(Extraction, SaysWhenTheDestinationCannotHaveAParent) {
  Write([](ZipBuilder& zip) { zip.File("a", "x"); });
  WriteFile(folder_ / "out", "a file");
  EXPECT_TRUE(Extract().starts_with("Cannot create extraction parent directory: "));
  EXPECT_EQ(ReadFile(folder_ / "out"), "a file");
}

// The two passes apart, with something happening between them.
class SecondPass : public Extraction {
 protected:
  void ScanIt(const std::function<void(ZipBuilder&)>& build) {
    Write(build);
    std::string error;
    ASSERT_TRUE(ScanZipArchive(PathToUtf8(archive_), scan_, &error)) << error;
    std::error_code code;
    ASSERT_TRUE(fs::CreateDirectories(stage_, code));
  }

  std::string ExtractIt() {
    std::string error;
    const bool extracted = ExtractScannedEntries(PathToUtf8(archive_), scan_, stage_, &error);
    EXPECT_EQ(extracted, error.empty());
    return error;
  }

  const fs::Path stage_ = folder_ / "out";
  ZipScanResult scan_;
};

TEST_F(SecondPass, NoticesAnArchiveThatWasReplaced) {
  const std::string changed = "ZIP source changed during extraction";
  const struct {
    const char* what;
    std::function<void(ZipBuilder&)> build;
    std::string error;
  } cases[] = {
      {"nothing changed",
       [](ZipBuilder& zip) {
         zip.File("a", "hello");
         zip.File(".DS_Store", "clutter");
       },
       ""},
      {"dropped entry changed",
       [](ZipBuilder& zip) {
         zip.File("a", "hello");
         zip.File("/no matter", "other").Deflated();
       },
       ""},
      {"contents",
       [](ZipBuilder& zip) {
         zip.File("a", "jello");
         zip.File(".DS_Store", "clutter");
       },
       changed},
      {"name",
       [](ZipBuilder& zip) {
         zip.File("b", "hello");
         zip.File(".DS_Store", "clutter");
       },
       changed},
      {"kind",
       [](ZipBuilder& zip) {
         zip.File("a", "hello").Deflated();
         zip.File(".DS_Store", "clutter");
       },
       changed},
      {"position",
       [](ZipBuilder& zip) {
         zip.File("c", "clutter").Central(ZipField::kLocalOffset, 0);
         zip.File("a", "hello");
       },
       changed},
      {"one entry less", [](ZipBuilder& zip) { zip.File("a", "hello"); }, changed},
      {"judged again",
       [](ZipBuilder& zip) {
         zip.File("../a", "hello");
         zip.File(".DS_Store", "clutter");
       },
       "unsafe ZIP entry path"},
      {"local header",
       [](ZipBuilder& zip) {
         zip.File("a", "hello").Local(ZipField::kFlags, 2);
         zip.File(".DS_Store", "clutter");
       },
       "local header flags do not match central directory"},
      {"local header gone",
       [](ZipBuilder& zip) {
         zip.File("a", "hello").Local(ZipField::kSignature, 0);
         zip.File(".DS_Store", "clutter");
       },
       "cannot open ZIP entry: invalid format"},
  };
  for (const auto& c : cases) {
    ScanIt(cases[0].build);
    Write(c.build);
    EXPECT_EQ(ExtractIt(), c.error) << c.what;
    std::error_code code;
    fs::RemoveTree(stage_, code);
  }
}

TEST_F(SecondPass, MeetsWhatOthersPutIntoTheStage) {
  ScanIt([](ZipBuilder& zip) { zip.File("d/a", "hello"); });
  WriteFile(stage_ / "d" / "a", "theirs");
  EXPECT_EQ(ExtractIt(), "ZIP directory path collision on target filesystem");
  std::error_code code;
  ASSERT_TRUE(fs::RemoveTree(stage_ / "d", code));
  WriteFile(stage_ / "d", "a file");
  EXPECT_EQ(ExtractIt(), "ZIP directory path collision on target filesystem");
  ScanIt([](ZipBuilder& zip) { zip.File("a", "hello"); });
  WriteFile(stage_ / "a", "theirs");
  EXPECT_EQ(ExtractIt(), "cannot create extracted file exclusively: path already exists");
  EXPECT_EQ(ReadFile(stage_ / "a"), "theirs");
}

TEST_F(SecondPass, NeverLeavesTheStageWhateverTheRecordsSay) {
  ScanIt([](ZipBuilder& zip) { zip.File("a", "hello"); });
  ZipReader reader;
  std::string error;
  for (const char* path : {"../a", "d/../../a", "/a", ""}) {
    ASSERT_TRUE(OpenZipReader(PathToUtf8(archive_), reader, &error)) << error;
    ASSERT_EQ(reader.GoToFirstEntry(), kZipOk);
    ZipEntryRecord record = scan_.entries.at(0);
    record.path = path;
    record.unicode_path_used = true;  // so that the local header does not bring its own name
    ExtractionPass pass;
    EXPECT_FALSE(ExtractOneEntry(reader, record, stage_, pass, &error));
    EXPECT_EQ(error, "ZIP entry escapes extraction root") << path;
  }
  EXPECT_EQ(ListTree(stage_), "");
}

TEST(IsPathInsideRootFolded, ComparesComponents) {
  const struct {
    const char* root;
    const char* candidate;
    bool inside;
  } cases[] = {
      {"/a/b", "/a/b/c", true},  {"/a/b", "/A/B/c/d", true}, {"/a/b", "/a/b", false},
      {"/a/b", "/a/bc", false},  {"/a/b", "/a", false},      {"/a/b", "a/b/c", false},
      {"/a/б", "/a/Б/c", false}, {"/", "/a", true},          {"/a/b", "", false},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(IsPathInsideRootFolded(*PathFromUtf8(c.root), *PathFromUtf8(c.candidate)), c.inside)
        << c.root << " " << c.candidate;
  }
}

TEST(CreateUniqueSiblingDirectory, MakesNewNamesEachTime) {
  const TempFolder folder;
  fs::Path first;
  fs::Path second;
  std::string error;
  const fs::Path base = folder / "parent/base";
  ASSERT_TRUE(CreateUniqueSiblingDirectory(base, ".stage", first, &error)) << error;
  ASSERT_TRUE(CreateUniqueSiblingDirectory(base, ".stage", second, &error)) << error;
  EXPECT_NE(first, second);
  EXPECT_EQ(first.parent_path(), base.parent_path());
  EXPECT_TRUE(PathToUtf8(first.filename()).starts_with(".stage."));
  EXPECT_TRUE(PathToUtf8(first.filename()).ends_with(".0"));
  EXPECT_FALSE(Exists(base));
}

TEST(CheckFreeSpaceForExtraction, ComparesWithTheVolume) {
  const TempFolder folder;
  std::string error;
  EXPECT_TRUE(CheckFreeSpaceForExtraction(folder.path(), 0, &error)) << error;
  EXPECT_FALSE(CheckFreeSpaceForExtraction(folder.path(), UINT64_MAX, &error));
  EXPECT_TRUE(error.starts_with(
      "not enough disk space for ZIP extraction: required 18446744073709551615 bytes, available "));
  EXPECT_FALSE(CheckFreeSpaceForExtraction(folder / "missing", 0, &error));
  EXPECT_TRUE(error.starts_with("cannot determine free space for ZIP extraction: "));
}

TEST(CommitExtractionDirectory, RestoresTheOldTreeWhenTheNewOneCannotBePublished) {
  const TempFolder folder;
  const fs::Path destination = folder / "out/tree";
  WriteFile(destination / "d" / "old.txt", "old");
  const auto no_sleep = [](std::chrono::milliseconds) { ADD_FAILURE() << "slept"; };
  std::string error;
  EXPECT_FALSE(CommitExtractionDirectory(folder / "no stage", destination, &error, no_sleep));
  EXPECT_TRUE(error.starts_with("Cannot finalize extraction directory: code=2, message='"))
      << error;
  EXPECT_EQ(error.find("rollback"), std::string::npos);
  EXPECT_EQ(ListTree(folder / "out"), "tree/\ntree/d/\ntree/d/old.txt\n");
  EXPECT_EQ(ReadFile(destination / "d" / "old.txt"), "old");
}

}  // namespace
}  // namespace zul

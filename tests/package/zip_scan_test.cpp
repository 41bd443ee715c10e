#include "package/zip_scan.h"

#include <gtest/gtest.h>

#include <functional>
#include <limits>
#include <string>
#include <vector>

#include "core/text.h"
#include "tests/support/temp_folder.h"
#include "tests/support/zip_builder.h"

namespace zul {
namespace {

using test::TempFolder;
using test::UnicodePathExtra;
using test::ZipBuilder;
using test::ZipEndField;
using test::ZipExtra;
using test::ZipField;

struct Scan {
  bool accepted = false;
  ZipScanResult result;
  std::string error;

  // "path size" of each file, or the message.
  [[nodiscard]] std::string Summary() const {
    if (!accepted) return error;
    std::string text;
    for (const ZipEntryRecord& entry : result.entries) {
      text += entry.path + " " + std::to_string(entry.uncompressed_size) + "\n";
    }
    return text;
  }
};

Scan ScanBytes(const std::string& bytes) {
  static const TempFolder folder;  // one for the thousand archives of a run
  const fs::Path path = folder / "package.zip";
  test::WriteFile(path, bytes);
  Scan scan;
  scan.accepted = ScanZipArchive(PathToUtf8(path), scan.result, &scan.error);
  return scan;
}

Scan ScanOf(const std::function<void(ZipBuilder&)>& build) {
  ZipBuilder zip;
  build(zip);
  return ScanBytes(zip.Build());
}

struct Case {
  const char* what;
  std::function<void(ZipBuilder&)> build;
  std::string expected;  // as Scan::Summary has it
};

void ExpectAll(const std::vector<Case>& cases) {
  for (const Case& c : cases) {
    EXPECT_EQ(ScanOf(c.build).Summary(), c.expected) << c.what;
  }
}

TEST(ScanZipArchive, RecordsWhatTheDirectorySays) {
  const std::string legacy = "\x8E\xE2\xE7\xF1\xE2.txt";
  const Scan scan = ScanOf([&](ZipBuilder& zip) {
    zip.Directory("dir/");
    zip.File("dir\\a.txt", std::string(1000, 'a')).Deflated().Both(ZipField::kFlags, 2);
    zip.File("__MACOSX/a.txt", std::string(50, 'm'));
    zip.File(legacy, "hello").Extra(UnicodePathExtra(legacy, "Отчёт.txt"));
  });
  ASSERT_TRUE(scan.accepted) << scan.error;
  EXPECT_EQ(scan.result.central_entry_count, 4u);
  EXPECT_EQ(scan.result.total_uncompressed_bytes, 1005u);
  ASSERT_EQ(scan.result.entries.size(), 2u);
  const ZipEntryRecord& a = scan.result.entries[0];
  EXPECT_EQ(a.path, "dir/a.txt");
  EXPECT_EQ(a.raw_name, "dir\\a.txt");
  EXPECT_EQ(a.central_index, 1u);
  EXPECT_EQ(a.flags, 2);
  EXPECT_EQ(a.compression_method, 8);
  EXPECT_LT(a.compressed_size, a.uncompressed_size);
  EXPECT_EQ(a.local_header_offset, 34);
  EXPECT_FALSE(a.is_directory || a.unicode_path_used);
  const ZipEntryRecord& b = scan.result.entries[1];
  EXPECT_EQ(b.path, "Отчёт.txt");
  EXPECT_TRUE(b.unicode_path_used);
  EXPECT_EQ(b.central_index, 3u);
  EXPECT_EQ(b.crc32, 0x3610A686u);
}

TEST(ScanZipArchive, AcceptsWhatHonestWritersMake) {
  ExpectAll({
      {"no entry at all", [](ZipBuilder&) {}, ""},
      {"only a directory", [](ZipBuilder& zip) { zip.Directory("d/"); }, ""},
      {"a comment", [](ZipBuilder& zip) { zip.Comment("made by hand").File("a", "x"); }, "a 1\n"},
      {"a stub in front",
       [](ZipBuilder& zip) { zip.Prefix(std::string(70000, 'M')).File("a", "x"); }, "a 1\n"},
      {"bytes behind", [](ZipBuilder& zip) { zip.Suffix("trailing").File("a", "x"); }, "a 1\n"},
      {"sizes in a descriptor",
       [](ZipBuilder& zip) {
         zip.File("a", "xyz").Streamed();
         zip.File("b", "xyz").Deflated().Streamed();
         zip.File("c", "xyz").Deflated().Streamed().Zip64();
       },
       "a 3\nb 3\nc 3\n"},
      {"Zip64 throughout",
       [](ZipBuilder& zip) {
         zip.Zip64End().File("a", "xy").Zip64();
         zip.File("b", "xyz").Deflated().Zip64().Extra(ZipExtra(0x5455, "time"));
       },
       "a 2\nb 3\n"},
      {"a long extra field",
       [](ZipBuilder& zip) {
         zip.File("a", "xy").Extra(ZipExtra(0x9999, std::string(60000, 'e'))).Zip64();
       },
       "a 2\n"},
  });
}

TEST(ScanZipArchive, RefusesDamagedContainers) {
  ZipBuilder zip;
  zip.File("a.txt", "hello");
  zip.File("b.txt", "world").Deflated();
  const std::string good = zip.Build();
  const std::size_t end_record = good.size() - 22;
  EXPECT_EQ(ScanBytes("").Summary(), "ZIP end record not found");
  EXPECT_EQ(ScanBytes("<html>503</html>").Summary(), "ZIP end record not found");
  EXPECT_EQ(ScanBytes(std::string(200000, 'x')).Summary(), "ZIP end record not found");
  EXPECT_EQ(ScanBytes(good.substr(0, end_record)).Summary(), "ZIP end record not found");
  EXPECT_EQ(ScanBytes(good.substr(end_record - 40)).Summary(),
            "invalid ZIP central directory: end of stream");
  // Cut anywhere, and with any byte changed, an archive is refused or read, and nothing else.
  for (std::size_t size = 0; size < good.size(); ++size) {
    EXPECT_FALSE(ScanBytes(good.substr(0, size)).accepted) << size;
  }
  for (std::size_t at = 0; at < good.size(); ++at) {
    for (const char change : {'\x01', '\x80', '\xFF'}) {
      std::string bytes = good;
      bytes[at] = static_cast<char>(bytes[at] ^ change);
      const Scan scan = ScanBytes(bytes);
      EXPECT_NE(scan.accepted, !scan.error.empty()) << at;
    }
  }
  Scan missing;
  EXPECT_FALSE(ScanZipArchive("/no/such/package.zip", missing.result, &missing.error));
  EXPECT_EQ(missing.error, "cannot open ZIP");
  EXPECT_FALSE(ScanZipArchive("/no/such/package.zip", missing.result, nullptr));
}

TEST(ScanZipArchive, RefusesCountsAndPositionsThatDoNotHold) {
  const auto two_files = [](ZipBuilder& zip) {
    zip.File("a", "x");
    zip.File("b", "y");
  };
  const auto declare = [&](std::uint64_t count, bool zip64) {
    return [=](ZipBuilder& zip) {
      two_files(zip);
      if (zip64) zip.Zip64End();
      zip.End(ZipEndField::kEntries, count).End(ZipEndField::kEntriesOnDisk, count);
    };
  };
  const std::string too_many = "ZIP entry count does not match central directory";
  const std::string too_few = "ZIP central directory is incomplete";
  const std::string bad_directory = "invalid ZIP central directory: invalid format";
  const std::string bad_local = "cannot open ZIP local entry: invalid format";
  ExpectAll({
      {"one less", declare(1, false), too_many},
      {"none", declare(0, false), too_many},
      {"one more", declare(3, false), too_few},
      {"one less, Zip64", declare(1, true), too_many},
      {"2^40, Zip64", declare(1ull << 40, true), too_few},
      {"2^62, Zip64", declare(1ull << 62, true),
       "ZIP central directory has too many entries for this system"},
      {"two counts",
       [&](ZipBuilder& zip) {
         two_files(zip);
         zip.End(ZipEndField::kEntries, 3);
       },
       bad_directory},
      {"a directory beyond the end",
       [&](ZipBuilder& zip) {
         two_files(zip);
         zip.End(ZipEndField::kDirectoryOffset, 0x7FFFFFFF).End(ZipEndField::kDirectorySize, 7);
       },
       "invalid ZIP central directory: end of stream"},
      {"a record without its signature",
       [](ZipBuilder& zip) {
         zip.File("a", "x");
         zip.File("b", "y").Central(ZipField::kSignature, 0x02014B51);
       },
       too_few},
      {"a name longer than the file",
       [](ZipBuilder& zip) { zip.File("a", "x").Central(ZipField::kNameLength, 0xFFFF); }, too_few},
      {"no local header there",
       [](ZipBuilder& zip) { zip.File("a", "x").Local(ZipField::kSignature, 0x04034B51); },
       bad_local},
      {"local header in the directory",
       [](ZipBuilder& zip) { zip.File("a", "x").Central(ZipField::kLocalOffset, 40); }, bad_local},
      {"local header beyond the end",
       [](ZipBuilder& zip) { zip.File("a", "x").Central(ZipField::kLocalOffset, 0x7FFFFFFF); },
       "cannot open ZIP local entry: end of stream"},
      {"local header beyond 2^62",
       [](ZipBuilder& zip) {
         zip.Prefix("stub").File("a", "x").Zip64().Central(ZipField::kLocalOffset, 1ull << 62);
       },
       "cannot open ZIP local entry: end of stream"},
      {"a negative size",
       [](ZipBuilder& zip) {
         zip.File("a", "x").Zip64().Central(ZipField::kCompressedSize, 1ull << 63);
       },
       too_few},
      {"data that reach into the directory",
       [](ZipBuilder& zip) { zip.File("a", "x").Both(ZipField::kCompressedSize, 100); }, bad_local},
      {"data of 2^62 bytes",
       [](ZipBuilder& zip) {
         zip.File("a", "x").Zip64().Both(ZipField::kCompressedSize, 1ull << 62);
       },
       bad_local},
      {"one entry inside another's data",
       [](ZipBuilder& zip) {
         zip.File("a", "x").Both(ZipField::kCompressedSize, 10);
         zip.File("b", "y");
       },
       bad_directory},
      {"two records of one local header",
       [](ZipBuilder& zip) {
         zip.File("a", "x");
         zip.File("b", "x").Central(ZipField::kLocalOffset, 0);
       },
       "local header filename does not match central directory"},
  });
}

TEST(ScanZipArchive, RefusesEntriesThatItCannotExtractSafely) {
  const std::string encrypted = "encrypted ZIP entries are not supported";
  const std::string multi_disk = "multi-disk ZIP is not supported";
  const auto with = [](ZipField field, std::uint64_t value) {
    return [=](ZipBuilder& zip) { zip.File("a", "x").Both(field, value); };
  };
  const std::uint64_t huge = std::numeric_limits<std::int64_t>::max();
  ExpectAll({
      {"password", with(ZipField::kFlags, 1), encrypted},
      {"AES method", with(ZipField::kMethod, 99), encrypted},
      {"AES record",
       [](ZipBuilder& zip) { zip.File("a", "x").CentralExtra(ZipExtra(0x9901, "1234567")); },
       encrypted},
      {"masked headers", with(ZipField::kFlags, 0x2000),
       "encrypted ZIP central directory is not supported"},
      {"deflate64", with(ZipField::kMethod, 9), "unsupported ZIP compression method"},
      {"LZMA", with(ZipField::kMethod, 14), "unsupported ZIP compression method"},
      {"entry on another disk", with(ZipField::kDiskNumber, 1), multi_disk},
      {"directory on another disk",
       [](ZipBuilder& zip) {
         zip.End(ZipEndField::kDirectoryDisk, 1).End(ZipEndField::kDisk, 1).File("a", "x");
       },
       multi_disk},
      {"climbing name", [](ZipBuilder& zip) { zip.File("../a", "x"); }, "unsafe ZIP entry path"},
      {"climbing directory", [](ZipBuilder& zip) { zip.Directory("../"); },
       "unsafe ZIP entry path"},
      {"name with a NUL", [](ZipBuilder& zip) { zip.File(std::string("a\0b", 3), "x"); },
       "unsafe ZIP entry path"},
      {"unsafe clutter", [](ZipBuilder& zip) { zip.File("__MACOSX/..", "x"); },
       "unsafe ZIP entry path"},
      {"no name", [](ZipBuilder& zip) { zip.File("", "x"); }, "unsafe ZIP entry path"},
      {"a total of more than 64 bits",
       [&](ZipBuilder& zip) {
         for (const char* name : {"a", "b", "c"}) {
           zip.File(name, "x").Zip64().Both(ZipField::kUncompressedSize, huge);
         }
       },
       "ZIP total uncompressed size overflows"},
      {"the first failing entry is reported",
       [](ZipBuilder& zip) {
         zip.File("a", "x").Local(ZipField::kMethod, 8);
         zip.File("b", "x").Both(ZipField::kFlags, 1);
       },
       "local header compression method does not match central directory"},
  });
}

TEST(CheckLocalHeader, ComparesEveryField) {
  const std::string legacy = "\x8E\xE2\xE7\xF1\xE2.txt";
  const std::string unicode = UnicodePathExtra(legacy, "имя.txt");
  const std::string name_differs = "local header filename does not match central directory";
  const std::string sizes_differ = "local header sizes or CRC do not match central directory";
  const auto local = [](ZipField field, std::uint64_t value) {
    return [=](ZipBuilder& zip) { zip.File("a", "xyz").Local(field, value); };
  };
  ExpectAll({
      {"method", local(ZipField::kMethod, 8),
       "local header compression method does not match central directory"},
      {"flags", local(ZipField::kFlags, 0x800),
       "local header flags do not match central directory"},
      {"CRC", local(ZipField::kCrc, 1), sizes_differ},
      {"compressed size", local(ZipField::kCompressedSize, 2), sizes_differ},
      {"uncompressed size", local(ZipField::kUncompressedSize, 4), sizes_differ},
      {"Zip64 size",
       [](ZipBuilder& zip) {
         zip.File("a", "xyz").Zip64().Local(ZipField::kUncompressedSize, 1ull << 33);
       },
       sizes_differ},
      {"zeros without bit 3",
       [](ZipBuilder& zip) { zip.File("a", "xyz").Streamed().Both(ZipField::kFlags, 0); },
       sizes_differ},
      {"bit 3 and some zeros",
       [](ZipBuilder& zip) {
         zip.File("a", "xyz").Streamed().Local(ZipField::kUncompressedSize, 3);
       },
       sizes_differ},
      {"bit 3 and right values",
       [](ZipBuilder& zip) { zip.File("a", "xyz").Both(ZipField::kFlags, 8); }, "a 3\n"},
      {"another name", [](ZipBuilder& zip) { zip.File("a", "x").LocalName("b"); }, name_differs},
      {"another case", [](ZipBuilder& zip) { zip.File("a", "x").LocalName("A"); }, name_differs},
      {"a longer name", [](ZipBuilder& zip) { zip.File("a", "x").LocalName("a/"); }, name_differs},
      {"Unicode path in both", [&](ZipBuilder& zip) { zip.File(legacy, "x").Extra(unicode); },
       "имя.txt 1\n"},
      {"in the central record only",
       [&](ZipBuilder& zip) { zip.File(legacy, "x").CentralExtra(unicode); }, "имя.txt 1\n"},
      {"in the local header only",
       [&](ZipBuilder& zip) { zip.File(legacy, "x").LocalExtra(unicode); }, "имя.txt 1\n"},
      {"two different ones",
       [&](ZipBuilder& zip) {
         zip.File(legacy, "x").CentralExtra(unicode).LocalExtra(UnicodePathExtra(legacy, "другое"));
       },
       name_differs},
      {"unsafe in the local header",
       [&](ZipBuilder& zip) { zip.File(legacy, "x").LocalExtra(UnicodePathExtra(legacy, "../x")); },
       name_differs},
      {"a directory in the local header",
       [&](ZipBuilder& zip) { zip.File(legacy, "x").LocalExtra(UnicodePathExtra(legacy, "d/")); },
       name_differs},
  });
}

TEST(CheckZipPathCollisions, FoldsAsciiAndNothingElse) {
  const std::string same_path = "ZIP entry path collision";
  const std::string two_spellings = "ZIP directory path collision";
  const std::string file_above = "ZIP file path conflicts with a child entry";
  const struct {
    std::vector<std::string> names;  // directories end in `/`
    std::string error;
  } cases[] = {
      {{"dir/a.txt", "dir/b.txt", "dir/"}, ""},
      {{"А.txt", "а.txt"}, ""},
      {{"a/b/c", "a/bb", "ab"}, ""},
      {{"a.txt", "A.TXT"}, same_path},
      {{"a", "a"}, same_path},
      {{"d/", "d/"}, same_path},
      {{"d", "D/"}, same_path},
      {{"Dir/a.txt", "dir/b.txt"}, two_spellings},
      {{"Dir/", "dir/b.txt"}, two_spellings},
      {{"x/Dir/a", "x/y/z", "X/y/q"}, two_spellings},
      {{"a/b/c/d", "a/B/e"}, two_spellings},
      {{"a/b/c/d", "a/b/e/", "a/b/E/f"}, two_spellings},
      {{"a", "A/b.txt"}, file_above},
      {{"A/b/c.txt", "A/b"}, file_above},
      {{"a/b/c/d", "a/b/c/e", "a/b"}, file_above},
  };
  for (const auto& c : cases) {
    std::vector<ZipEntryRecord> records;
    for (std::string name : c.names) {
      ZipEntryRecord& record = records.emplace_back();
      record.is_directory = name.ends_with('/');
      if (record.is_directory) name.pop_back();
      record.path = name;
    }
    std::string error;
    EXPECT_EQ(CheckZipPathCollisions(records, &error), c.error.empty());
    EXPECT_EQ(error, c.error) << testing::PrintToString(c.names);
  }
  // Clutter collides with nothing.
  EXPECT_EQ(ScanOf([](ZipBuilder& zip) {
              zip.File("__MACOSX/a", "x");
              zip.File("__macosx/A", "x");
              zip.File("a", "xy");
            }).Summary(),
            "a 2\n");
}

}  // namespace
}  // namespace zul

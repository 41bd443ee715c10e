#include "package/zip_names.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/zip_builder.h"

namespace zul {
namespace {

using test::UnicodePathExtra;
using test::ZipExtra;

std::string HighHalf() {
  std::string bytes;
  for (int byte = 0x80; byte <= 0xFF; ++byte) bytes += static_cast<char>(byte);
  return bytes;
}

// The expected texts are what Python's codecs make of the bytes 0x80 to 0xFF.
TEST(ZipLegacyNames, MapAsThePublishedTablesDo) {
  const LegacyZipName cp866 = DecodeLegacyZipName(HighHalf(), LegacyCodePage::kCp866);
  EXPECT_EQ(cp866.name,
            "АБВГДЕЖЗИЙКЛМНОПРСТУФХЦЧШЩЪЫЬЭЮЯабвгдежзийклмноп"
            "░▒▓│┤╡╢╖╕╣║╗╝╜╛┐└┴┬├─┼╞╟╚╔╩╦╠═╬╧╨╤╥╙╘╒╓╫╪┘┌█▄▌▐▀"
            "рстуфхцчшщъыьэюяЁёЄєЇїЎў°∙·√№¤■\u00A0");
  EXPECT_EQ(cp866.score, 84);
  const LegacyZipName windows1251 = DecodeLegacyZipName(HighHalf(), LegacyCodePage::kWindows1251);
  EXPECT_EQ(windows1251.name,
            "ЂЃ‚ѓ„…†‡€‰Љ‹ЊЌЋЏђ‘’“”•–—\uFFFD™љ›њќћџ\u00A0ЎўЈ¤Ґ¦§Ё©Є«¬\u00AD®Ї°±Ііґµ¶·ё№є»јЅѕї"
            "АБВГДЕЖЗИЙКЛМНОПРСТУФХЦЧШЩЪЫЬЭЮЯабвгдежзийклмнопрстуфхцчшщъыьэюя");
  EXPECT_EQ(windows1251.score, 762);
}

TEST(ZipLegacyNames, ScoreTellsFileNamesFromAccidents) {
  const struct {
    std::string_view bytes;
    int score;
  } cases[] = {
      {"Az09 ()-./[\\]_", 28}, {"!#$%&'+,;=@^`{}~\"*<>?|", 0},   {":", -4}, {"\x1F", -40},
      {"\x7F", -40},           {std::string_view("\0", 1), -40},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(DecodeLegacyZipName(c.bytes, LegacyCodePage::kCp866).score, c.score) << c.bytes;
  }
}

TEST(DecodeZipEntryName, PrefersUtf8ThenUnicodePathThenTheLikelierCodePage) {
  const std::string legacy = "\x8E\xE2\xE7\xF1\xE2.txt";  // "Отчёт.txt" in CP866
  const std::string wrong_version = UnicodePathExtra(legacy, "x").replace(4, 1, "\x02");
  struct Case {
    const char* what;
    std::string raw;
    std::string extra;
    std::string name;
    bool unicode_path_used = false;
  };
  const std::vector<Case> cases = {
      {"empty", "", UnicodePathExtra("", "x"), ""},
      {"ASCII", "a/b.txt", UnicodePathExtra("a/b.txt", "x"), "a/b.txt"},
      {"UTF-8", "жук.txt", UnicodePathExtra("жук.txt", "x"), "жук.txt"},
      {"CP866", legacy, "", "Отчёт.txt"},
      {"Windows-1251", "\xCE\xF2\xF7\xB8\xF2.txt", "", "Отчёт.txt"},
      {"Windows-1251 that is box drawing in CP866", "\xCF\xD0\xCE\xD4\xC8\xCB\xDC", "", "ПРОФИЛЬ"},
      {"a tie", "caf\xE9.txt", "", "cafщ.txt"},
      {"Unicode path", legacy, UnicodePathExtra(legacy, "имя"), "имя", true},
      {"behind another record", legacy, ZipExtra(7, "zz") + UnicodePathExtra(legacy, "и"), "и",
       true},
      {"behind one for other bytes", legacy,
       UnicodePathExtra("other", "no") + UnicodePathExtra(legacy, "yes"), "yes", true},
      {"for other bytes", legacy, UnicodePathExtra("other", "no"), "Отчёт.txt"},
      {"of another version", legacy, wrong_version, "Отчёт.txt"},
      {"without a name", legacy, UnicodePathExtra(legacy, ""), "Отчёт.txt"},
      {"not UTF-8", legacy, UnicodePathExtra(legacy, "\xC0\x80"), "Отчёт.txt"},
      {"with a NUL", legacy, UnicodePathExtra(legacy, std::string_view("a\0b", 3)), "Отчёт.txt"},
      {"too short", legacy,
       ZipExtra(0x7075,
                "\x01"
                "abc"),
       "Отчёт.txt"},
      {"cut off", legacy, UnicodePathExtra(legacy, "имя").substr(0, 12), "Отчёт.txt"},
      {"behind a record that runs past the end", legacy,
       ZipExtra(7, "").replace(2, 1, "\xFF") + UnicodePathExtra(legacy, "и"), "Отчёт.txt"},
  };
  for (const Case& c : cases) {
    const DecodedZipName decoded = DecodeZipEntryName(c.raw, c.extra);
    EXPECT_EQ(decoded.name, c.name) << c.what;
    EXPECT_EQ(decoded.unicode_path_used, c.unicode_path_used) << c.what;
  }
}

TEST(NormalizeZipEntryPath, AcceptsPlainRelativePathsOnly) {
  const struct {
    std::string_view name;
    std::string_view path;  // empty: refused
  } cases[] = {
      {"a.txt", "a.txt"},
      {"a\\b/c.txt", "a/b/c.txt"},
      {"dir/", "dir"},
      {"dir\\sub\\", "dir/sub"},
      {".hidden", ".hidden"},
      {"...a", "...a"},
      {"жук/имя.icc", "жук/имя.icc"},
      {"conx", "conx"},
      {"xcon", "xcon"},
      {"com0", "com0"},
      {"com10", "com10"},
      {"com⁴", "com⁴"},
      {"", ""},
      {"/", ""},
      {"a//b", ""},
      {"dir//", ""},
      {"/a", ""},
      {"\\\\server\\share\\a", ""},
      {"C:a", ""},
      {"c:\\a", ""},
      {"1:a", ""},
      {".", ""},
      {"..", ""},
      {"a/../b", ""},
      {"a/..", ""},
      {"..\\a", ""},
      {"a/./b", ""},
      {"a.txt.", ""},
      {"a.txt ", ""},
      {"dir /a", ""},
      {"dir./a", ""},
      {"a.txt:stream", ""},
      {"a\"b", ""},
      {"a*b", ""},
      {"a<b", ""},
      {"a>b", ""},
      {"a?b", ""},
      {"a|b", ""},
      {"a\x1F"
       "b",
       ""},
      {"a\x7F"
       "b",
       ""},
      {std::string_view("a.exe\0.txt", 10), ""},
      {"CON", ""},
      {"con.txt", ""},
      {"NUL.tar.gz", ""},
      {"nul .txt", ""},
      {"a/Aux", ""},
      {"PRN/a", ""},
      {"com1", ""},
      {"COM9.log", ""},
      {"lpt\u00B9", ""},
      {"com\u00B2.log", ""},
      {"LPT\u00B3", ""},
  };
  for (const auto& c : cases) {
    std::string path;
    const bool accepted =
        NormalizeZipEntryPath(std::string(c.name), IsZipDirectoryName(c.name), path);
    EXPECT_EQ(accepted, !c.path.empty()) << c.name;
    EXPECT_EQ(accepted ? path : "", c.path);
  }
  std::string path;
  EXPECT_FALSE(NormalizeZipEntryPath("dir/", false, path));
  EXPECT_FALSE(NormalizeZipEntryPath("dir", true, path));
}

TEST(IsArchiveMetadataPath, FindsClutterAnywhereInThePath) {
  for (const char* path : {"__MACOSX/x", "x/__macosx/y", ".DS_Store", "a/.ds_store", "._foo",
                           "a/._b/c.txt", "a\\._b", "__MACOSX"}) {
    EXPECT_TRUE(IsArchiveMetadataPath(path)) << path;
  }
  for (const char* path :
       {"x__MACOSX", "__MACOSX.txt", "a.DS_Store", ".DS_Store2", "a._b", ".", "_."}) {
    EXPECT_FALSE(IsArchiveMetadataPath(path)) << path;
  }
}

}  // namespace
}  // namespace zul

#include "package/zip_names.h"

#include <gtest/gtest.h>

#include <string>

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

// The expected texts are the bytes 0x80 to 0xFF as Python's codecs decode them.
TEST(DecodeLegacyZipName, FollowsThePublishedTables) {
  using namespace std::string_literals;
  const struct {
    LegacyCodePage code_page;
    std::string bytes, name;
    int score;
  } cases[] = {
      {LegacyCodePage::kCp866, HighHalf(),
       "АБВГДЕЖЗИЙКЛМНОПРСТУФХЦЧШЩЪЫЬЭЮЯабвгдежзийклмноп"
       "░▒▓│┤╡╢╖╕╣║╗╝╜╛┐└┴┬├─┼╞╟╚╔╩╦╠═╬╧╨╤╥╙╘╒╓╫╪┘┌█▄▌▐▀"
       "рстуфхцчшщъыьэюяЁёЄєЇїЎў°∙·√№¤■\u00A0",
       84},
      {LegacyCodePage::kWindows1251, HighHalf(),
       "ЂЃ‚ѓ„…†‡€‰Љ‹ЊЌЋЏђ‘’“”•–—\uFFFD™љ›њќћџ\u00A0ЎўЈ¤Ґ¦§Ё©Є«¬\u00AD®Ї°±Ііґµ¶·ё№є»јЅѕї"
       "АБВГДЕЖЗИЙКЛМНОПРСТУФХЦЧШЩЪЫЬЭЮЯабвгдежзийклмнопрстуфхцчшщъыьэюя",
       762},
      {LegacyCodePage::kCp866, "Az09 ()-./[\\]_", "Az09 ()-./[\\]_", 28},
      {LegacyCodePage::kCp866, "!#$%&'+,;=@^`{}~\"*<>?|", "!#$%&'+,;=@^`{}~\"*<>?|", 0},
      {LegacyCodePage::kCp866, ":\x1F\x7F\0"s, ":\x1F\x7F\0"s, -124},
  };
  for (const auto& c : cases) {
    const LegacyZipName decoded = DecodeLegacyZipName(c.bytes, c.code_page);
    EXPECT_EQ(decoded.name, c.name);
    EXPECT_EQ(decoded.score, c.score) << c.name;
  }
}

// tests/rig/hostile_archives.py has the plain encodings and complete Unicode paths.
TEST(DecodeZipEntryName, PrefersAUnicodePathToTheMoreLikelyCodePage) {
  const std::string legacy = "\x8E\xE2\xE7\xF1\xE2.txt";  // "Отчёт.txt" in CP866
  const std::string unicode = UnicodePathExtra(legacy, "и");
  const struct {
    const char* what;
    std::string raw, extra, name;
    bool unicode_path_used = false;
  } cases[] = {
      {"empty", "", UnicodePathExtra("", "x"), ""},
      {"Windows-1251 that is box drawing in CP866", "\xCF\xD0\xCE\xD4\xC8\xCB\xDC", "", "ПРОФИЛЬ"},
      {"a tie", "caf\xE9.txt", "", "cafщ.txt"},
      {"after another record", legacy, ZipExtra(7, "zz") + unicode, "и", true},
      {"after one for other bytes", legacy, UnicodePathExtra("other", "no") + unicode, "и", true},
      {"with an empty name", legacy, UnicodePathExtra(legacy, ""), "Отчёт.txt"},
      {"not UTF-8", legacy, UnicodePathExtra(legacy, "\xC0\x80"), "Отчёт.txt"},
      {"too short", legacy, ZipExtra(0x7075, "\1abc"), "Отчёт.txt"},
      {"cut off", legacy, unicode.substr(0, unicode.size() - 1), "Отчёт.txt"},
      {"after a record that extends past the end", legacy,
       ZipExtra(7, "").replace(2, 1, "\xFF") + unicode, "Отчёт.txt"},
  };
  for (const auto& c : cases) {
    const DecodedZipName decoded = DecodeZipEntryName(c.raw, c.extra);
    EXPECT_EQ(decoded.name, c.name) << c.what;
    EXPECT_EQ(decoded.unicode_path_used, c.unicode_path_used) << c.what;
  }
}

}  // namespace
}  // namespace zul

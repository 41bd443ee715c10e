// The advice for refusals, and what an inspection says about a package.
// tests/inspect/hostile_table.py compares its verdicts with those of the package room.

#include <gtest/gtest.h>

#include <regex>
#include <set>

#include "core/deployment.h"
#include "core/text.h"
#include "inspect/package_advice.h"
#include "inspect/package_inspection.h"
#include "tests/support/temp_folder.h"
#include "tests/support/zip_builder.h"

namespace zul {
namespace {

/// The beginnings of all messages in the sources of a room: the texts that are given to Fail, and
/// the constants and strings that such a text begins with.
std::set<std::string> MessagesOf(std::string_view room) {
  const std::regex literal(
      R"re((?:Fail\(\s*(?:error_?),\s*|string_view k\w+ =\s*|message = |refusal = |[?:] )"([A-Za-z][^"\\\n]{13,})")re");
  std::set<std::string> messages;
  std::error_code ec;
  const fs::Path folder = PathOrEmpty(QORVA_SOURCES) / room;
  for (const fs::DirectoryEntry& file : fs::ListDirectory(folder, ec)) {
    if (file.path.extension() != ".cpp") continue;
    const std::string text = test::ReadFile(file.path);
    for (std::sregex_iterator match(text.begin(), text.end(), literal), end; match != end;
         ++match) {
      messages.insert((*match)[1]);
    }
  }
  return messages;
}

TEST(PackageAdvice, HasARowForEveryRefusalAndNoOther) {
  std::set<std::string> messages = MessagesOf("package");
  messages.insert("Update package exceeds maximum allowed size");  // of the download
  messages.insert("cannot create extracted file exclusively: path already exists");
  EXPECT_GT(messages.size(), 60u);
  for (const std::string& message : messages) {
    EXPECT_NE(FindPackageAdvice(message), nullptr) << message;
  }
  for (const PackageAdvice& row : PackageAdviceTable()) {
    const bool emitted = std::any_of(messages.begin(), messages.end(), [&row](const auto& message) {
      return FindPackageAdvice(message) == &row;
    });
    EXPECT_TRUE(emitted) << "no message reaches the row '" << row.beginning << "'";
    EXPECT_TRUE(row.advice.ends_with('.')) << row.advice;
  }
}

ZipEntryRecord Entry(const char* path, std::int64_t size = 1, bool is_link = false) {
  ZipEntryRecord entry;
  entry.path = path;
  entry.uncompressed_size = size;
  entry.is_link = is_link;
  return entry;
}

TEST(PayloadFacts, SayWhatIsInstalledAndWhatIsNot) {
  const std::string deep = "d/" + std::string(234, 'n'),
                    cyrillic = std::string("ж/") + std::string(235, 'n');
  const PayloadFacts facts = DescribePayload(
      {Entry("Q/qorva.EXE", 10), Entry("Q/b/c.dll", 4, true), Entry(("Q/" + deep).c_str()),
       Entry(("Q/" + cyrillic).c_str()), Entry("readme"), Entry("Qx/a")},
      "Q");
  EXPECT_EQ(facts.files, 4u);
  EXPECT_EQ(facts.bytes, 16u);
  const RoomNeeded room = RoomFor(1000, 100, facts);
  EXPECT_EQ(room.temporary, 1100u + 4 * 4096) << "a file takes whole clusters";
  EXPECT_EQ(room.installation, 4u * 4096);
  EXPECT_EQ(JoinText(facts.beside_wrapper, " "), "readme Qx/a");
  EXPECT_EQ(JoinText(facts.links, " "), "b/c.dll");
  EXPECT_EQ(JoinText(facts.binaries, " "), "qorva.EXE b/c.dll");
  EXPECT_EQ(JoinText(facts.top_level_files, " "), "qorva.EXE");
  EXPECT_EQ(JoinText(facts.long_paths, " "), cyrillic) << "260 units; the other one has 259";
  EXPECT_EQ(JoinText(facts.removed_retired, " "),
            "zul_rip_gui.exe zul_rip.exe zul_updater.exe qorva_nest_bench.exe");
}

TEST(WindowsCollisions, AreFoundForTheLettersOfFileNames) {
  const std::pair<std::vector<ZipEntryRecord>, const char*> cases[] = {
      {{Entry("ж"), Entry("з"), Entry("д/a"), Entry("д/b"), Entry("×"), Entry("÷")}, ""},
      {{Entry("Ё"), Entry("ё")}, "cannot create extracted file exclusively: path already exists"},
      {{Entry("É"), Entry("é")}, "cannot create extracted file exclusively: path already exists"},
      {{Entry("Ž"), Entry("ž")}, "cannot create extracted file exclusively: path already exists"},
      {{Entry("Д/a"), Entry("д/b")}, "ZIP directory path collision on target filesystem"},
  };
  for (const auto& [entries, message] : cases) {
    const auto collision = FindWindowsCollision(entries);
    EXPECT_EQ(collision ? collision->message : "", message) << entries.front().path;
  }
}

/// An archive of a.txt, whose header and data have 36 bytes, and of an entry with this name. The
/// text `damage` in it is damaged.
std::string Packed(
    const char* name, void (*change)(test::ZipEntryBuilder& entry) = [](auto&) {},
    std::string_view damage = {}) {
  test::ZipBuilder zip;
  zip.File("a.txt", "x");
  change(zip.File(name, "hello"));
  std::string archive = zip.Build();
  if (!damage.empty()) archive[archive.find(damage)] ^= 1;
  return archive;
}

TEST(PackageInspection, NamesTheEntryThatIsRefused) {
  const std::pair<const char*, std::string> cases[] = {
      {"ZIP entry path collision", Packed("A.txt")},
      {"unsafe ZIP entry path", Packed("../b")},
      {"local header flags do not match central directory",
       Packed("b", [](auto& b) { b.Local(test::ZipField::kFlags, 2); })},
      {"ZIP entry CRC mismatch", Packed(
                                     "b", [](auto&) {}, "hello")},
      {"Not a ZIP archive", ""},
  };
  const test::TempFolder folder;
  for (const auto& [message, archive] : cases) {
    const fs::Path package = folder / (archive.empty() ? "p.bin" : "p.zip");
    test::WriteFile(package, archive);
    PackageInspection inspection;
    ASSERT_TRUE(InspectPackage(PathToUtf8(package), {"a.txt"}, &inspection, nullptr));
    ASSERT_TRUE(inspection.refusal) << message;
    EXPECT_EQ(inspection.refusal->message, message);
    ASSERT_EQ(inspection.refusal->entry.has_value(), !archive.empty()) << message;
    if (archive.empty()) continue;
    EXPECT_EQ(inspection.refusal->entry->central_index, 1u) << message;
    EXPECT_EQ(inspection.refusal->entry->local_header_offset, 36) << message;
  }
}

TEST(PackageInspection, EndsWithACommandLineToPaste) {
  const test::TempFolder folder;
  test::ZipBuilder zip;
  zip.File("Q/qorva_gui.exe", "MZ").Deflated();
  zip.File("._clutter", "");
  test::WriteFile(folder / "my package.zip", zip.Build());
  PackageInspection inspection;
  ASSERT_TRUE(InspectPackage(PathToUtf8(folder / "my package.zip"), {"qorva_gui.exe"}, &inspection,
                             nullptr));
  ASSERT_FALSE(inspection.refusal) << inspection.refusal->message;
  EXPECT_EQ(inspection.wrapper, "Q");
  EXPECT_EQ(JoinText(inspection.skipped_paths, " "), "._clutter");
  EXPECT_EQ(inspection.command_line,
            ExampleCommandLine("my package.zip", inspection.sha256, {"qorva_gui.exe"}, false));
  // Blanks in the name of the package would need escapes in a URL.
  const std::string hosts[] = {std::string(deployment::kDownloadHosts[1]),
                               std::string(deployment::kDownloadHosts[2])};
  EXPECT_EQ(
      ExampleCommandLine("my package.zip", "ab", {"x.exe", "y.dll"}, true),
      R"("C:\Program Files\QORVA\qorva_updater.exe" --pid=0 --download-url=https://)" + hosts[0] +
          "/PATH/package.zip --fallback-download-url=https://" + hosts[1] +
          R"(/PATH/package.zip --sha256=ab --target-dir="C:\Program Files\QORVA" )"
          R"(--restart-exe="C:\Program Files\QORVA\qorva_gui.exe" --required-payload-file=x.exe )"
          R"(--required-payload-file=y.dll --require-signed-payload-binaries=1)");
}

}  // namespace
}  // namespace zul

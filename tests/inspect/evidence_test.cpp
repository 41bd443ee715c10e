// What the inspector says about evidence and reports, and how it recognises a build.

#include <gtest/gtest.h>

#include "diagnostics/report_manifest.h"
#include "inspect/binary_identity.h"
#include "inspect/evidence_inspection.h"
#include "inspect/report_inspection.h"
#include "inspect/symbols.h"
#include "tests/support/temp_folder.h"

namespace zul {
namespace {

using nlohmann::json;

TEST(Evidence, IsReadAsASentence) {
  const struct {
    json record;
    bool ended_badly;
    const char* part;
  } cases[] = {
      {{{"event", "clean_exit"}, {"exit_code_known", true}, {"exit_code", 2}},
       false,
       "exit code 2."},
      {{{"event", "native_exception"}, {"exception_code", 0xC00000FD}}, true, "stack overflow"},
      {{{"event", "ui_hang"}, {"ui_heartbeat_age_ms", 45999}}, true, "answered for 45 s"},
      {{{"event", "process_exit_cause_unclassified"}}, true, "exit code unknown"},
      {{{"event", "process_exit_cause_unclassified"},
        {"exit_code_known", true},
        {"exit_code", 0x5A554C55}},
       true,
       "the user pressed Force close"},
      {{{"event", "observer_started"}, {"capture_status", "ready"}}, false, "still runs"},
      {{{"event", "observer_started"}, {"capture_status", "incomplete"}}, false, "ended together"},
      {{{"event", "teleported"}}, true, "'teleported'"},
      {json::array(), true, "''"},
  };
  for (const auto& c : cases) {
    const EvidenceFinding finding = DescribeEvidence(c.record);
    EXPECT_EQ(finding.ended_badly, c.ended_badly) << c.record;
    EXPECT_NE(finding.summary.find(c.part), std::string::npos) << finding.summary;
  }
}

TEST(Report, IsCheckedAgainstItsOwnPromises) {
  ReportRequest request;
  request.kind = "crash";
  request.reason = "cannot open 'C:\\Users\\eva\\x.psd'";
  request.details = {{"stage", "apply"}};
  const ReportFacts facts = {"", {{"version", "2"}}, {}, {}, "a line\n"};
  const json kept = BuildReportManifest(request, facts);
  const struct {
    const char* pointer;
    json value;
    const char* broken;
  } cases[] = {
      {"/details/stage", "restart", ""},
      {"/privacy/paths", "plain", "/privacy/paths: differs"},
      {"/privacy/dump_uploaded", true, "/privacy/dump_uploaded: is true"},
      {"/upload_contract/dump_uploaded", true, "/upload_contract/dump_uploaded: is true"},
      {"/app/install_dir_hash", "12", "/app/install_dir_hash: differs"},
      {"/breadcrumbs", json::array({{{"details", "C:\\Users\\eva\\x.psd"}}}),
       "/breadcrumbs/0/details: holds text"},
      {"/report_text", "sent to eva@example.org", "/report_text: holds text"},
      {"/compact_process_evidence", {{"pid", 7}}, "/compact_process_evidence/pid: is not"},
  };
  for (const auto& c : cases) {
    json report = kept;
    report[json::json_pointer(c.pointer)] = c.value;
    const std::vector<std::string> broken = BrokenPromises(report);
    const bool found = std::any_of(broken.begin(), broken.end(), [&c](const std::string& text) {
      return text.starts_with(c.broken);
    });
    EXPECT_EQ(found, *c.broken != '\0') << c.pointer;
    EXPECT_EQ(broken.empty(), *c.broken == '\0') << c.pointer;
  }
}

/// The headers of a 64-bit library: one section at 0x1000 of the image, at 0x200 of the file, which
/// holds the debug directory and the build id.
std::string Library() {
  std::string file(0x300, '\0');
  const auto put = [&file](std::size_t at, std::uint64_t value, std::size_t width) {
    for (std::size_t i = 0; i < width; ++i) file[at + i] = static_cast<char>(value >> 8 * i);
  };
  file.replace(0, 2, "MZ");
  put(60, 64, 4);
  file.replace(64, 2, "PE");
  put(64 + 6, 1, 2);     // sections
  put(64 + 8, 77, 4);    // time stamp
  put(64 + 20, 240, 2);  // size of the optional header
  put(88, 0x20B, 2);
  put(88 + 24, 0x140000000, 8);  // image base
  put(88 + 56, 0x2000, 4);       // image size
  put(88 + 144, 0x2F8, 4);       // certificates
  put(88 + 148, 8, 4);
  put(88 + 160, 0x1000, 4);  // debug directory
  put(88 + 164, 28, 4);
  put(328 + 12, 0x1000, 4);  // the section
  put(328 + 16, 0x100, 4);
  put(328 + 20, 0x200, 4);
  put(0x200 + 12, 2, 4);
  put(0x200 + 16, 24, 4);
  put(0x200 + 20, 0x1040, 4);
  file.replace(0x240, 4, "RSDS");
  put(0x244, 0xA1, 1);
  put(0x254, 3, 4);
  return file;
}

TEST(Build, IsRecognisedByItsBuildId) {
  const test::TempFolder folder;
  const fs::Path library = folder / "a.dll";
  test::WriteFile(library, Library());
  BinaryIdentity identity;
  ASSERT_TRUE(ReadBinaryIdentity(library, &identity));
  EXPECT_EQ(identity.image_base, 0x140000000u);
  EXPECT_EQ(identity.pdb_guid, "a1" + std::string(30, '0'));
  EXPECT_TRUE(identity.has_signature);
  StackFrame frame{.module = "a.dll", .pdb_guid = identity.pdb_guid, .pdb_age = 3, .symbol = {}};
  EXPECT_TRUE(IsBuildOf(frame, library));
  frame.pdb_age = 4;
  EXPECT_FALSE(IsBuildOf(frame, library)) << "another build of the same version";
  frame = {
      .module = "a.dll", .image_size = 0x2000, .image_timestamp = 77, .pdb_guid = {}, .symbol = {}};
  EXPECT_TRUE(IsBuildOf(frame, library)) << "a frame without a build id";
  for (std::size_t size = 0; size < Library().size(); size += 7) {  // a damaged file ends anywhere
    test::WriteFile(library, Library().substr(0, size));
    EXPECT_FALSE(ReadBinaryIdentity(library, &identity) && identity.has_signature) << size;
  }
}

}  // namespace
}  // namespace zul

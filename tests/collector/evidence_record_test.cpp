// The records on disk, and the form of them that may leave the machine.

#include "collector/evidence_record.h"

#include <gtest/gtest.h>

#include "collector/evidence_sanitizer.h"
#include "collector/module_record.h"
#include "tests/support/file_tricks.h"
#include "tests/support/temp_folder.h"

namespace zul {
namespace {

using nlohmann::json;
using test::ReadFile;
using test::WriteFile;

std::string Commit(const fs::Path& path, const json& record) {
  std::string error;
  return CommitEvidenceRecord(path, record, &error) ? "" : error;
}

std::string Read(const fs::Path& path, json* record) {
  std::string error;
  return ReadEvidenceRecord(path, record, &error) ? "" : error;
}

TEST(EvidenceRecord, IsReadAsItWasWritten) {
  const test::TempFolder folder;
  const fs::Path path = folder / "incident.json";
  json record = BuildBaseRecord({4321, "133500000000000000"}, 1769862605123);
  record["x"] = "caf\xE9";
  EXPECT_EQ(Commit(path, record), "");
  record["x"] = "caf\xEF\xBF\xBD";
  json read;
  EXPECT_EQ(Read(path, &read), "");
  EXPECT_EQ(read, record);
  const std::size_t rest = ReadFile(path).size() - 6;
  WriteFile(folder / "incident.json.partial", "left by a process that died");
  record["x"] = std::string(kEvidenceBytesMax - rest, 'x');
  EXPECT_EQ(Commit(path, record), "");
  record["x"] = std::string(kEvidenceBytesMax - rest + 1, 'x');
  EXPECT_EQ(Commit(path, record), "record_size_limit");
  EXPECT_EQ(Read(path, &read), "");
  EXPECT_EQ(test::ListTree(folder.path()), "incident.json\n");
}

TEST(EvidenceRecord, NeverPassesThroughALink) {
  const test::TempFolder folder;
  const test::TempFolder outside;
  const std::string sound = json{{"schema", kEvidenceSchema}}.dump();
  for (const fs::Path& path : {outside / "target", outside / "inner/record.json",
                               folder / "c.json.partial/x", folder / "folder.json/x"}) {
    WriteFile(path, sound);
  }
  WriteFile(folder / "big.json", sound + std::string(kEvidenceBytesMax, ' '));
  if (!test::MakeLink(outside.path(), folder / "link") ||
      !test::MakeLink(outside / "target", folder / "a.json.partial") ||
      !test::MakeLink(outside / "target", folder / "link.json")) {
    GTEST_SKIP() << "this user may not make links";
  }
  const bool wine = test::RunsUnderWine();  // it shows links to folders only
  const char* const unreadable = "record_missing_unsafe_or_oversized";
  const struct {
    const char* path;
    const char* read;
    const char* commit;  ///< null when not to be tried
  } cases[] = {
      {"link/inner/record.json", unreadable, "record_directory_unsafe"},
      {"a.json", unreadable, wine ? nullptr : "record_temporary_unsafe"},
      {"c.json", unreadable, "record_temporary_unsafe"},
      {"folder.json", unreadable, "record_commit_failed"},
      {"link.json", wine ? "" : unreadable, nullptr},
      {"big.json", unreadable, nullptr},
  };
  for (const auto& c : cases) {
    json record = {{"schema", kEvidenceSchema}, {"x", 1}};
    if (c.commit != nullptr) {
      EXPECT_EQ(Commit(folder / c.path, record), c.commit) << c.path;
    }
    EXPECT_EQ(Read(folder / c.path, &record), c.read) << c.path;
  }
  EXPECT_FALSE(test::Exists(folder / "folder.json.partial"));
  EXPECT_EQ(test::ListTree(outside.path()), "inner/\ninner/record.json\ntarget\n");
  EXPECT_EQ(ReadFile(outside / "target") + ReadFile(outside / "inner/record.json"), sound + sound);
}

TEST(EvidenceSanitizer, LetsOnlyWhatIsListedOut) {
  json source = json::parse(R"({"pid": 7, "process_identity": "9", "platform": "",
      "event": "ui_hang", "capture_error": "a blank", "exit_code": 3221225477, "thread_id": -1,
      "finalized": true, "memory_contents_uploaded": "all", "path": "C:\\Users\\jan", "frames": [
        {"module": "C:\\x.dll", "rva": 1, "address": 2, "module_resolved": true}, "C:\\Users"]})");
  json expected = json::parse(R"({"schema": "qorva.compact_process_evidence.v1",
      "event": "ui_hang", "exit_code": 3221225477, "finalized": true,
      "external_terminator_identified": false, "memory_contents_uploaded": false,
      "frames": [{"rva": 1, "module_resolved": true}]})");
  EXPECT_EQ(SanitizeEvidenceRecord(source), expected);
  source["frames"] = json(49, json{{"rva", 1}});
  expected["frames"] = json(48, json{{"rva", 1}});
  expected["frames_limited"] = true;
  EXPECT_EQ(SanitizeEvidenceRecord(source), expected);
}

TEST(ModuleName, IsToldOnlyWhereItSaysNothingPrivate) {
  const std::string longest(128, 'a');
  EXPECT_EQ(SanitizeModuleName("\\\\server\\share/A-b_9.DLL"), "A-b_9.DLL");
  EXPECT_EQ(SanitizeModuleName("C:\\x\\" + longest), longest);
  for (const std::string& path : {"C:\\x\\a" + longest, std::string("C:\\x\\Jana's filter.dll"),
                                  std::string("C:\\ž.dll"), std::string("C:x.dll")}) {
    EXPECT_EQ(SanitizeModuleName(path), "unnamed_module") << path;
  }
}

}  // namespace
}  // namespace zul

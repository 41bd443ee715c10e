#include "collector/evidence_record.h"

#include <gtest/gtest.h>

#include "collector/evidence_sanitizer.h"
#include "tests/support/file_tricks.h"
#include "tests/support/temp_folder.h"

namespace zul {
namespace {

using nlohmann::json;
using test::ReadFile;
using test::TempFolder;
using test::WriteFile;

const std::string kSchemaField = R"("schema":"qorva.compact_process_evidence.v1")";

std::string Commit(const fs::Path& path, const json& record) {
  std::string error;
  return CommitEvidenceRecord(path, record, &error) ? "" : error;
}

std::string Read(const fs::Path& path, json* record) {
  std::string error;
  return ReadEvidenceRecord(path, record, &error) ? "" : error;
}

TEST(EvidenceRecord, IsReadAsItWasWritten) {
  const TempFolder folder;
  const fs::Path path = folder / "incident.json";
  json record = BuildBaseRecord({4321, "133500000000000000"}, 1769862605123);
  record["x"] = "caf\xE9";
  EXPECT_EQ(Commit(path, record), "");
  record["x"] = "caf\xEF\xBF\xBD";
  json read;
  EXPECT_EQ(Read(path, &read), "");
  EXPECT_EQ(read, record);
  EXPECT_EQ(ReadFile(path), record.dump(2) + "\n");

  const std::size_t rest = ReadFile(path).size() - 6;
  WriteFile(folder / "incident.json.partial", "left by a process that died");
  record["x"] = std::string(kEvidenceBytesMax - rest, 'x');
  EXPECT_EQ(Commit(path, record), "");
  EXPECT_EQ(ReadFile(path).size(), kEvidenceBytesMax);
  record["x"] = std::string(kEvidenceBytesMax - rest + 1, 'x');
  EXPECT_EQ(Commit(path, record), "record_size_limit");
  EXPECT_EQ(Read(path, &read), "");
  EXPECT_EQ(test::ListTree(folder.path()), "incident.json\n");
}

TEST(EvidenceRecord, NeverPassesThroughALink) {
  const TempFolder folder;
  const TempFolder outside;
  const std::string sound = "{" + kSchemaField + "}";
  for (const char* name : {"target", "inner/record.json"}) WriteFile(outside / name, sound);
  for (const char* name : {"dir/record.json", "folder.json/x", "c.json.partial/x"}) {
    WriteFile(folder / name, sound);
  }
  WriteFile(folder / "big.json", sound + std::string(kEvidenceBytesMax, ' '));
  WriteFile(folder / "empty.json", "");
  if (!test::MakeLink(outside.path(), folder / "link") ||
      !test::MakeLink(outside / "target", folder / "a.json.partial") ||
      !test::MakeLink(outside / "nowhere", folder / "b.json.partial") ||
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
      {"dir/../dir/record.json", "", ""},
      {"missing/record.json", unreadable, "record_directory_unsafe"},
      {"empty.json/record.json", unreadable, "record_directory_unsafe"},
      {"link/inner/record.json", unreadable, "record_directory_unsafe"},
      {"a.json", unreadable, wine ? nullptr : "record_temporary_unsafe"},
      {"b.json", unreadable, wine ? nullptr : "record_temporary_unsafe"},
      {"c.json", unreadable, "record_temporary_unsafe"},
      {"folder.json", unreadable, "record_commit_failed"},
      {"link.json", wine ? "" : unreadable, nullptr},
      {"big.json", unreadable, nullptr},
      {"empty.json", "record_size_invalid", nullptr},
  };
  for (const auto& c : cases) {
    json record = {{"schema", kEvidenceSchema}};
    const std::string commit = c.commit == nullptr ? "" : Commit(folder / c.path, record);
    EXPECT_EQ(commit, c.commit == nullptr ? "" : c.commit) << c.path;
    EXPECT_EQ(Read(folder / c.path, &record), c.read) << c.path;
  }
  EXPECT_EQ(Commit("record.json", json::object()), "record_directory_unsafe");
  EXPECT_FALSE(test::Exists(folder / "folder.json.partial"));
  EXPECT_EQ(test::ListTree(outside.path()), "inner/\ninner/record.json\ntarget\n");
  EXPECT_EQ(ReadFile(outside / "target") + ReadFile(outside / "inner/record.json"), sound + sound);
}

TEST(EvidenceRecord, TakesOnlyWholeObjectsOfItsSchema) {
  const auto nested = [](std::size_t depth) {
    return "{" + kSchemaField + ",\"a\":" + std::string(depth, '[') + std::string(depth, ']') + "}";
  };
  const std::string other = R"("schema":["qorva.compact_process_evidence.v1"])";
  for (const std::string& text :
       {"{" + kSchemaField + "}\n", "{" + other + "," + kSchemaField + "}",
        nested(kEvidenceDepthMax - 1), BuildBaseRecord({1, "2"}, 3).dump()}) {
    EXPECT_TRUE(ParseEvidenceRecord(text)) << text;
    for (std::size_t size = 0; size + 1 < text.size(); ++size) {
      ASSERT_FALSE(ParseEvidenceRecord(text.substr(0, size))) << text.substr(0, size);
    }
  }
  for (const std::string& text :
       {"{" + kSchemaField + "} // comment", "{" + kSchemaField + "}" + std::string(1, '\0'),
        "[{" + kSchemaField + "}]", std::string("{}"), "{" + other + "}",
        "{" + kSchemaField + "," + other + "}", "{" + kSchemaField + ",\"x\":\"caf\xE9\"}",
        "{" + kSchemaField + ",\"x\":1e999}", nested(kEvidenceDepthMax + 1), nested(65000),
        std::string(kEvidenceBytesMax, '[')}) {
    EXPECT_FALSE(ParseEvidenceRecord(text)) << text.substr(0, 100);
  }
}

TEST(EvidenceSanitizer, LetsOnlyWhatIsListedOut) {
  const std::string long_word(128, 'w');
  json source = json::parse(R"({"schema": "x y", "pid": 7, "process_identity": "9", "arch": 64,
      "event": "ui_hang", "capture_error": "a blank", "platform": "", "exit_code": 3221225477,
      "thread_id": -1, "handle_count": 1.5, "exit_signal": "9", "finalized": true,
      "exit_code_known": 1, "memory_contents_uploaded": "all", "path": "C:\\Users\\jan", "frames": [
        {"module": "C:\\x.dll", "rva": 1, "address": 2, "module_resolved": true}, "C:\\Users",
        {"module": "x.dll", "pdb_guid": "\u017elu\u0165", "pdb_age": -1, "frames": []}]})");
  source["version"] = long_word;
  source["channel"] = long_word + "w";
  json expected = json::parse("{" + kSchemaField + R"(, "event": "ui_hang", "exit_code": 3221225477,
      "finalized": true, "external_terminator_identified": false, "memory_contents_uploaded": false,
      "frames": [{"rva": 1, "module_resolved": true}, {"module": "x.dll"}]})");
  expected["version"] = long_word;
  EXPECT_EQ(SanitizeEvidenceRecord(source), expected);

  source["frames"] = expected["frames"] = json(kEvidenceFramesMax, json{{"rva", 1}});
  EXPECT_EQ(SanitizeEvidenceRecord(source), expected);
  source["frames"].push_back({{"rva", 2}});
  source["frames_limited"] = false;
  expected["frames_limited"] = true;
  EXPECT_EQ(SanitizeEvidenceRecord(source), expected);
  EXPECT_EQ(SanitizeEvidenceRecord({{"frames", {{"module", "x"}}}}), SanitizeEvidenceRecord("x"));
}

}  // namespace
}  // namespace zul

// The records on disk, and the copy of them that may leave the machine.

#include <cstring>

#include "collector/evidence_sanitizer.h"
#include "collector/module_record.h"
#include "collector/safe_path.h"
#include "tests/collector/records.h"
#include "tests/support/file_tricks.h"
#include "tests/support/temp_folder.h"

namespace zul {
namespace {

using nlohmann::json;
using test::Commit;
using test::ReadFile;
using test::WriteFile;

std::string Read(const fs::Path& path, json* record) {
  std::string error;
  return ReadEvidenceRecord(path, record, &error) ? "" : error;
}

TEST(EvidenceRecord, IsWrittenAndReadWholeUpToItsSizeLimit) {
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
  WriteFile(folder / "incident.json.partial", "left by a process that ended during its commit");
  record["x"] = std::string(kEvidenceBytesMax - rest, 'x');
  EXPECT_EQ(Commit(path, record), "");
  record["x"] = std::string(kEvidenceBytesMax - rest + 1, 'x');
  EXPECT_EQ(Commit(path, record), "record_size_limit");
  EXPECT_EQ(Read(path, &read), "");
  EXPECT_EQ(test::ListTree(folder.path()), "incident.json\n");
}

TEST(EvidenceRecord, IsNeverReadOrWrittenThroughALink) {
  const test::TempFolder folder, outside;
  const std::string valid = json{{"schema", kEvidenceSchema}}.dump();
  for (const fs::Path& path : {outside / "target", outside / "inner/record.json",
                               folder / "c.json.partial/x", folder / "folder.json/x"}) {
    WriteFile(path, valid);
  }
  WriteFile(folder / "big.json", valid + std::string(kEvidenceBytesMax, ' '));
  if (!test::MakeLink(outside.path(), folder / "link") ||
      !test::MakeLink(outside / "target", folder / "a.json.partial") ||
      !test::MakeLink(outside / "target", folder / "link.json")) {
    GTEST_SKIP() << test::kNoLinks;
  }
  const bool wine = test::RunsUnderWine();  // where only links to folders show as links
  const char* const unreadable = "record_missing_unsafe_or_oversized";
  const struct {
    const char *path, *read, *commit;  ///< a null commit is not tried
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
  EXPECT_EQ(Commit("./relative.json", {}), "record_directory_unsafe");
  EXPECT_FALSE(test::Exists(folder / "folder.json.partial"));
  EXPECT_EQ(test::ListTree(outside.path()), "inner/\ninner/record.json\ntarget\n");
  EXPECT_EQ(ReadFile(outside / "target") + ReadFile(outside / "inner/record.json"), valid + valid);
}

TEST(SafePath, EndsAtTheRootOfAShare) {
  for (const char* root : {"\\\\server\\share", "//server/share/", "\\\\10.0.0.1\\users$"}) {
    EXPECT_TRUE(IsShareRoot(root)) << root;
  }
  for (const char* other : {"\\\\server", "\\\\server\\", "\\\\server\\share\\x", "\\server\\share",
                            "\\\\?\\C:", "\\\\.\\C:", "C:\\x", "\\\\", "", "\\\\\\server\\share"}) {
    EXPECT_FALSE(IsShareRoot(other)) << other;
  }
}

TEST(EvidenceSanitizer, CopiesOnlyAllowedKeysWithValuesOfTheirType) {
  const json promises = {{"schema", kEvidenceSchema},
                         {"external_terminator_identified", false},
                         {"memory_contents_uploaded", false}};
  json allowed = json::parse(R"({"event": "ui_hang", "capture_status": "partial",
      "capture_error": "A-z_0.9", "platform": "windows", "version": "0.1.0", "build_id": "dev",
      "channel": "stable", "arch": "x64", "exit_status_kind": "k", "exception_code": 3221225477,
      "thread_id": 0, "observed_at_unix_ms": 1769862605123, "exit_code": 1, "exit_signal": 2,
      "process_uptime_ms": 3, "working_set_bytes": 4, "private_bytes": 5, "handle_count": 6,
      "thread_count": 7, "ui_heartbeat_age_ms": 8, "capture_duration_ms": 9, "finalized": true,
      "clean_shutdown_intent": true, "exit_code_known": true, "exception_observed": true,
      "frames_limited": false, "live_stack_best_effort": true, "frames": [{"module": "x.dll",
      "pdb_guid": "0f", "rva": 1, "image_size": 2, "image_timestamp": 3, "pdb_age": 4,
      "module_resolved": true}]})");
  json source = allowed;
  source.update({{"pid", 7}, {"process_identity", "9"}, {"memory_contents_uploaded", "all"}});
  source["frames"][0]["address"] = 2;
  source["frames"].push_back("C:\\Users");
  allowed.update(promises);
  EXPECT_EQ(SanitizeEvidenceRecord(source), allowed);
  allowed["frames"] = json(48, json{{"rva", 1}});
  for (const std::size_t frames : {48u, 49u}) {
    source["frames"] = json(frames, json{{"rva", 1}});
    allowed["frames_limited"] = frames > 48;
    EXPECT_EQ(SanitizeEvidenceRecord(source), allowed);
  }
  for (const json& wrong : {json("a blank"), json(""), json(-1), json(0.5)}) {
    for (const auto& [key, value] : allowed.items()) source[key] = wrong;
    EXPECT_EQ(SanitizeEvidenceRecord(source), promises) << wrong;
  }
}

TEST(ModuleRecord, NamesAFrameOnlyByAModuleWithAHarmlessName) {
  const std::string longest(128, 'a');
  EXPECT_EQ(SanitizeModuleName("\\\\server\\share/A-b_9.DLL"), "A-b_9.DLL");
  EXPECT_EQ(SanitizeModuleName("C:\\x\\" + longest), longest);
  for (const std::string& path : {"C:\\x\\a" + longest, std::string("C:\\x\\Jana's filter.dll"),
                                  std::string("C:\\ž.dll"), std::string("C:x.dll")}) {
    EXPECT_EQ(SanitizeModuleName(path), "unnamed_module") << path;
  }
  const std::vector<ModuleRecord> modules = {{.base = 16, .image_size = 8, .name = "a"},
                                             {.base = 20, .image_size = 8, .name = "b"}};
  const std::pair<std::uint64_t, const char*> cases[] = {
      {15, "-"}, {16, "a"}, {23, "a"}, {24, "b"}, {28, "-"}};
  for (const auto& [address, module] : cases) {
    EXPECT_EQ(FrameRecord(modules, address).value("module", "-"), module) << address;
  }
}

TEST(ModuleRecord, TakesItsBuildFromTheFirstCodeViewEntry) {
  // DOS and PE headers, a debug directory of two entries at 512, a CodeView record at 768.
  const std::pair<std::size_t, std::uint32_t> words[] = {
      {0, 0x5A4D}, {60, 128},  {128, 0x4550}, {136, 0x11223344}, {312, 512}, {316, 56}, {524, 4},
      {528, 24},   {532, 512}, {552, 2},      {556, 24},         {560, 768}, {788, 7}};
  std::string image(792, 'g');
  for (const auto& [at, word] : words) std::memcpy(image.data() + at, &word, sizeof word);
  image.replace(768, 4, "RSDS");
  ModuleRecord module{.base = 16, .image_size = image.size()};
  const auto read = [&](std::uint64_t address, void* to, std::size_t size) {
    return image.copy(static_cast<char*>(to), size, address - 16) == size;
  };
  ReadModuleIdentity(read, &module);
  EXPECT_EQ(module.image_timestamp, 0x11223344u);
  EXPECT_EQ(module.pdb_guid, "67676767676767676767676767676767");
  EXPECT_EQ(module.pdb_age, 7u);
}

}  // namespace
}  // namespace zul

#include "collector/emergency_record.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "tests/support/file_tricks.h"
#include "tests/support/temp_folder.h"

namespace zul {
namespace {

using nlohmann::json;

/// The incident record of a session whose emergency.bin holds `bytes`.
json Merged(const fs::Path& session, std::string_view bytes) {
  test::WriteFile(session / "emergency.bin", bytes);
  json record = json::object();
  ReadEmergencyFile(session, &record);
  return record;
}

TEST(EmergencyRecord, IsReadFromDiskWhenItIsThereWhole) {
  const test::TempFolder folder;
  std::error_code ec;
  fs::File file = CreateEmergencyFile(folder.path(), ec);
  EXPECT_EQ(test::ReadFile(folder / "emergency.bin"), "");  // others may read meanwhile
  EXPECT_FALSE(CreateEmergencyFile(folder.path(), ec).is_open());
  EmergencyRecord crash;
  crash.exception_code = 0xC0000005;
  crash.thread_id = 77;
  crash.kind = 1;
  crash.instruction_pointer = 0x1122334455667788;
  crash.context.back() = std::byte{0x5A};
  ASSERT_TRUE(WriteEmergencyRecord(file, crash));
  file = fs::File();
  EXPECT_FALSE(WriteEmergencyRecord(file, crash));
  const std::string head(
      "EDVQ\xF0\x04\0\0\x05\0\0\xC0\x4D\0\0\0\x01\0\0\0\0\0\0\0\x88\x77\x66\x55\x44\x33\x22\x11",
      32);
  const std::string bytes = head + std::string(1231, '\0') + "\x5A";
  EXPECT_EQ(test::ReadFile(folder / "emergency.bin"), bytes);
  for (const char kind : {'\1', '\2', '\3'}) {
    std::string copy = bytes;
    copy[16] = kind;
    const json expected = {{"event", kind == 2 ? "std_terminate" : "native_exception"},
                           {"exception_observed", true},
                           {"exception_code", 0xC0000005},
                           {"thread_id", 77}};
    EXPECT_EQ(Merged(folder.path(), copy), expected);
  }

  std::vector<std::string> wrong = {"", bytes + "x", bytes.substr(1), bytes.substr(0, 1263)};
  for (std::size_t at = 0; at < 8; ++at) (wrong.emplace_back(bytes))[at] ^= 1;
  for (const std::string& text : wrong) ASSERT_EQ(Merged(folder.path(), text).size(), 0u);
  test::WriteFile(folder / "linked/real", bytes);
  if (!test::RunsUnderWine() && test::MakeLink("real", folder / "linked/emergency.bin")) {
    json record = json::object();
    ReadEmergencyFile(folder / "linked", &record);
    EXPECT_EQ(record.size(), 0u);
  }
}

}  // namespace
}  // namespace zul

// The crash record in emergency.bin.
// Input: the file.

#include <cstring>
#include <nlohmann/json.hpp>
#include <string>

#include "collector/emergency_record.h"
#include "tests/fuzz/fuzz_target.h"
#include "tests/support/temp_folder.h"

namespace zul::fuzz {

namespace {

using nlohmann::json;

constexpr std::string_view kHead("EDVQ\xF0\x04\0\0", 8);
constexpr std::size_t kSize = 1264;

void RequireOutcome(std::string_view bytes) {
  const bool sound = bytes.size() == kSize && bytes.starts_with(kHead);
  json expected = {{"event", "observer_started"}, {"finalized", false}};
  json record = expected;
  const std::optional<EmergencyRecord> parsed = ParseEmergencyRecord(bytes);
  Require(parsed.has_value() == sound, "a record has its magic and its size, twice");
  if (parsed) {
    Require(std::memcmp(&*parsed, bytes.data(), kSize) == 0, "a record is the bytes of its file");
    expected["event"] = parsed->kind == 2 ? "std_terminate" : "native_exception";
    expected["exception_observed"] = true;
    expected["exception_code"] = parsed->exception_code;
    expected["thread_id"] = parsed->thread_id;
  }
  static const test::TempFolder session;
  test::WriteFile(session / "emergency.bin", bytes);
  ReadEmergencyFile(session.path(), &record);
  Require(record == expected, "a sound file states its crash, any other changes nothing");
}

}  // namespace

void Run(std::string_view input) {
  RequireOutcome(input);
  std::string mended(input.substr(0, kSize));
  mended.resize(kSize);
  mended.replace(0, kHead.size(), kHead);
  RequireOutcome(mended);
}

}  // namespace zul::fuzz

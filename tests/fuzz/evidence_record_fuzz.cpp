// The reader of evidence records, and the form of a record that may leave the machine.
// Input: the text of a record.

#include <algorithm>
#include <set>
#include <string>

#include "collector/evidence_record.h"
#include "collector/evidence_sanitizer.h"
#include "tests/fuzz/fuzz_target.h"

namespace zul::fuzz {

namespace {

using nlohmann::json;

/// How deep arrays and objects are nested in sound JSON.
int DepthOf(std::string_view text) {
  int depth = 0, deepest = 0;
  bool quoted = false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '"') quoted = !quoted;
    if (quoted && text[i] == '\\') ++i;
    if (quoted) continue;
    if (text[i] == '[' || text[i] == '{') deepest = std::max(deepest, ++depth);
    if (text[i] == ']' || text[i] == '}') --depth;
  }
  return deepest;
}

/// Requires that nothing in `value` can be a path, the name of a person or a sentence.
void RequireNothingPrivate(const json& value, int depth) {
  Require(depth <= 3, "a sanitised record is a record, its frames, and their fields");
  if (value.is_structured()) {
    for (const json& element : value) RequireNothingPrivate(element, depth + 1);
  } else if (value.is_string()) {
    constexpr auto kWordBytes = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._";
    const std::string& text = value.get_ref<const std::string&>();
    Require(!text.empty() && text.size() <= 128, "a word has 1 to 128 bytes");
    Require(text.find_first_not_of(kWordBytes) == text.npos, "a word has word bytes only");
  } else {
    // The parser keeps "-0" as a signed number.
    const bool is_count = value.is_number_unsigned() || value == json(0);
    Require(value.is_boolean() || is_count, "a value is a word, flag or count");
  }
}

void RequireSanitised(const json& record) {
  const json sanitised = SanitizeEvidenceRecord(record);
  RequireNothingPrivate(sanitised, 0);
  Require(SanitizeEvidenceRecord(sanitised) == sanitised, "a sanitised record sanitises to itself");
  Require(sanitised.at("memory_contents_uploaded") == false, "no memory leaves the machine");
  Require(sanitised.dump(2).size() < kEvidenceBytesMax, "a sanitised record is small enough");
  Require(ParseEvidenceRecord(sanitised.dump()) == sanitised, "a sanitised record can be read");
  const std::set<std::string> added = {"schema", "external_terminator_identified",
                                       "memory_contents_uploaded", "frames", "frames_limited"};
  for (const auto& [key, value] : sanitised.items()) {
    Require(added.contains(key) || record.value(key, json()) == value, "no other value is new");
  }
}

}  // namespace

void Run(std::string_view input) {
  const std::optional<json> record = ParseEvidenceRecord(input);
  // No JSON has a NUL, and the library stops at one.
  const bool has_nul = input.find('\0') != input.npos;
  const json whole = has_nul ? json(json::value_t::discarded) : json::parse(input, nullptr, false);
  const bool shallow = !whole.is_discarded() && DepthOf(input) <= kEvidenceDepthMax;
  const bool sound =
      shallow && whole.is_object() && whole.value("schema", json()) == kEvidenceSchema;
  Require(record.has_value() == sound, "a record is an object of the schema, not too deep");
  if (shallow) RequireSanitised(whole);
  if (!record) return;
  Require(*record == whole, "a record is read whole and unchanged");
  Require(ParseEvidenceRecord(record->dump(2) + "\n") == *record, "a committed record can be read");
  if (const std::optional<ProcessKey> key = ProcessKeyOf(*record)) {
    const json& pid = record->at("pid");
    Require(pid.is_number_unsigned() ? pid == key->pid : key->pid == 0, "a process has its id");
    Require(record->at("process_identity") == key->identity, "and its identity");
  }
}

}  // namespace zul::fuzz

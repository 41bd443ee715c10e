#pragma once

// Evidence records in tests.

#include <gtest/gtest.h>

#include <initializer_list>
#include <nlohmann/json.hpp>
#include <string>

#include "collector/evidence_record.h"

namespace zul::test {

/// Commits a record. Returns the reason word of a failure.
inline std::string Commit(const fs::Path& path, const nlohmann::json& record) {
  std::string error;
  return CommitEvidenceRecord(path, record, &error) ? "" : error;
}

/// Reads a record; fails the test when that fails.
[[nodiscard]] inline nlohmann::json Record(const fs::Path& path) {
  nlohmann::json record = nlohmann::json::object();
  std::string error;
  EXPECT_TRUE(ReadEvidenceRecord(path, &record, &error)) << path << ": " << error;
  return record;
}

/// The values of `keys` with blanks between them, "-" for a missing one.
[[nodiscard]] inline std::string Fields(const nlohmann::json& record,
                                        std::initializer_list<const char*> keys) {
  std::string fields;
  for (const char* key : keys) {
    const nlohmann::json value = record.value(key, nlohmann::json("-"));
    fields += " " + (value.is_string() ? value.get<std::string>() : value.dump());
  }
  return fields.substr(1);
}

}  // namespace zul::test

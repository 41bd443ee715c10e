#include "trace/chain_events.h"

#include <gtest/gtest.h>

#include <regex>
#include <string>

#include "core/text.h"
#include "tests/support/environment.h"
#include "tests/support/temp_folder.h"

namespace zul {
namespace {

TEST(ChainVocabulary, IsDerivedFromTheNameOfTheEvent) {
  const std::pair<const char*, const char*> cases[] = {
      // action|phase|result|user error
      {"updater_run_fail", "update.apply|failure|failed|QORVA-UPDATE-FAILED"},
      {"update_check_fail", "update.check|failure|failed|QORVA-UPDATE-CHECK-FAILED"},
      {"download_complete", "update.download|end|success|"},
      {"download_primary_fail", "update.download|failure|failed|QORVA-UPDATE-DOWNLOAD-FAILED"},
      {"download_fail_ok", "update.download|end|success|"},
      {"download_stall", "update.download|timeout|timeout|QORVA-UPDATE-DOWNLOAD-TIMEOUT"},
      {"checksum_fail_x", "update.verify|failure|failed|QORVA-UPDATE-VERIFY-FAILED"},
      {"payload_binary_signature_validate", "update.verify|||"},
      {"payload_binary_signature_validate_fail", "|failure|failed|QORVA-UPDATE-FAILED"},
      {"restart_fail", "update.apply|failure|failed|QORVA-UPDATE-APPLY-FAILED"},
      {"deferred_self_replace_warning", "update.apply|degraded|degraded|"},
      {"downloads_start", "|start||"}};
  for (const auto& [name, expected] : cases) {
    const std::string phase(MapChainEvent(name));
    const auto derived = {std::string(MapChainAction(name)), phase,
                          std::string(MapChainResult(phase)), std::string(MapUserErrorId(name))};
    EXPECT_EQ(JoinText(derived, "|"), expected) << name;
  }
}

TEST(Trace, HasOneCompactSortedLineAnEventOnceItsFolderCanBeCreated) {
  const test::TempFolder folder;
  const test::ScopedEnvironment home("QORVA_CONFIG_HOME", PathToUtf8(folder.path()));
  const fs::Path trace = folder / "QORVA/logs/update_trace.log";
  test::WriteFile(folder / "QORVA", "a file in the place of the folder");
  EmitChainEvent("dropped", {});
  std::error_code ec;
  fs::Remove(folder / "QORVA", ec);
  EmitChainEvent("", {{"a", "b"}});
  EXPECT_FALSE(test::Exists(trace));
  EmitChainEvent("extract_fail", {{"error", "ž \"x\"\n"}, {"", "dropped"}, {"bytes", "12"}});
  EmitChainEvent("rollback_ok", {});  // without an action no correlation
  // Given values win unless they are empty.
  EmitChainEvent("download_fail",
                 {{"ts", "then"}, {"stage", "mine"}, {"chain_event", ""}, {"result", "odd"}});
  EmitChainEvent("x", {{"k\xff", "a\xc3"}});  // invalid UTF-8 is replaced
  const std::regex varying(
      R"re("correlation_id":"update-\d{13}-0",|"ts":"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ",?)re");
  EXPECT_EQ(std::regex_replace(test::ReadFile(trace), varying, ""),
            R"({"action_id":"update.apply","bytes":"12","chain_event":"failure",)"
            R"("error":"ž \"x\"\n","result":"failed","stage":"extract_fail",)"
            R"("user_error_id":"QORVA-UPDATE-APPLY-FAILED"})"
            "\n"
            R"({"chain_event":"end","result":"success","stage":"rollback_ok",})"
            "\n"
            R"({"action_id":"update.download","chain_event":"failure",)"
            R"("result":"odd","stage":"mine","ts":"then",)"
            R"("user_error_id":"QORVA-UPDATE-DOWNLOAD-FAILED"})"
            "\n{\"k\xEF\xBF\xBD\":\"a\xEF\xBF\xBD\",\"stage\":\"x\",}\n");
}

}  // namespace
}  // namespace zul

#include "trace/chain_events.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "core/text.h"
#include "tests/support/environment.h"
#include "tests/support/temp_folder.h"

namespace zul {
namespace {

using nlohmann::json;
using test::ScopedEnvironment;

TEST(ChainVocabulary, MapsEventNames) {
  const std::pair<const char*, const char*> cases[] = {
      // action|phase|result|user error
      {"updater_run_start", "update.apply|start||"},
      {"updater_run_fail", "update.apply|failure|failed|QORVA-UPDATE-FAILED"},
      {"update_check_fail", "update.check|failure|failed|QORVA-UPDATE-CHECK-FAILED"},
      {"download_complete", "update.download|end|success|"},
      {"download_selected", "update.download|end|success|"},
      {"download_progress", "update.download|||"},
      {"download_primary_fail", "update.download|failure|failed|QORVA-UPDATE-DOWNLOAD-FAILED"},
      {"download_failed_over", "update.download|failure|failed|QORVA-UPDATE-DOWNLOAD-FAILED"},
      {"download_fail_ok", "update.download|end|success|"},
      {"download_stall", "update.download|timeout|timeout|QORVA-UPDATE-DOWNLOAD-TIMEOUT"},
      {"checksum_stall", "update.verify|timeout|timeout|QORVA-UPDATE-VERIFY-FAILED"},
      {"checksum_primary_fail", "update.verify|failure|failed|QORVA-UPDATE-VERIFY-FAILED"},
      {"payload_binary_signature_validate", "update.verify|||"},
      {"payload_binary_signature_validate_fail", "|failure|failed|QORVA-UPDATE-FAILED"},
      {"extract_fail", "update.apply|failure|failed|QORVA-UPDATE-APPLY-FAILED"},
      {"apply_recovery_required", "update.apply|||"},
      {"restart_fail", "update.apply|failure|failed|QORVA-UPDATE-APPLY-FAILED"},
      {"deferred_self_replace_warning", "update.apply|degraded|degraded|"},
      {"rollback_start", "|start||"},
      {"rollback_ok", "|end|success|"},
      {"downloads_start", "|start||"},
      {"start", "|||"}};
  for (const auto& [name, expected] : cases) {
    const std::string phase(MapChainEvent(name));
    EXPECT_EQ(std::string(MapChainAction(name)) + "|" + phase + "|" +
                  std::string(MapChainResult(phase)) + "|" + std::string(MapUserErrorId(name)),
              expected)
        << name;
  }
}

class Trace : public ::testing::Test {
 protected:
  /// The trace without its own times and correlation ids, which must look right.
  [[nodiscard]] std::string Lines() const {
    static const std::regex varying(
        R"re("correlation_id":"update-\d{13}-0",|"ts":"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ",?)re");
    return std::regex_replace(test::ReadFile(path_), varying, "");
  }

  const test::TempFolder folder_;
  const ScopedEnvironment home_{"QORVA_CONFIG_HOME", PathToUtf8(folder_.path())};
  const fs::Path path_ = folder_ / "QORVA" / "logs" / "update_trace.log";
};

TEST_F(Trace, WritesOneCompactSortedLine) {
  EXPECT_EQ(TraceLogPath(), PathToUtf8(path_));
  EmitChainEvent("", {{"a", "b"}});
  EXPECT_FALSE(test::Exists(path_));
  EmitChainEvent("extract_fail", {{"error", "ž \"x\"\n"}, {"", "dropped"}, {"bytes", "12"}});
  EmitChainEvent("rollback_ok", {});  // without an action no correlation
  // Given keys win unless they are empty.
  EmitChainEvent("download_fail", {{"ts", "then"},
                                   {"stage", "mine"},
                                   {"result", "odd"},
                                   {"chain_event", ""},
                                   {"correlation_id", "c"},
                                   {"result", "last"}});
  EmitChainEvent("x", {{"k\xff", "a\xc3"}});  // invalid UTF-8 is replaced
  EXPECT_EQ(Lines(), R"({"action_id":"update.apply","bytes":"12","chain_event":"failure",)"
                     R"("error":"ž \"x\"\n","result":"failed","stage":"extract_fail",)"
                     R"("user_error_id":"QORVA-UPDATE-APPLY-FAILED"})"
                     "\n"
                     R"({"chain_event":"end","result":"success","stage":"rollback_ok",})"
                     "\n"
                     R"({"action_id":"update.download","chain_event":"failure",)"
                     R"("correlation_id":"c","result":"last","stage":"mine","ts":"then",)"
                     R"("user_error_id":"QORVA-UPDATE-DOWNLOAD-FAILED"})"
                     "\n{\"k\xEF\xBF\xBD\":\"a\xEF\xBF\xBD\",\"stage\":\"x\",}\n");
}

TEST_F(Trace, FollowsTheFolderAsItComesAndGoes) {
  test::WriteFile(folder_ / "QORVA", "a file in the way");
  EmitChainEvent("x", {});  // dropped
  std::error_code ec;
  fs::Remove(folder_ / "QORVA", ec);
  EmitChainEvent("x", {});
  EXPECT_TRUE(test::Exists(path_));
  fs::RemoveTree(folder_ / "QORVA", ec);
  EmitChainEvent("x", {});
  EXPECT_TRUE(test::Exists(path_));

  const ScopedEnvironment elsewhere("QORVA_CONFIG_HOME", PathToUtf8(folder_ / "other"));
  EmitChainEvent("x", {});
  EXPECT_TRUE(test::Exists(folder_ / "other" / "QORVA" / "logs" / "update_trace.log"));
}

TEST_F(Trace, ThreadsAppendWholeLinesWithOneCorrelation) {
  std::vector<std::thread> threads;
  for (const char letter : {'a', 'b'}) {
    threads.emplace_back([letter] {
      for (int i = 0; i < 100; ++i) EmitChainEvent("apply_x", {{"v", std::string(3000, letter)}});
    });
  }
  for (std::thread& thread : threads) thread.join();
  const std::string text = test::ReadFile(path_);
  std::string correlation;
  int lines = 0;
  for (std::size_t at = 0; at < text.size(); ++lines) {
    const std::size_t end = text.find('\n', at);
    const json line = json::parse(text.substr(at, end - at));
    EXPECT_EQ(line["v"].get<std::string>().size(), 3000U);
    if (correlation.empty()) correlation = line["correlation_id"];
    EXPECT_EQ(line["correlation_id"], correlation);
    at = end + 1;
  }
  EXPECT_EQ(lines, 200);
}

}  // namespace
}  // namespace zul

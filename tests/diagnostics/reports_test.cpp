// The life of a report: built, queued, cleaned again, sent or kept.

#include <gtest/gtest.h>

#include <deque>
#include <future>

#include "collector/evidence_record.h"
#include "core/deployment.h"
#include "core/logger.h"
#include "core/text.h"
#include "diagnostics/diagnostics.h"
#include "diagnostics/report_manifest.h"
#include "diagnostics/report_upload.h"
#include "diagnostics/upload_record.h"
#include "diagnostics/upload_worker.h"
#include "tests/support/temp_folder.h"

namespace zul {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;
using test::ReadFile;
using test::WriteFile;

net::HttpResponse Answer(std::int32_t status, std::string error = {}) {
  net::HttpResponse response;
  response.status = status;
  response.error = std::move(error);
  return response;
}

bool LogHas(std::string_view text) {
  for (const std::string& line : GetLogger().RecentLines(50)) {
    if (line.find(text) != std::string::npos) return true;
  }
  return false;
}

/// A crash folder of its own, and a server that answers what it was told to, then 503.
class Reports : public testing::Test {
 protected:
  explicit Reports(bool upload_enabled = false) {
    DiagnosticsConfig config;
    config.upload_enabled = upload_enabled;
    const DiagnosticsSurroundings surroundings = {
        .executable = folder_ / "app/qorva_updater.exe",
        .application_data = folder_ / "data",
        .start_collector = [](const auto&, const auto&) { return CollectorStartResult{}; }};
    crash_ = PathFromUtf8(InitDiagnosticsIn(surroundings, config).crash_directory).value();
  }
  // The folder must not go while the log is open in it.
  ~Reports() override { GetLogger().Configure("", ""); }

  fs::Path Queued(const std::string& name) const { return queue() / name; }
  fs::Path queue() const { return PendingReportsDirectory(crash_); }
  json Read(const std::string& name) const { return json::parse(ReadFile(Queued(name))); }

  ReportSender Server() {
    return [this](const net::HttpRequest& request) {
      requests_.push_back(request);
      if (on_request_) on_request_();
      if (answers_.empty()) return Answer(503);
      net::HttpResponse response = answers_.front();
      answers_.pop_front();
      return response;
    };
  }
  void Drain() { DrainReportQueue(queue(), cancel_, Server(), &tried_); }

  const test::TempFolder folder_;
  fs::Path crash_;
  std::deque<net::HttpResponse> answers_;
  std::vector<net::HttpRequest> requests_;
  std::function<void()> on_request_;
  std::atomic<bool> cancel_{false};
  TriedReports tried_;
};

TEST_F(Reports, SayWhatHappenedAndNothingPrivate) {
  WriteFile(folder_ / "trace.log",
            "{\"target_dir\":\"C:\\\\Jan Novak\"}\n=== recent log tail ===\nx");
  ReportRequest request;
  request.kind = "updater_error";
  request.reason = "Cannot open 'C:\\Jan Novak\\x'";
  request.report_file = folder_ / "trace.log";
  request.client_report_id = "id 1/2";
  request.details = {{"stage", "apply"}, {"", "no key"}, {"target dir", "/home/jan"}};
  const json manifest = BuildReportManifest(request);
  EXPECT_EQ(manifest.at("reason"), "Cannot open '[redacted-path]'");
  EXPECT_EQ(manifest.at("report_text"),
            "{\"target_dir\":\"[redacted-path]\"}\n"
            "[recent log tail omitted from automatic diagnostics upload]\n");
  EXPECT_EQ(manifest.at("client_report_id"), "id_1_2");
  EXPECT_EQ(manifest.at("details"), json({{"stage", "apply"}, {"target_dir", "[redacted-path]"}}));
  EXPECT_EQ(manifest.at("artifacts").at("dump"), json({{"present", false}}));
  EXPECT_EQ(manifest.at("artifacts").at("report").at("extension"), ".log");
  EXPECT_EQ(manifest.at("upload_contract").at("result"), "queued");
  EXPECT_EQ(manifest.at("privacy").size(), 10u);

  request = {};
  request.report_file = folder_ / "absent";
  request.user_approved_redacted_log_tail = true;
  const json bare = BuildReportManifest(request);
  EXPECT_EQ(bare.at("kind"), "unknown");
  EXPECT_EQ(bare.at("report_text"), "");
  EXPECT_EQ(bare.at("artifacts").at("report").at("present"), false);
  EXPECT_FALSE(bare.contains("client_report_id"));
  EXPECT_EQ(bare.at("privacy").at("report_text_policy"), "user_approved_redacted_log_tail");
  EXPECT_EQ(bare.at("upload_contract").at("user_approved_redacted_log_tail_uploaded"), true);
}

TEST_F(Reports, TakeWholeLinesFromALongFile) {
  const std::string lines(131071, 'a');
  WriteFile(folder_ / "log", "first\n" + lines);
  WriteFile(folder_ / "line", lines + "bb");
  ReportRequest request;
  request.report_file = folder_ / "log";
  EXPECT_EQ(BuildReportManifest(request).at("report_text"), "first\n");
  request.report_file = folder_ / "line";
  EXPECT_EQ(BuildReportManifest(request).at("report_text"), lines + "b");
}

TEST_F(Reports, AreKeptUnderNamesOfTheirOwn) {
  ReportRequest request;
  request.kind = "updater error";
  for (int i = 0; i < 3; ++i) EnqueueReport(request);
  request.kind = "crash";
  EnqueueReport(request);
  EXPECT_TRUE(LogHas("Diagnostics report queued: qorva_updater_error_"));
  EXPECT_TRUE(LogHas("upload is disabled for this isolated process; report retained locally."));
  EXPECT_FALSE(LogHas("queued: qorva_crash_"));
  const std::string tree = test::ListTree(queue());
  EXPECT_EQ(std::count(tree.begin(), tree.end(), '\n'), 4) << tree;
  Drain();
  EXPECT_EQ(requests_.size(), 8u);
}

TEST_F(Reports, LoseStableIdentifiersAtAnyDepth) {
  json manifest = {
      {"path_hash", 1},
      {"privacy", "none"},
      {"list", {{{"install_dir_hash", "x"}, {"filename_hash", {1}}, {"kept", 1}}}},
      {"text", "a [redacted-path:12] [redacted-path:] [redacted-path] [redacted-path:"}};
  json deep = {{"path_hash", "x"}};
  for (int i = 0; i < 100000; ++i) {
    json outer = json::array();
    outer.push_back(std::move(deep));
    deep = std::move(outer);
  }
  manifest["deep"] = std::move(deep);
  NormalizeManifestPrivacy(&manifest);
  EXPECT_FALSE(manifest.contains("path_hash"));
  EXPECT_EQ(manifest.at("list"), json::array({{{"kept", 1}}}));
  EXPECT_EQ(manifest.at("text"),
            "a [redacted-path] [redacted-path] [redacted-path] "
            "[redacted-path:");
  const json* inner = &manifest.at("deep");
  while (inner->is_array()) inner = &inner->front();
  EXPECT_TRUE(inner->empty());
  EXPECT_EQ(manifest.at("privacy").at("paths"), "redacted");
  EXPECT_EQ(manifest.at("privacy").at("dump_uploaded"), false);

  json none = json::array({1});
  NormalizeManifestPrivacy(&none);
  EXPECT_EQ(none.at("privacy_schema_version"), 2);
}

TEST_F(Reports, GoWhenAnOriginHasThem) {
  const struct {
    std::deque<net::HttpResponse> answers;
    bool delivered;
    std::size_t requests;
  } rows[] = {
      {{Answer(200)}, true, 1},
      {{Answer(299)}, true, 1},
      {{Answer(302), Answer(204)}, true, 2},
      {{Answer(0, "WinHTTP send/receive failed"), Answer(200)}, true, 2},
      {{Answer(200, "WinHTTP read data failed"), Answer(404)}, false, 2},
      {{Answer(199), Answer(300)}, false, 2},
  };
  for (const auto& row : rows) {
    WriteFile(Queued("a.json"), R"({"kind":"x","upload_contract":{"result":"queued"}})");
    answers_ = row.answers;
    requests_.clear();
    UploadOneReport(Queued("a.json"), cancel_, Server());
    EXPECT_EQ(!test::Exists(Queued("a.json")), row.delivered) << row.answers[0].status;
    ASSERT_EQ(requests_.size(), row.requests) << row.answers[0].status;
    EXPECT_EQ(requests_[0].url,
              std::string(deployment::kReportOrigins[0]) + "/v1/diagnostics/report");
    EXPECT_EQ(requests_[0].method, net::HttpMethod::kPost);
    EXPECT_FALSE(requests_[0].follow_redirects);
  }
}

TEST_F(Reports, KeepARecordOfTheirAttempts) {
  WriteFile(Queued("a.json"), R"({"upload_attempts":"?","older_upload_attempts_omitted":-1})");
  on_request_ = [this] {
    // On disk before it is sent, and of the size that it says.
    const json sent = json::parse(requests_.back().body);
    EXPECT_EQ(sent, Read("a.json"));
    EXPECT_EQ(sent.at("upload_attempts").back().at("result"), "attempting");
    EXPECT_EQ(sent.at("upload_attempts").back().at("payload_size_bytes"),
              requests_.back().body.size());
  };
  answers_ = {Answer(0, "timed out at C:\\x"), Answer(500)};
  UploadOneReport(Queued("a.json"), cancel_, Server());
  json manifest = Read("a.json");
  const json& attempts = manifest.at("upload_attempts");
  ASSERT_EQ(attempts.size(), 2u);
  EXPECT_EQ(attempts[0].at("origin_role"), "primary");
  EXPECT_EQ(attempts[0].at("transport_error"), "timed out at [redacted-path]");
  EXPECT_EQ(attempts[1].at("origin_role"), "rf");
  EXPECT_EQ(attempts[1].at("http_status"), 500);
  EXPECT_EQ(attempts[1].at("chain_event"), "failure");
  EXPECT_EQ(attempts[1].at("user_error_id"), "QORVA-DIAGNOSTICS-UPLOAD-FAILED");
  EXPECT_EQ(attempts[0].at("correlation_id"), attempts[1].at("correlation_id"));
  EXPECT_EQ(manifest.at("upload_contract").at("result"), "failed");
  EXPECT_EQ(manifest.at("last_upload_status"), "failed");

  for (int pass = 0; pass < 4; ++pass) UploadOneReport(Queued("a.json"), cancel_, Server());
  manifest = Read("a.json");
  EXPECT_EQ(manifest.at("upload_attempts").size(), 8u);
  EXPECT_EQ(manifest.at("older_upload_attempts_omitted"), 2);
}

TEST_F(Reports, AreGivenUpBetweenOriginsAndBetweenReports) {
  for (const char* name : {"a.json", "b.json"}) WriteFile(Queued(name), "{}");
  on_request_ = [this] { cancel_ = true; };
  Drain();
  EXPECT_EQ(requests_.size(), 1u);
  const json manifest = Read("a.json");
  EXPECT_EQ(manifest.at("last_upload_status"), "cancelled");
  EXPECT_EQ(manifest.at("upload_contract").at("result"), "cancelled");
  EXPECT_EQ(manifest.at("upload_attempts").at(0).at("result"), "failed");
  EXPECT_EQ(ReadFile(Queued("b.json")), "{}");
  EXPECT_TRUE(LogHas("cancelled before next queued report."));
  cancel_ = false;
  on_request_ = nullptr;
  Drain();  // the one that was tried waits for the next process
  EXPECT_EQ(requests_.size(), 3u);
}

TEST_F(Reports, OfOneProcessAreTwentyFive) {
  for (int i = 0; i < 27; ++i) WriteFile(Queued(std::to_string(100 + i) + ".json"), "{}");
  WriteFile(Queued("100.json"), "no report");
  WriteFile(Queued("101.json"), std::string(40, '[') + std::string(40, ']'));
  WriteFile(Queued("102.json"),
            "{\"a\":" + std::string(500000, '[') + std::string(500000, ']') + "}");
  WriteFile(Queued("103.json"), std::string(1048577, ' '));
  WriteFile(Queued("notes.txt"), "{}");
  Drain();
  EXPECT_TRUE(LogHas("Diagnostics uploader: pending reports=25"));
  EXPECT_TRUE(LogHas("Diagnostics upload manifest parse failed"));
  EXPECT_EQ(requests_.size(), 2u * 21);
  EXPECT_EQ(ReadFile(Queued("100.json")), "no report");
  EXPECT_EQ(ReadFile(Queued("125.json")), "{}");
  WriteFile(Queued("000.json"), "{}");
  Drain();
  EXPECT_EQ(ReadFile(Queued("000.json")), "{}");
}

TEST_F(Reports, AreNotBroughtBackWhenAnotherProcessHasDeliveredThem) {
  WriteFile(Queued("a.json"), "{}");
  on_request_ = [this] {
    std::error_code ec;
    fs::Remove(Queued("a.json"), ec);
  };
  Drain();
  EXPECT_EQ(requests_.size(), 1u);
  EXPECT_FALSE(test::Exists(Queued("a.json")));
}

TEST_F(Reports, WithEditedEvidenceAreCleanedAgain) {
  json manifest = {{"compact_process_evidence",
                    {{"event", "C:\\Jan"}, {"exit_code", 5}, {"planted", "Jan Novak"}}},
                   {"previous_session_forensics", json::object()},
                   {"upload_contract", {{"dump_uploaded", true}, {"result", "queued"}}}};
  WriteFile(Queued("compact_process_a.json"), manifest.dump());
  Drain();
  const json sent = json::parse(requests_.at(0).body);
  EXPECT_EQ(sent.at("compact_process_evidence").at("exit_code"), 5);
  EXPECT_EQ(sent.dump().find("Jan"), std::string::npos);
  EXPECT_EQ(sent.at("upload_contract").at("dump_uploaded"), false);
  EXPECT_EQ(sent.at("upload_contract").at("what_uploaded").size(), 8u);
  EXPECT_EQ(sent.at("upload_contract").at("what_uploaded")[6], "compact_process_evidence");

  // Too large for a record, it is sent as it can be and keeps its old state on disk.
  manifest["report_text"] = std::string(kEvidenceBytesMax, 'x');
  WriteFile(Queued("compact_process_b.json"), manifest.dump());
  Drain();
  EXPECT_EQ(requests_.size(), 4u);
  EXPECT_TRUE(LogHas("Diagnostics compact upload evidence rewrite failed: record_size_limit"));
  EXPECT_EQ(Read("compact_process_b.json"), manifest);
}

class EnabledReports : public Reports {
 protected:
  EnabledReports() : Reports(true) {}
};

TEST_F(EnabledReports, AreTakenUpByTheWorkerOfTheProcess) {
  WriteFile(Queued("not_a_report.json"), "[]");  // nothing of this test goes to a network
  StartUploadWorker();
  StopUploadWorker(30s);
  EXPECT_TRUE(LogHas("Diagnostics uploader: pending reports=1"));
  StopUploadWorker(0s);
}

TEST(OriginRole, IsThatOfTheFirstHostWord) {
  std::string all = "https://";
  EXPECT_EQ(OriginRole(all), "unknown");
  for (auto word = deployment::kOriginRoles.rbegin(); word != deployment::kOriginRoles.rend();
       ++word) {
    all.append(word->host_word);
    EXPECT_EQ(OriginRole(all), word->role);
  }
}

TEST(UploadWorker, DoesItsJobAgainWhenAskedMeanwhile) {
  std::atomic<int> runs{0};
  std::promise<void> begun;
  std::promise<void> go_on;
  UploadWorker worker([&](const std::atomic<bool>&) {
    if (++runs == 1) {
      begun.set_value();
      go_on.get_future().wait();
      throw std::runtime_error("first");
    }
  });
  worker.Stop(0ms);  // none there
  worker.Start();
  begun.get_future().wait();
  worker.Start();
  worker.Start();
  go_on.set_value();
  worker.Stop(30s);
  EXPECT_EQ(runs, 2);
  EXPECT_TRUE(LogHas("Diagnostics upload worker callback failed: first"));
  worker.Start();
  worker.Stop(30s);
  EXPECT_EQ(runs, 3);
}

TEST(UploadWorker, IsCancelledAndJoinedWhenItTakesTooLong) {
  std::atomic<bool> ended{false};
  UploadWorker worker([&](const std::atomic<bool>& cancel) {
    while (!cancel) std::this_thread::sleep_for(1ms);
    ended = true;
  });
  worker.Start();
  std::thread other([&] { worker.Stop(10ms); });
  worker.Stop(10ms);
  other.join();
  EXPECT_TRUE(ended);
  EXPECT_TRUE(LogHas("drain timed out after 10 ms; requesting cancellation and joining"));
  EXPECT_TRUE(LogHas("cancellation completed; owned upload worker joined."));
}

}  // namespace
}  // namespace zul

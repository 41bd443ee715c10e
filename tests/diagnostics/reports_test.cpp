// The life of a report: built, queued, sent or kept.

#include <gtest/gtest.h>

#include <deque>
#include <future>

#include "core/deployment.h"
#include "diagnostics/report_upload.h"
#include "diagnostics/upload_worker.h"
#include "tests/diagnostics/started_diagnostics.h"

namespace zul {
namespace {

using nlohmann::json;
using test::ReadFile;
using test::WriteFile;

using Answer = std::pair<int, const char*>;  // status, error

/// A queue, and a server that answers what it was told to, then 503.
class Reports : public test::StartedDiagnostics {
 protected:
  fs::Path Queued(const std::string& name) const { return queue() / name; }
  ReportSender Server() {
    return [this](const net::HttpRequest& request) {
      urls_.push_back(request.url);
      if (on_request_) on_request_();
      net::HttpResponse response;
      response.status = 503;
      if (answers_.empty()) return response;
      std::tie(response.status, response.error) = answers_.front();
      answers_.pop_front();
      return response;
    };
  }
  void Drain() { DrainReportQueue(queue(), cancel_, Server(), &tried_); }

  std::deque<Answer> answers_;
  std::vector<std::string> urls_;
  std::function<void()> on_request_;
  std::atomic<bool> cancel_{false};
  TriedReports tried_;
};

TEST_F(Reports, SayWhatHappenedAndNothingPrivate) {
  WriteFile(folder_ / "a.log", "{\"target_dir\":\"C:\\\\Jan Novak\"}\n=== recent log tail ===\nx");
  ReportRequest request;
  request.reason = "Cannot open 'C:\\Jan Novak\\x'";
  request.report_file = folder_ / "a.log";
  request.client_report_id = "id 1/2";
  request.details = {{"stage", "apply"}, {"", "no key"}, {"target dir", "/home/jan"}};
  const json manifest = BuildReportManifest(request);
  EXPECT_EQ(manifest["reason"], "Cannot open '[redacted-path]'");
  EXPECT_EQ(manifest["report_text"],
            "{\"target_dir\":\"[redacted-path]\"}\n"
            "[recent log tail omitted from automatic diagnostics upload]\n");
  EXPECT_EQ(manifest["client_report_id"], "id_1_2");
  EXPECT_EQ(manifest["details"], json({{"stage", "apply"}, {"target_dir", "[redacted-path]"}}));

  // Of a long file whole lines are taken, unless it is one line.
  const std::string lines(131071, 'a');
  WriteFile(folder_ / "a.log", "first\n" + lines);
  EXPECT_EQ(BuildReportManifest(request)["report_text"], "first\n");
  WriteFile(folder_ / "a.log", lines + "bb");
  EXPECT_EQ(BuildReportManifest(request)["report_text"], lines + "b");
  for (int i = 0; i < 2; ++i) EnqueueReport(request);
  std::error_code ec;
  EXPECT_EQ(fs::ListDirectory(queue(), ec).size(), 2u) << "in one second";
  EXPECT_TRUE(LogHas("upload is disabled for this isolated process; report retained locally."));
}

TEST_F(Reports, GoWhenAnOriginHasThem) {
  const struct {
    std::deque<Answer> answers;
    bool delivered;
  } rows[] = {
      {{{200, ""}}, true},
      {{{302, ""}, {299, ""}}, true},
      {{{200, "WinHTTP read data failed"}, {404, ""}}, false},
      {{{199, ""}, {300, ""}}, false},
  };
  const fs::Path report = Queued("a.json");
  for (const auto& row : rows) {
    SCOPED_TRACE(row.answers[0].first);
    WriteFile(report, R"({"upload_attempts": [1, 2, 3, 4, 5, 6, 7]})");
    answers_ = row.answers;
    urls_.clear();
    UploadOneReport(report, cancel_, Server());
    EXPECT_EQ(!test::Exists(report), row.delivered);
    EXPECT_EQ(urls_.size(), row.answers.size());
    EXPECT_EQ(urls_.at(0), std::string(deployment::kReportOrigins[0]) + "/v1/diagnostics/report");
    if (row.delivered) continue;
    EXPECT_EQ(ReadJson(report)["upload_attempts"].size(), 8u);
    EXPECT_EQ(ReadJson(report)["older_upload_attempts_omitted"], 1);
  }
}

TEST_F(Reports, AreGivenUpBetweenOriginsAndBetweenReports) {
  for (const char* name : {"a.json", "b.json", "c.json"}) WriteFile(Queued(name), "{}");
  on_request_ = [this] { cancel_ = true; };
  Drain();
  EXPECT_EQ(urls_.size(), 1u);
  EXPECT_EQ(ReadJson(Queued("a.json"))["last_upload_status"], "cancelled");
  EXPECT_EQ(ReadFile(Queued("b.json")), "{}");
  EXPECT_TRUE(LogHas("cancelled before next queued report."));
  cancel_ = false;
  // What another process has delivered meanwhile is not brought back.
  on_request_ = [this] {
    std::error_code ec;
    fs::Remove(Queued(urls_.size() == 4 ? "c.json" : "b.json"), ec);
  };
  Drain();  // the one that was tried waits for the next process
  EXPECT_EQ(urls_.size(), 1u + 1 + 2);
  EXPECT_EQ(test::ListTree(queue()), "a.json\n");
}

TEST_F(Reports, OfOneProcessAreTwentyFive) {
  for (int i = 0; i < 27; ++i) WriteFile(Queued(std::to_string(100 + i) + ".json"), "{}");
  const std::string none[] = {"no report", std::string(40, '[') + std::string(40, ']'),
                              std::string("{}\0{}", 5), std::string(1048577, ' ')};
  for (int i = 0; i < 4; ++i) WriteFile(Queued(std::to_string(100 + i) + ".json"), none[i]);
  WriteFile(Queued("notes.txt"), "{}");
  Drain();
  EXPECT_TRUE(LogHas("Diagnostics uploader: pending reports=25"));
  EXPECT_EQ(urls_.size(), 2u * 21);
  EXPECT_EQ(ReadFile(Queued("100.json")), "no report");
  WriteFile(Queued("000.json"), "{}");
  Drain();
  EXPECT_EQ(ReadFile(Queued("000.json")) + ReadFile(Queued("125.json")), "{}{}");
}

TEST_F(Reports, AreSentAgainWhenAskedForMeanwhile) {
  std::atomic<int> runs{0};
  std::promise<void> begun;
  std::promise<void> go_on;
  UploadWorker worker([&](const std::atomic<bool>&) {
    if (++runs != 1) return;
    begun.set_value();
    go_on.get_future().wait();
    throw std::runtime_error("first");
  });
  worker.Start();
  begun.get_future().wait();
  for (int i = 0; i < 2; ++i) worker.Start();
  go_on.set_value();
  worker.Stop(std::chrono::seconds(30));
  EXPECT_EQ(runs, 2);
  EXPECT_TRUE(LogHas("Diagnostics upload worker callback failed: first"));
}

}  // namespace
}  // namespace zul

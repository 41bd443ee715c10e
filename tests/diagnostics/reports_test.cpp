// The life of a report: made, queued, sent or kept.

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

/// The smallest report.
const std::string kReport = R"({"schema_name": "qorva.diagnostics.report"})";

/// A queue, and a server that gives the answers of a list, then 503.
class Reports : public test::StartedDiagnostics {
 protected:
  using Answer = std::pair<int, const char*>;  // status, error

  fs::Path Queued(const std::string& name) const { return queue_ / name; }
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
  void Drain(const std::set<std::string>& own = {}) {
    DrainReportQueue(queue_, own, cancel_, Server(), &tried_);
  }

  std::deque<Answer> answers_;
  std::vector<std::string> urls_;
  std::function<void()> on_request_;
  std::atomic<bool> cancel_{false};
  TriedReports tried_;
};

TEST_F(Reports, WithholdPrivateTexts) {
  ReportRequest request;
  request.reason = "Cannot open 'C:\\Jan Novak\\x'";
  request.report_file = folder_ / "a.log";
  request.client_report_id = "id 1/2";
  request.details = {{"stage", "apply"}, {"", "no key"}, {"target dir", "/home/jan"}};
  WriteFile(request.report_file,
            "{\"target_dir\":\"C:\\\\Jan Novak\"}\n=== recent log tail ===\nx");
  for (int i = 0; i < 2; ++i) EnqueueReport(request);
  const std::vector<fs::Path> queued = ListReports(queue_);
  ASSERT_EQ(queued.size(), 2u) << "in one second";
  const json report = ReadJson(queued[0]);
  EXPECT_EQ(report["reason"], "Cannot open '[redacted-path]'");
  EXPECT_EQ(report["report_text"],
            "{\"target_dir\":\"[redacted-path]\"}\n"
            "[recent log tail omitted from automatic diagnostics upload]\n");
  EXPECT_EQ(report["client_report_id"], "id_1_2");
  EXPECT_EQ(report["details"], json({{"stage", "apply"}, {"target_dir", "[redacted-path]"}}));
  EXPECT_EQ(report["artifacts"]["dump"], json({{"present", false}}));
  EXPECT_EQ(report.dump().find(folder_.path().filename().string()), std::string::npos);
  EXPECT_TRUE(LogHas("upload is disabled for this isolated process; report retained locally."));
}

TEST_F(Reports, TakeWholeLinesOfALongFileUnlessItIsOneLine) {
  const std::string longest(131071, 'a');
  for (const auto& [contents, text] : {std::pair("first\n" + longest, std::string("first\n")),
                                       std::pair(longest + "bb", longest + "b")}) {
    WriteFile(folder_ / "a.log", contents);
    EXPECT_EQ(ReadReportText(folder_ / "a.log"), text);
  }
}

TEST_F(Reports, TakeTheEventsOfTheirOwnRunFromTheEndOfTheTrace) {
  const auto event = [](const std::string& run, std::size_t bytes) {
    const std::string line = R"({"correlation_id":")" + run + R"(","stage":"x","y":")";
    return line + std::string(bytes - line.size() - 3, 'y') + "\"}\n";
  };
  const std::string earlier = event("update-1-0", 100), own = event("update-2-0", 100);
  const std::string full = own + event("update-2-0", 131072 - 100);
  const struct {
    std::string trace, text;
  } rows[] = {
      {earlier + own + earlier + own, own + earlier + own},
      {earlier + own + "{\"half", own},
      {earlier + full, full},
      {earlier + own + full, full},  // the text begins with a whole line
      {earlier + full + own, full.substr(100) + own},
      {earlier + earlier, earlier + earlier},  // a run without an event
      {std::string(200000, 'x'), ""},
      {"", ""},
  };
  for (const auto& row : rows) {
    WriteFile(folder_ / "update_trace.log", row.trace);
    const std::string text = ReadTraceText(folder_ / "update_trace.log", "update-2-0");
    EXPECT_TRUE(text == row.text) << "row " << &row - rows << ": " << text.substr(0, 100);
  }
  ReportRequest request;
  request.report_file = folder_ / "update_trace.log";
  WriteFile(request.report_file, std::string(200000, '\n') + R"({"target":"C:\\Jan Novak"})"
                                                             "\n");
  request.trace_run_id = "target";
  EnqueueReport(request);
  EXPECT_EQ(ReadJson(ListReports(queue_).at(0))["report_text"],
            "{\"target\":\"[redacted-path]\"}\n");
}

TEST_F(Reports, AreDeletedAfterAStatusOf2xxFromAnyOrigin) {
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
    WriteFile(report,
              R"({"schema_name": "qorva.diagnostics.report", "older_upload_attempts_omitted": 2,
                  "upload_attempts": [1, 2, 3, 4, 5, 6, 7]})");
    answers_ = row.answers;
    urls_.clear();
    UploadOneReport(report, cancel_, Server());
    EXPECT_EQ(!test::Exists(report), row.delivered);
    EXPECT_EQ(urls_.size(), row.answers.size());
    EXPECT_EQ(urls_.at(0), std::string(deployment::kReportOrigins[0]) + "/v1/diagnostics/report");
    if (row.delivered) continue;
    EXPECT_EQ(ReadJson(report)["upload_attempts"].size(), 8u);
    EXPECT_EQ(ReadJson(report)["older_upload_attempts_omitted"], 3);
  }
}

TEST_F(Reports, AreCancelledBetweenOriginsAndBetweenReports) {
  for (const char* name : {"a.json", "b.json", "c.json"}) WriteFile(Queued(name), kReport);
  on_request_ = [this] {
    cancel_ = true;
    EXPECT_EQ(ReadJson(Queued("a.json"))["upload_attempts"][0]["result"], "attempting");
  };
  Drain();
  EXPECT_EQ(ReadJson(Queued("a.json"))["last_upload_status"], "cancelled");
  EXPECT_TRUE(LogHas("cancelled before next queued report."));
  cancel_ = false;
  // Another process delivers the reports meanwhile; their files must not come back.
  on_request_ = [this] {
    std::error_code ec;
    fs::Remove(Queued(urls_.size() == 4 ? "c.json" : "b.json"), ec);
  };
  Drain();  // a.json was tried and waits for the next process
  EXPECT_EQ(urls_.size(), 1u + 1 + 2);
  EXPECT_EQ(test::ListTree(queue_), "a.json\n");
}

TEST_F(Reports, OfOneProcessAreAtMost25) {
  for (int i = 0; i < 27; ++i) WriteFile(Queued(std::to_string(100 + i) + ".json"), kReport);
  const std::string none[] = {"no report", std::string(40, '[') + std::string(40, ']'),
                              kReport + '\0' + kReport, kReport + std::string(1048576, ' '),
                              R"({"kind": "hang", "schema_name": "another"})"};
  const int strangers = static_cast<int>(std::size(none));
  for (int i = 0; i < strangers; ++i) {
    WriteFile(Queued(std::to_string(100 + i) + ".json"), none[i]);
  }
  WriteFile(Queued("notes.txt"), kReport);
  Drain();
  EXPECT_TRUE(LogHas("Diagnostics uploader: pending reports=25"));
  EXPECT_EQ(urls_.size(), 2u * (25 - strangers));
  WriteFile(Queued("000.json"), kReport);
  Drain();
  EXPECT_EQ(ReadFile(Queued("000.json")) + ReadFile(Queued("125.json")), kReport + kReport);
}

TEST_F(Reports, OfThisProcessAreTriedFirst) {
  for (int i = 0; i < 25; ++i) WriteFile(Queued(std::to_string(100 + i) + ".json"), kReport);
  for (const char* own : {"own_2.json", "own_1.json"}) WriteFile(Queued(own), kReport);
  answers_ = {{200, ""}, {201, ""}};
  Drain({"own_1.json", "own_2.json", "sent.json"});
  EXPECT_EQ(urls_.size(), 2u + 2 * 23);
  EXPECT_EQ(ListReports(queue_).size(), 25u);
  EXPECT_EQ(ReadFile(Queued("123.json")), kReport) << "at most 25, this process's own included";
}

TEST_F(Reports, AreNotUploadedWithoutAThread) {
  UploadWorker worker([](const auto&) {},
                      [](const auto&) -> std::thread { throw std::runtime_error("no thread"); });
  static UploadWorker* stopped_by_sink = nullptr;  // the sink outlives this test
  stopped_by_sink = &worker;
  GetLogger().AddSink([](LogCategory, LogLevel, const std::string&) {
    if (stopped_by_sink != nullptr) stopped_by_sink->Stop({});
  });
  worker.Start();  // does not return if it logs under its lock
  stopped_by_sink = nullptr;
  EXPECT_TRUE(LogHas("Diagnostics upload worker start failed: no thread"));
}

TEST_F(Reports, AreUploadedAgainIfAskedForMeanwhile) {
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

#include "transfer/download.h"

#include <gtest/gtest.h>

#include <set>

#include "tests/support/trace_reader.h"
#include "tests/transfer/scripted_transport.h"
#include "tests/ui/fake_screen.h"
#include "transfer/url_policy.h"

namespace zul {
namespace {

using Strings = std::vector<std::string>;

const std::string kHost = DefaultUpdateDownloadHosts().front();
const std::string kTooBig = "Update package exceeds maximum allowed size";

/// One download of the scripted transport into a temp folder, with its trace.
struct Rehearsal {
  test::TraceInTempFolder trace;
  test::ScriptedTransport transport;
  std::string url = "https://" + kHost + "/pkg.zip?token=secret#secret";
  std::string role = "primary";
  fs::Path destination = trace.folder() / "work/new/package.zip";
  std::uint64_t max_bytes = kMaxUpdatePackageBytes;
  UpdateProgressWindow* window = nullptr;
  DownloadCancelCallback on_cancel;
  DownloadResult result;
  std::string error_text;

  bool Run() {
    const bool success =
        DownloadPackageOver({transport, [this] { return transport.now_ms; }, max_bytes},
                            {url, destination, role, window, {}, on_cancel}, &result, &error_text);
    EXPECT_EQ(success, result.success);
    EXPECT_FALSE(transport.open);
    EXPECT_EQ(trace.Text().find("secret"), std::string::npos);
    return success;
  }
};

TEST(DownloadPackage, WritesTheFileAndReportsItsSteps) {
  Rehearsal run;
  run.role = "rf_fallback";
  run.result.error = "stale";
  run.transport.chunks = {std::string(1048575, 'a'), std::string(1048577, 'b'), "c", "d"};
  run.transport.content_length = "2097154";
  run.transport.effective_url = "https://" + kHost + "/final.zip#secret?token";
  run.transport.ms_per_read = 1000;
  test::FakeScreen screen;
  UpdateProgressWindow window(std::make_unique<test::FakeSurface>(screen));
  run.window = &window;
  EXPECT_TRUE(run.Run());
  EXPECT_EQ(run.result.error, "");
  EXPECT_EQ(run.result.total_bytes, 2097154u);
  EXPECT_TRUE(test::ReadFile(run.destination) ==
              run.transport.chunks[0] + run.transport.chunks[1] + "cd");
  EXPECT_EQ(screen.paints.at(0),
            "Connecting to RF mirror... | Preparing download... | Working... | ");
  EXPECT_TRUE(screen.paints.at(1).starts_with("Downloading update from RF mirror... | "));

  const std::string url = "https://" + kHost + "/pkg.zip";
  const std::string final_url = "https://" + kHost + "/final.zip";
  const std::string role = " origin_role=rf_fallback";
  const std::string progress = "download_progress avg_throughput_bps=";
  // After a chunk of two steps, the next chunk emits an event too.
  EXPECT_EQ(run.trace.Events(),
            (Strings{"download_start" + role + " url=" + url,
                     "download_redirect_resolution effective_url=" + final_url + role +
                         " requested_url=" + url,
                     progress + "1048576 bytes_downloaded=2097152 elapsed_ms=2000" + role,
                     progress + "699051 bytes_downloaded=2097153 elapsed_ms=3000" + role,
                     "download_complete avg_throughput_bps=524288 bytes_downloaded=2097154"
                     " effective_url=" +
                         final_url + " elapsed_ms=4000" + role}));
}

/// Changes what a run meets.
using Script = std::function<void(Rehearsal&)>;

Script FailsAt(const char* step, std::uint32_t code) {
  return [=](Rehearsal& r) {
    r.transport.failing_step = step;
    r.transport.failure_code = code;
  };
}
Script Answers(std::int32_t status, const char* length = "") {
  return [=](Rehearsal& r) {
    r.transport.status = status;
    r.transport.content_length = length;
  };
}
Script LeadsTo(const std::string& url) {
  return [=](Rehearsal& r) { r.transport.effective_url = url; };
}

TEST(DownloadPackage, SucceedsOrReportsTheKindAndReasonOfTheFailure) {
  const struct {
    Script script;
    std::string text, kind, reason;
    std::string extra = {};  ///< a field that only this event has
  } rows[] = {
      // Values at the limits.
      {Answers(299, "1073741824"), "", "none", ""},
      {Answers(200, "many"), "", "none", ""},
      {[](Rehearsal& r) { r.max_bytes = 8; }, "", "none", ""},
      {LeadsTo("https://" + DefaultUpdateDownloadHosts().back() + "/x"), "", "none", ""},
      {[](Rehearsal& r) { test::WriteFile(r.destination, "longer than it"); }, "", "none", ""},

      {FailsAt("OpenSession", 12), "WinHttpOpen failed", "transport", "winhttp_open"},
      {FailsAt("Connect", 12002), "WinHttpConnect failed", "transport", "winhttp_connect"},
      {FailsAt("OpenRequest", 0), "WinHttpOpenRequest failed", "transport", "winhttp_open_request"},
      {FailsAt("SendAndReceive", 12002), "WinHTTP send/receive failed", "timeout",
       "winhttp_send_receive"},
      {FailsAt("QueryStatus", 12150), "WinHTTP status query failed", "transport", "status_query"},
      {FailsAt("QueryDataAvailable", 12002), "WinHttpQueryDataAvailable failed", "timeout",
       "query_data_available"},
      {FailsAt("ReadData", 12030), "WinHttpReadData failed", "transport", "read_data"},
      {[](Rehearsal& r) { r.on_cancel = [asked = 0]() mutable { return ++asked == 5; }; },
       "Download cancelled.", "timeout", "cancelled_during_download", "bytes_downloaded=4"},
      {[](Rehearsal& r) { r.url = "http://" + kHost + "/pkg.zip?secret"; },
       "Update URL must use HTTPS", "transport", "url_parse", "error=Update URL must use HTTPS"},
      {Answers(300), "Update download HTTP status 300", "http_status", "http_status",
       "http_status=300"},
      {Answers(500), "Update download HTTP status 500", "http_status", "http_status",
       "http_status=500"},
      {Answers(200, "1073741825"), kTooBig, "http_status", "content_length_cap",
       "declared_size=1073741825"},
      {Answers(200, "99999999999999999999"), kTooBig, "http_status", "content_length_cap",
       "declared_size=18446744073709551615"},
      {LeadsTo("http://" + kHost + "/x?secret"), "Update URL must use HTTPS", "transport",
       "effective_url_validation", "effective_url=http://" + kHost + "/x"},
      {LeadsTo("https://evil.example/x?secret"),
       "Update download host is not allowed: evil.example", "transport",
       "effective_url_host_allowlist", "effective_url=https://evil.example/x"},
      {[](Rehearsal& r) { test::WriteFile(r.destination / "in/the/way", ""); },
       "Cannot open update package destination file", "file_io", "open_output"},
      {[](Rehearsal& r) { r.destination = "/dev/full"; }, "Cannot write update package file",
       "file_io", "write_output"},
      {[](Rehearsal& r) { r.max_bytes = 7; }, kTooBig, "file_io", "download_size_cap",
       "bytes_downloaded=8"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(std::to_string(&row - rows) + row.text);
    Rehearsal run;
    run.transport.chunks = {"four", "more"};
    run.transport.before = [&run](const std::string&) { run.transport.now_ms += 1000; };
    row.script(run);
    // Not every system has a device that is always full.
    if (run.destination == "/dev/full" && !test::Exists(run.destination)) continue;
    EXPECT_EQ(run.Run(), row.text.empty());
    EXPECT_EQ(run.result.error, row.text);
    EXPECT_EQ(FailureKindName(run.result.failure_kind), row.kind);
    EXPECT_EQ(ShouldTryFallback(run.result),
              row.kind == "transport" || row.kind == "timeout" || run.result.http_status == 500);
    // The file is created only after the final URL was accepted.
    const bool accepted =
        run.trace.Text().find("download_redirect_resolution") != std::string::npos;
    EXPECT_EQ(test::Exists(run.destination), accepted);
    if (row.text.empty()) {
      EXPECT_EQ(test::ReadFile(run.destination), "fourmore");
      continue;
    }
    EXPECT_EQ(run.result.elapsed_ms, run.transport.now_ms - 1000) << "until the failure";
    const std::uint32_t code = run.transport.failure_code;
    const std::string code_text = std::to_string(code);
    EXPECT_EQ(run.result.winhttp_error_code, code);
    EXPECT_EQ(run.error_text, row.text + (code == 0 ? "" : " (code=" + code_text + ")"));
    std::set<std::string> fields = {"failure_kind=" + row.kind, "origin_role=primary",
                                    "reason=" + row.reason, "url=" + StripUrlQuery(run.url)};
    if (!row.extra.empty()) fields.insert(row.extra);
    if (!run.transport.failing_step.empty()) fields.insert("winhttp_error_code=" + code_text);
    std::string event = "download_fail";
    for (const std::string& field : fields) event += " " + field;
    EXPECT_EQ(run.trace.Events().back(), event);
  }
}

}  // namespace
}  // namespace zul

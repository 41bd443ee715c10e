#include "transfer/download.h"

#include <gtest/gtest.h>

#include <set>

#include "tests/support/file_tricks.h"
#include "tests/support/trace_reader.h"
#include "tests/transfer/scripted_transport.h"
#include "tests/ui/fake_screen.h"
#include "transfer/download_job.h"
#include "transfer/url_policy.h"

namespace zul {
namespace {

using Strings = std::vector<std::string>;

/// One download of the scripted transport into a temp folder, with its trace.
struct Rehearsal {
  test::TraceInTempFolder trace;
  test::ScriptedTransport transport;
  std::string host = DefaultUpdateDownloadHosts().front();
  std::string url = "https://" + host + "/pkg.zip?token=secret#secret";
  std::string role = "primary";
  fs::Path destination = trace.folder() / "work/new/package.zip";
  std::uint64_t max_bytes = kMaxUpdatePackageBytes;
  UpdateProgressWindow* window = nullptr;
  DownloadProgressCallback on_progress;
  DownloadCancelCallback on_cancel;
  DownloadResult result;
  std::string error_text = "untouched";

  bool Run() {
    // The outcome is reported only after the way to the server is closed.
    bool closed_in_time = false;
    transport.on_close = [&] {
      const std::string text = trace.Text();
      closed_in_time = text.find("download_fail") == std::string::npos &&
                       text.find("download_complete") == std::string::npos;
    };
    const bool success = DownloadPackageOver(
        {transport, [this] { return transport.now_ms; }, max_bytes},
        {url, destination, role, window, on_progress, on_cancel}, result, &error_text);
    transport.on_close = nullptr;
    EXPECT_EQ(success, result.success);
    EXPECT_TRUE(closed_in_time);
    EXPECT_FALSE(transport.open);
    EXPECT_EQ(trace.Text().find("secret"), std::string::npos);
    return success;
  }

  /// A run that must fail, with `extra` as the one field of the event beside those of every
  /// failure.
  void ExpectFailure(const std::string& text, const std::string& kind, const std::string& reason,
                     const std::string& extra = "") {
    EXPECT_FALSE(Run());
    EXPECT_EQ(FailureKindName(result.failure_kind), kind);
    EXPECT_EQ(error_text, text);
    EXPECT_EQ(error_text.substr(0, result.error.size()), result.error);
    EXPECT_EQ(result.winhttp_error_code, transport.failure_code);
    std::set<std::string> fields = {"failure_kind=" + kind, "origin_role=" + role,
                                    "reason=" + reason, "url=" + StripUrlQuery(url)};
    if (!extra.empty()) fields.insert(extra);
    std::string event = "download_fail";
    for (const std::string& field : fields) event += " " + field;
    EXPECT_EQ(trace.Events().back(), event);
    // The file is begun only after the final URL was judged.
    const bool judged = trace.Text().find("download_redirect_resolution") != std::string::npos;
    EXPECT_EQ(test::Exists(destination), judged);
  }
};

TEST(DownloadPackage, FollowsItsStepsAndWritesTheFile) {
  Rehearsal run;
  run.result.http_status = 7;
  run.result.error = "stale";
  run.transport.chunks = {"PK\3\4", "body"};
  run.transport.content_length = "8";
  run.transport.effective_url = "https://" + run.host + "/final.zip?token=secret";
  run.transport.ms_per_read = 250;
  Strings reports;
  run.on_progress = [&](std::string_view role, std::uint64_t bytes, std::uint64_t total,
                        std::uint64_t bps) {
    reports.push_back(std::string(role) + " " + std::to_string(bytes) + "/" +
                      std::to_string(total) + " " + std::to_string(bps));
  };
  EXPECT_TRUE(run.Run());
  EXPECT_EQ(test::ReadFile(run.destination), "PK\3\4body");
  EXPECT_EQ(run.error_text, "untouched");
  EXPECT_EQ(reports, (Strings{"primary 4/8 16", "primary 8/8 16", "primary 8/8 16"}));

  const std::string url = "https://" + run.host + "/pkg.zip";
  const std::string final_url = "https://" + run.host + "/final.zip";
  EXPECT_EQ(run.result.requested_url, url);
  EXPECT_EQ(run.result.effective_url, final_url);
  EXPECT_EQ(run.result.http_status, 200);
  EXPECT_EQ(run.result.total_bytes, 8U);
  EXPECT_EQ(run.result.elapsed_ms, 500U);
  EXPECT_EQ(run.result.error, "");
  EXPECT_EQ(
      run.transport.calls,
      (Strings{"OpenSession zul_updater/1.0", "SetTimeouts 5000 5000 30000",
               "Connect " + run.host + " 443", "OpenRequest /pkg.zip?token=secret#secret secure",
               "SendAndReceive", "QueryStatus", "QueryDataAvailable", "ReadData",
               "QueryDataAvailable", "ReadData", "QueryDataAvailable"}));
  EXPECT_EQ(run.transport.receive_timeout_ms, 30000U);
  EXPECT_EQ(run.trace.Events(),
            (Strings{"download_start origin_role=primary url=" + url,
                     "download_redirect_resolution effective_url=" + final_url +
                         " origin_role=primary requested_url=" + url,
                     "download_complete avg_throughput_bps=16 bytes_downloaded=8 effective_url=" +
                         final_url + " elapsed_ms=500 origin_role=primary"}));
}

TEST(DownloadPackage, ReportsEachFailureInItsOwnWords) {
  const struct {
    const char* step;
    std::uint32_t code;
    const char *text, *kind, *reason;
  } steps[] = {
      {"OpenSession", 12, "WinHttpOpen failed (code=12)", "transport", "winhttp_open"},
      {"Connect", 12002, "WinHttpConnect failed (code=12002)", "transport", "winhttp_connect"},
      {"OpenRequest", 0, "WinHttpOpenRequest failed", "transport", "winhttp_open_request"},
      {"SendAndReceive", 12029, "WinHTTP send/receive failed (code=12029)", "transport",
       "winhttp_send_receive"},
      {"SendAndReceive", 12002, "WinHTTP send/receive failed (code=12002)", "timeout",
       "winhttp_send_receive"},
      {"QueryStatus", 12150, "WinHTTP status query failed (code=12150)", "transport",
       "status_query"},
      {"QueryDataAvailable", 12002, "WinHttpQueryDataAvailable failed (code=12002)", "timeout",
       "query_data_available"},
      {"ReadData", 12030, "WinHttpReadData failed (code=12030)", "transport", "read_data"},
      {"ReadData", 12002, "WinHttpReadData failed (code=12002)", "timeout", "read_data"},
  };
  for (const auto& s : steps) {
    SCOPED_TRACE(s.text);
    Rehearsal run;
    run.transport.chunks = {"more"};
    run.transport.failing_step = s.step;
    run.transport.failure_code = s.code;
    run.ExpectFailure(s.text, s.kind, s.reason, "winhttp_error_code=" + std::to_string(s.code));
  }
}

TEST(DownloadPackage, RefusesWhatIsNotThePackage) {
  const std::string host = DefaultUpdateDownloadHosts().front();
  const auto status = [](int number) { return [=](Rehearsal& r) { r.transport.status = number; }; };
  const auto declares = [](const char* length) {
    return [=](Rehearsal& r) { r.transport.content_length = length; };
  };
  const auto leads_to = [](const std::string& url) {
    return [=](Rehearsal& r) { r.transport.effective_url = url; };
  };
  const test::SmallVolume volume;
  const std::string too_big = "Update package exceeds maximum allowed size";
  const struct {
    std::function<void(Rehearsal&)> script;
    std::string text, kind, reason, extra;
  } rows[] = {
      {[&](Rehearsal& r) { r.url = "http://" + host + "/pkg.zip?secret"; },
       "Update URL must use HTTPS", "transport", "url_parse", "error=Update URL must use HTTPS"},
      {status(199), "Update download HTTP status 199", "http_status", "http_status",
       "http_status=199"},
      {status(300), "Update download HTTP status 300", "http_status", "http_status",
       "http_status=300"},
      {declares("1073741825"), too_big, "http_status", "content_length_cap",
       "declared_size=1073741825"},
      {declares("99999999999999999999"), too_big, "http_status", "content_length_cap",
       "declared_size=18446744073709551615"},
      {leads_to("http://" + host + "/x?secret"), "Update URL must use HTTPS", "transport",
       "effective_url_validation", "effective_url=http://" + host + "/x"},
      // A text that hides another host.
      {leads_to("https://" + host + "\\@evil/"),
       "Invalid HTTPS URL in download_url: URL host is empty or contains user info", "transport",
       "effective_url_host_allowlist", "effective_url=https://" + host + "\\@evil/"},
      {leads_to("https://evil.example/x?secret"),
       "Update download host is not allowed: evil.example", "transport",
       "effective_url_host_allowlist", "effective_url=https://evil.example/x"},
      {[](Rehearsal& r) { test::WriteFile(r.destination / "in/the/way", ""); },
       "Cannot open update package destination file", "file_io", "open_output", ""},
      {[](Rehearsal& r) { r.destination = "/dev/full"; }, "Cannot write update package file",
       "file_io", "write_output", ""},
      {[&volume](Rehearsal& r) {
         r.destination = volume.path() / "package.zip";
         r.transport.chunks.assign(90, std::string(65536, 'x'));
       },
       "Cannot write update package file", "file_io", "write_output", ""},
      {[](Rehearsal& r) { r.max_bytes = 7; }, too_big, "file_io", "download_size_cap",
       "bytes_downloaded=8"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.reason + " " + row.extra);
    Rehearsal run;
    run.transport.chunks = {"four", "more"};
    row.script(run);
    // Only some systems have a device that is always full.
    if (run.destination == "/dev/full" && !test::Exists(run.destination)) continue;
    if (run.destination == "package.zip") continue;  // no small volume here
    run.ExpectFailure(row.text, row.kind, row.reason, row.extra);
  }
}

TEST(DownloadPackage, AcceptsWhatLiesOnTheBounds) {
  const struct {
    std::function<void(Rehearsal&)> script;
    std::uint64_t total = 0;
    std::string contents = "1234";
  } rows[] = {
      {[](Rehearsal& r) { r.transport.content_length = "1073741824"; }, 1073741824},
      {[](Rehearsal& r) { r.max_bytes = 4; }},
      {[](Rehearsal& r) { r.transport.content_length = "many"; }},
      {[](Rehearsal& r) { r.transport.content_length = "100"; }, 100},
      {[](Rehearsal& r) { r.transport.chunks.clear(); }, 0, ""},
      {[](Rehearsal& r) { r.transport.ends_in_empty_read = true; }},
      {[](Rehearsal& r) { r.transport.status = 299; }},
      {[](Rehearsal& r) {
        r.transport.effective_url = "https://" + DefaultUpdateDownloadHosts().back() + "/x";
      }},
      {[](Rehearsal& r) { test::WriteFile(r.destination, "longer than the new one"); }},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(&row - rows);
    Rehearsal run;
    run.transport.chunks = {"1234"};
    row.script(run);
    EXPECT_TRUE(run.Run()) << run.error_text;
    EXPECT_EQ(run.result.failure_kind, DownloadFailureKind::kNone);
    EXPECT_EQ(run.result.total_bytes, row.total);
    EXPECT_EQ(run.result.bytes_downloaded, row.contents.size());
    EXPECT_EQ(test::ReadFile(run.destination), row.contents);
  }
}

TEST(DownloadPackage, AsksForCancellationAtEachPoint) {
  const std::pair<const char*, const char*> reasons[] = {
      {"cancelled_before_connect", ""},
      {"cancelled_after_session_open", ""},
      {"cancelled_before_send", ""},
      {"cancelled_during_download", "bytes_downloaded=0"},
      {"cancelled_during_download", "bytes_downloaded=3"},
      {"cancelled_during_download", "bytes_downloaded=6"},
  };
  int point = 0;
  for (const auto& [reason, extra] : reasons) {
    SCOPED_TRACE(point);
    Rehearsal run;
    run.transport.chunks = {"one", "two"};
    run.on_cancel = [&, asked = 0]() mutable { return asked++ == point; };
    run.ExpectFailure("Download cancelled.", "timeout", reason, extra);
    EXPECT_EQ(run.transport.receive_timeout_ms, run.transport.calls.empty() ? 0U : 5000U);
    ++point;
  }
}

TEST(DownloadPackage, ProgressEventsCatchUpOneStepAChunk) {
  Rehearsal run;
  run.role = "rf_fallback";
  run.transport.chunks = {std::string(kDownloadProgressEventStep - 1, 'a'),
                          std::string(2 * kDownloadProgressEventStep + 1, 'b'), "c", "d", "e"};
  run.transport.ms_per_read = 1000;
  test::FakeScreen screen;
  UpdateProgressWindow window(std::make_unique<test::FakeSurface>(screen));
  run.window = &window;
  EXPECT_TRUE(run.Run());
  const auto progress = [&](std::uint64_t bytes, std::uint64_t ms) {
    return "download_progress avg_throughput_bps=" + std::to_string(bytes * 1000 / ms) +
           " bytes_downloaded=" + std::to_string(bytes) + " elapsed_ms=" + std::to_string(ms) +
           " origin_role=rf_fallback";
  };
  const Strings events = run.trace.Events();
  ASSERT_EQ(events.size(), 6U);
  EXPECT_EQ((Strings{events.begin() + 2, events.end() - 1}),
            (Strings{progress(3145728, 2000), progress(3145729, 3000), progress(3145730, 4000)}));

  ASSERT_GE(screen.paints.size(), 2U);
  EXPECT_EQ(screen.paints[0], "Connecting to RF mirror... | Preparing download... | Working... | ");
  EXPECT_TRUE(screen.paints[1].starts_with("Downloading update from RF mirror..."));
}

TEST(ShouldTryFallback, OnlyForWhatAMirrorMayCure) {
  using Kind = DownloadFailureKind;
  const struct {
    Kind kind;
    std::int32_t status;
    bool expected;
    const char* word;
  } rows[] = {{Kind::kNone, 0, false, "none"},
              {Kind::kTransport, 0, true, "transport"},
              {Kind::kTimeout, 200, true, "timeout"},
              {Kind::kStall, 200, true, "stall"},
              {Kind::kHttpStatus, 499, false, "http_status"},
              {Kind::kHttpStatus, 500, true, "http_status"},
              {Kind::kFileIo, 503, false, "file_io"},
              {static_cast<Kind>(99), 503, false, "unknown"}};
  for (const auto& row : rows) {
    DownloadResult result;
    result.failure_kind = row.kind;
    result.http_status = row.status;
    EXPECT_EQ(ShouldTryFallback(result), row.expected) << row.word << " " << row.status;
    EXPECT_EQ(FailureKindName(row.kind), row.word);
    result.success = true;
    EXPECT_FALSE(ShouldTryFallback(result));
  }
}

}  // namespace
}  // namespace zul

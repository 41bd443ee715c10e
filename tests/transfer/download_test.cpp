#include "transfer/download.h"

#include <gtest/gtest.h>

#include "tests/support/file_tricks.h"
#include "tests/support/trace_reader.h"
#include "tests/transfer/recording_surface.h"
#include "tests/transfer/scripted_transport.h"
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

  std::string EventStart(const char* name) const {
    return std::string(name) + " origin_role=" + role + " ";
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
            (Strings{run.EventStart("download_start") + "url=" + url,
                     "download_redirect_resolution effective_url=" + final_url +
                         " origin_role=primary requested_url=" + url,
                     "download_complete avg_throughput_bps=16 bytes_downloaded=8 effective_url=" +
                         final_url + " elapsed_ms=500 origin_role=primary"}));
}

TEST(DownloadPackage, ReportsEachFailureInItsOwnWords) {
  using Kind = DownloadFailureKind;
  struct Row {
    const char* name;
    std::function<void(Rehearsal&)> script;
    Kind kind;
    std::string error_text;
    std::string fields;  ///< of download_fail, sorted; H is the host, origin and url left out
  };
  const auto fail_at = [](const char* step, std::uint32_t code) {
    return [=](Rehearsal& r) {
      r.transport.failing_step = step;
      r.transport.failure_code = code;
    };
  };
  const std::string too_big = "Update package exceeds maximum allowed size";
  const std::string not_allowed = "Update download host is not allowed: ";
  const test::SmallVolume volume;
  const Row rows[] = {
      {"no URL", [](Rehearsal& r) { r.url = "http://" + r.host + "/pkg.zip?secret"; },
       Kind::kTransport, "Update URL must use HTTPS",
       "error=Update URL must use HTTPS failure_kind=transport reason=url_parse"},
      {"no session", fail_at("OpenSession", 12), Kind::kTransport, "WinHttpOpen failed (code=12)",
       "failure_kind=transport reason=winhttp_open winhttp_error_code=12"},
      {"no connection", fail_at("Connect", 12002), Kind::kTransport,
       "WinHttpConnect failed (code=12002)",
       "failure_kind=transport reason=winhttp_connect winhttp_error_code=12002"},
      {"no request", fail_at("OpenRequest", 0), Kind::kTransport, "WinHttpOpenRequest failed",
       "failure_kind=transport reason=winhttp_open_request winhttp_error_code=0"},
      {"refused", fail_at("SendAndReceive", 12029), Kind::kTransport,
       "WinHTTP send/receive failed (code=12029)",
       "failure_kind=transport reason=winhttp_send_receive winhttp_error_code=12029"},
      {"silent server", fail_at("SendAndReceive", 12002), Kind::kTimeout,
       "WinHTTP send/receive failed (code=12002)",
       "failure_kind=timeout reason=winhttp_send_receive winhttp_error_code=12002"},
      {"no status", fail_at("QueryStatus", 12150), Kind::kTransport,
       "WinHTTP status query failed (code=12150)",
       "failure_kind=transport reason=status_query winhttp_error_code=12150"},
      {"not found", [](Rehearsal& r) { r.transport.status = 404; }, Kind::kHttpStatus,
       "Update download HTTP status 404",
       "failure_kind=http_status http_status=404 reason=http_status"},
      {"below the range", [](Rehearsal& r) { r.transport.status = 199; }, Kind::kHttpStatus,
       "Update download HTTP status 199",
       "failure_kind=http_status http_status=199 reason=http_status"},
      {"above the range", [](Rehearsal& r) { r.transport.status = 300; }, Kind::kHttpStatus,
       "Update download HTTP status 300",
       "failure_kind=http_status http_status=300 reason=http_status"},
      {"declared one byte too long",
       [](Rehearsal& r) { r.transport.content_length = "1073741825"; }, Kind::kHttpStatus, too_big,
       "declared_size=1073741825 failure_kind=http_status reason=content_length_cap"},
      {"declared beyond 64 bits",
       [](Rehearsal& r) { r.transport.content_length = "99999999999999999999"; }, Kind::kHttpStatus,
       too_big,
       "declared_size=18446744073709551615 failure_kind=http_status reason=content_length_cap"},
      {"redirected to plain http",
       [](Rehearsal& r) { r.transport.effective_url = "http://" + r.host + "/x?secret"; },
       Kind::kTransport, "Update URL must use HTTPS",
       "effective_url=http://H/x failure_kind=transport reason=effective_url_validation"},
      {"redirected to a text that hides another host",
       [](Rehearsal& r) { r.transport.effective_url = "https://" + r.host + "\\@evil/"; },
       Kind::kTransport,
       "Invalid HTTPS URL in download_url: URL host is empty or contains user info",
       "effective_url=https://H\\@evil/ failure_kind=transport "
       "reason=effective_url_host_allowlist"},
      {"redirected off the list",
       [](Rehearsal& r) { r.transport.effective_url = "https://evil.example/x?secret"; },
       Kind::kTransport, not_allowed + "evil.example",
       "effective_url=https://evil.example/x failure_kind=transport "
       "reason=effective_url_host_allowlist"},
      {"a folder in the place of the file",
       [](Rehearsal& r) { test::WriteFile(r.destination / "in/the/way", ""); }, Kind::kFileIo,
       "Cannot open update package destination file", "failure_kind=file_io reason=open_output"},
      {"a full device", [](Rehearsal& r) { r.destination = "/dev/full"; }, Kind::kFileIo,
       "Cannot write update package file", "failure_kind=file_io reason=write_output"},
      {"a volume that fills up",
       [&volume](Rehearsal& r) {
         r.destination = volume.path() / "package.zip";
         r.transport.chunks.assign(90, std::string(65536, 'x'));
       },
       Kind::kFileIo, "Cannot write update package file",
       "failure_kind=file_io reason=write_output"},
      {"time-out of the query", fail_at("QueryDataAvailable", 12002), Kind::kTimeout,
       "WinHttpQueryDataAvailable failed (code=12002)",
       "failure_kind=timeout reason=query_data_available winhttp_error_code=12002"},
      {"broken read", fail_at("ReadData", 12030), Kind::kTransport,
       "WinHttpReadData failed (code=12030)",
       "failure_kind=transport reason=read_data winhttp_error_code=12030"},
      {"time-out of the read", fail_at("ReadData", 12002), Kind::kTimeout,
       "WinHttpReadData failed (code=12002)",
       "failure_kind=timeout reason=read_data winhttp_error_code=12002"},
      {"body past the cap", [](Rehearsal& r) { r.max_bytes = 7; }, Kind::kFileIo, too_big,
       "bytes_downloaded=8 failure_kind=file_io reason=download_size_cap"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    Rehearsal run;
    run.transport.chunks = {"four", "more"};
    row.script(run);
    // Only some systems have a device that is always full.
    if (run.destination == "/dev/full" && !test::Exists(run.destination)) continue;
    if (run.destination == "package.zip") continue;  // no small volume here
    EXPECT_FALSE(run.Run());
    EXPECT_EQ(run.result.failure_kind, row.kind);
    EXPECT_EQ(run.error_text, row.error_text);
    EXPECT_EQ(run.error_text.substr(0, run.result.error.size()), run.result.error);
    EXPECT_EQ(run.result.winhttp_error_code, run.transport.failure_code);

    std::string fields = row.fields;
    if (const auto place = fields.find("//H"); place != std::string::npos) {
      fields.replace(place + 2, 1, run.host);
    }
    // Between the sorted keys of the reason stand those of every failure.
    const auto reason = fields.find("reason=");
    fields.insert(reason, "origin_role=primary ");
    auto url_place = fields.find(" winhttp_error_code=");
    if (url_place == std::string::npos) url_place = fields.size();
    fields.insert(url_place, " url=" + StripUrlQuery(run.url));
    EXPECT_EQ(run.trace.Events().back(), "download_fail " + fields);

    // The file is begun only after the final URL was judged.
    const bool judged = run.trace.Text().find("download_redirect_resolution") != std::string::npos;
    EXPECT_EQ(test::Exists(run.destination), judged);
  }
}

TEST(DownloadPackage, AcceptsWhatLiesOnTheBounds) {
  struct Row {
    const char* name;
    std::function<void(Rehearsal&)> script;
    std::uint64_t total;
    std::string contents;
  };
  const Row rows[] = {
      {"exactly the cap declared", [](Rehearsal& r) { r.transport.content_length = "1073741824"; },
       1073741824, "1234"},
      {"exactly the cap received", [](Rehearsal& r) { r.max_bytes = 4; }, 0, "1234"},
      {"a length that is no number", [](Rehearsal& r) { r.transport.content_length = "many"; }, 0,
       "1234"},
      {"a body shorter than declared", [](Rehearsal& r) { r.transport.content_length = "100"; },
       100, "1234"},
      {"an empty body", [](Rehearsal& r) { r.transport.chunks.clear(); }, 0, ""},
      {"an announced chunk that is not there",
       [](Rehearsal& r) { r.transport.ends_in_empty_read = true; }, 0, "1234"},
      {"no content",
       [](Rehearsal& r) {
         r.transport.status = 204;
         r.transport.chunks.clear();
       },
       0, ""},
      {"partial content", [](Rehearsal& r) { r.transport.status = 206; }, 0, "1234"},
      {"a redirect to another mirror",
       [](Rehearsal& r) {
         r.transport.effective_url = "https://" + DefaultUpdateDownloadHosts().back() + "/x";
       },
       0, "1234"},
      {"an older package in the place",
       [](Rehearsal& r) { test::WriteFile(r.destination, "longer than the new one"); }, 0, "1234"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
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
  const std::string reasons[] = {
      "cancelled_before_connect",
      "cancelled_after_session_open",
      "cancelled_before_send",
      "bytes_downloaded=0 cancelled_during_download",
      "bytes_downloaded=3 cancelled_during_download",
      "bytes_downloaded=6 cancelled_during_download",
  };
  int point = 0;
  for (const std::string& reason : reasons) {
    SCOPED_TRACE(reason);
    Rehearsal run;
    run.transport.chunks = {"one", "two"};
    int asked = 0;
    run.on_cancel = [&] { return asked++ == point; };
    EXPECT_FALSE(run.Run());
    ++point;
    EXPECT_EQ(run.result.failure_kind, DownloadFailureKind::kTimeout);
    EXPECT_EQ(run.error_text, "Download cancelled.");
    const std::string event = run.trace.Events().back();
    const auto space = reason.find(' ');
    const std::string word = space == std::string::npos ? reason : reason.substr(space + 1);
    EXPECT_NE(event.find("failure_kind=timeout"), std::string::npos) << event;
    EXPECT_NE(event.find("reason=" + word), std::string::npos) << event;
    if (space != std::string::npos) {
      EXPECT_EQ(event.find("download_fail " + reason.substr(0, space)), 0U) << event;
    }
    EXPECT_EQ(run.transport.receive_timeout_ms, run.transport.calls.empty() ? 0U : 5000U);
  }
}

TEST(DownloadPackage, ProgressEventsCatchUpOneStepAChunk) {
  Rehearsal run;
  run.role = "rf_fallback";
  run.transport.chunks = {std::string(kDownloadProgressEventStep - 1, 'a'),
                          std::string(2 * kDownloadProgressEventStep + 1, 'b'), "c", "d", "e"};
  run.transport.ms_per_read = 1000;
  Strings paints;
  UpdateProgressWindow window(std::make_unique<test::RecordingSurface>(paints));
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

  ASSERT_GE(paints.size(), 2U);
  EXPECT_EQ(paints[0], "Connecting to RF mirror... | Preparing download... |  | -1");
  EXPECT_EQ(paints[1].find("Downloading update from RF mirror..."), 0U);
}

TEST(ShouldTryFallback, OnlyForWhatAMirrorMayCure) {
  using Kind = DownloadFailureKind;
  struct Row {
    Kind kind;
    std::int32_t status;
    bool expected;
    const char* word;
  };
  const Row rows[] = {
      {Kind::kNone, 0, false, "none"},
      {Kind::kTransport, 0, true, "transport"},
      {Kind::kTimeout, 200, true, "timeout"},
      {Kind::kStall, 200, true, "stall"},
      {Kind::kHttpStatus, 404, false, "http_status"},
      {Kind::kHttpStatus, 200, false, "http_status"},
      {Kind::kHttpStatus, 499, false, "http_status"},
      {Kind::kHttpStatus, 500, true, "http_status"},
      {Kind::kHttpStatus, 503, true, "http_status"},
      {Kind::kFileIo, 503, false, "file_io"},
      {static_cast<Kind>(99), 503, false, "unknown"},
  };
  for (const Row& row : rows) {
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

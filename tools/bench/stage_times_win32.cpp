// Times of stages that the trace of a run does not show.
//
//   stage_times.exe scan package.zip
//       the scan of an archive: prints its seconds
//   stage_times.exe window url file
//       a download with the window on the screen: prints its seconds, and those of the window and
//       of two calls of WinHTTP
//   stage_times.exe extract package.zip folder
//   stage_times.exe apply staged installation
//       each of these stages alone, for counting system calls: prints its seconds
//   stage_times.exe probe installation
//       the apply's check for locks, for files that no process holds: prints its seconds and the
//       number of files
//   stage_times.exe trace events
//       writes this number of events to the trace: prints the seconds
//
// The URL's host must be one of the deployment's. Exits with 1 and a message when the stage fails.

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include "apply/apply.h"
#include "apply/target_lock.h"
#include "core/file_layer.h"
#include "core/text.h"
#include "package/extract.h"
#include "package/zip_scan.h"
#include "trace/chain_events.h"
#include "transfer/download.h"
#include "transfer/download_transport.h"
#include "ui/progress_window.h"

namespace {

using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;

int Fail(const std::string& error) {
  std::fprintf(stderr, "%s\n", error.c_str());
  return 1;
}

int TimeScan(const std::string& package) {
  zul::ZipScanResult scan;
  std::string error;
  const auto started = Clock::now();
  if (!zul::ScanZipArchive(package, &scan, &error)) return Fail(error);
  std::printf("%.6f\n", Seconds(Clock::now() - started).count());
  return 0;
}

/// WinHTTP, and how long its two calls for a chunk took.
class TimedTransport final : public zul::DownloadTransport {
 public:
  bool OpenSession(std::string_view agent, std::uint32_t* code) override {
    return inner_->OpenSession(agent, code);
  }
  void SetTimeouts(const zul::TransportTimeouts& timeouts) override {
    inner_->SetTimeouts(timeouts);
  }
  bool Connect(const std::wstring& host, std::uint16_t port, std::uint32_t* code) override {
    return inner_->Connect(host, port, code);
  }
  bool OpenRequest(const std::wstring& path, bool secure, std::uint32_t* code) override {
    return inner_->OpenRequest(path, secure, code);
  }
  bool SendAndReceive(std::uint32_t* code) override { return inner_->SendAndReceive(code); }
  bool QueryStatus(std::int32_t* status, std::uint32_t* code) override {
    return inner_->QueryStatus(status, code);
  }
  std::string ContentLengthText() override { return inner_->ContentLengthText(); }
  std::string EffectiveUrl() override { return inner_->EffectiveUrl(); }
  bool QueryDataAvailable(std::size_t* available, std::uint32_t* code) override {
    began_ = Clock::now();
    if (first_read_ == Clock::time_point()) first_read_ = began_;
    return inner_->QueryDataAvailable(available, code);
  }
  bool ReadData(void* buffer, std::size_t size, std::size_t* read, std::uint32_t* code) override {
    const bool ok = inner_->ReadData(buffer, size, read, code);
    seconds_ += Clock::now() - began_;
    return ok;
  }
  void Close() override { inner_->Close(); }

  [[nodiscard]] Seconds seconds() const { return seconds_; }
  [[nodiscard]] Clock::time_point first_read() const { return first_read_; }

 private:
  std::unique_ptr<zul::DownloadTransport> inner_ = zul::CreateWinHttpTransport();
  Clock::time_point began_;
  Clock::time_point first_read_;
  Seconds seconds_{};
};

/// After each chunk the download reads the time, passes its figures to the window and then to the
/// callback. The time between is the window's.
int TimeWindow(const std::string& url, const std::string& file) {
  zul::UpdateProgressWindow window(zul::CreateScreenSurface());
  window.set_status("Preparing update...", "Creating temporary workspace.", 0);
  auto asked = Clock::now();
  Clock::duration in_window{};
  const auto now_ms = [&asked] {
    asked = Clock::now();
    return static_cast<std::uint64_t>(
        std::chrono::duration_cast<std::chrono::milliseconds>(asked.time_since_epoch()).count());
  };
  const zul::DownloadProgressCallback shown = [&](auto&&...) { in_window += Clock::now() - asked; };
  TimedTransport transport;
  const std::filesystem::path destination = zul::PathFromUtf8(file).value_or("");
  zul::DownloadResult result;
  std::string error;
  const auto started = Clock::now();
  if (!zul::DownloadPackageOver({transport, now_ms},
                                {url, destination, "primary", &window, shown, {}}, &result,
                                &error)) {
    return Fail(error);
  }
  std::printf("%.6f %.6f %.6f %.6f\n", Seconds(Clock::now() - started).count(),
              Seconds(in_window).count(), transport.seconds().count(),
              Seconds(transport.first_read() - started).count());
  return 0;
}

int TimeExtraction(const std::filesystem::path& package, const std::filesystem::path& folder) {
  std::string error;
  const auto started = Clock::now();
  if (!zul::ExtractPackage(package, folder, &error)) return Fail(error);
  std::printf("%.6f\n", Seconds(Clock::now() - started).count());
  return 0;
}

int TimeApply(const std::filesystem::path& staged, const std::filesystem::path& installation) {
  std::string error;
  const auto started = Clock::now();
  if (!zul::ApplyStagedUpdate(staged, installation, 0, nullptr, false, &error, nullptr, nullptr)) {
    return Fail(error);
  }
  std::printf("%.6f\n", Seconds(Clock::now() - started).count());
  return 0;
}

int TimeProbe(const std::filesystem::path& installation) {
  std::vector<std::filesystem::path> files;
  zul::fs::TreeWalker walk(installation);
  zul::fs::DirectoryEntry entry;
  std::error_code ec;
  while (walk.Next(&entry, ec)) {
    if (entry.kind == zul::fs::EntryKind::kRegular) files.push_back(entry.path);
  }
  if (ec) return Fail(ec.message());
  std::string error;
  const auto started = Clock::now();
  for (const std::filesystem::path& file : files) {
    if (!zul::ResolveTargetLock(file, installation, 0, nullptr, &error)) return Fail(error);
  }
  std::printf("%.6f %zu\n", Seconds(Clock::now() - started).count(), files.size());
  return 0;
}

int TimeTrace(int events) {
  const auto started = Clock::now();
  for (int i = 0; i < events; ++i) {
    zul::EmitChainEvent("download_progress", {{"origin_role", "primary"},
                                              {"bytes_downloaded", "104857600"},
                                              {"elapsed_ms", "1000"},
                                              {"avg_throughput_bps", "104857600"}});
  }
  std::printf("%.6f\n", Seconds(Clock::now() - started).count());
  return 0;
}

}  // namespace

// NOLINTNEXTLINE(bugprone-exception-escape): a measurement may end with an exception
int main(int argc, char** argv) {
  const std::string stage = argc > 1 ? argv[1] : "";
  if (stage == "scan" && argc == 3) return TimeScan(argv[2]);
  if (stage == "window" && argc == 4) return TimeWindow(argv[2], argv[3]);
  if (stage == "extract" && argc == 4) return TimeExtraction(argv[2], argv[3]);
  if (stage == "apply" && argc == 4) return TimeApply(argv[2], argv[3]);
  if (stage == "probe" && argc == 3) return TimeProbe(argv[2]);
  if (stage == "trace" && argc == 3) return TimeTrace(std::atoi(argv[2]));
  return 3;
}

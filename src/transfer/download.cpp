#include "transfer/download.h"

#include <cstdlib>
#include <utility>
#include <vector>

#include "core/file_layer.h"
#include "core/keep_alive.h"
#include "trace/chain_events.h"
#include "transfer/download_transport.h"
#include "transfer/url_policy.h"

namespace zul {

namespace {

constexpr std::string_view kUserAgent = "zul_updater/1.0";
constexpr std::string_view kMirrorRole = "rf_fallback";

constexpr std::uint32_t kResolveTimeoutMs = 5000;
constexpr std::uint32_t kConnectTimeoutMs = 5000;
constexpr std::uint32_t kSendTimeoutMs = 30000;
constexpr std::uint32_t kReceiveTimeoutMs = 30000;
/// The callback is asked again only after a read has ended, so a read must end soon.
constexpr std::uint32_t kCancellableReceiveTimeoutMs = 5000;

/// A time-out has a kind of its own: the server is slow, not gone.
DownloadFailureKind KindOfTransferError(std::uint32_t code) {
  return code == kTransportTimeoutCode ? DownloadFailureKind::kTimeout
                                       : DownloadFailureKind::kTransport;
}

/// A value beyond 64 bits becomes the largest one, which is above every cap.
std::uint64_t ParseDeclaredLength(const std::string& text) {
  return std::strtoull(text.c_str(), nullptr, 10);
}

/// What the event `download_fail` says about a failure: the reason word and extra fields.
struct FailureTrace {
  std::string reason;
  std::vector<ChainEventField> extra = {};
  bool with_effective_url = false;
};

/// One download from start to end. Each step returns false after it has reported its failure.
class Download {
 public:
  Download(const DownloadWorld& world, const DownloadJob& job, DownloadResult* result,
           std::string* error_text)
      : world_(world), job_(job), result_(*result), error_text_(error_text) {}

  bool Run() {
    Start();
    const bool succeeded = Connect() && SendRequest() && JudgeResponse() && JudgeEffectiveUrl() &&
                           OpenOutput() && ReceiveBody() && Complete();
    CloseOutput();
    return succeeded;
  }

 private:
  void Start();
  bool Connect();
  bool SendRequest();
  bool JudgeResponse();
  bool JudgeEffectiveUrl();
  bool OpenOutput();
  bool ReceiveBody();
  bool StoreChunk(std::size_t size);
  bool Complete();
  void CloseOutput();

  void UpdateTiming();
  void ReportProgress();
  void EmitProgressWhenDue();
  bool NotCancelled(std::string_view reason, std::vector<ChainEventField> extra = {});
  bool Fail(DownloadFailureKind kind, std::string message, FailureTrace trace);
  bool FailWithCode(DownloadFailureKind kind, std::string message, std::string reason,
                    std::uint32_t code);

  const DownloadWorld& world_;
  const DownloadJob& job_;
  DownloadResult& result_;
  std::string* error_text_;
  std::uint64_t start_ms_ = 0;
  UpdateUrlParts target_;
  fs::File output_;
  std::vector<unsigned char> buffer_;  ///< grows to the largest chunk
  std::uint64_t next_progress_event_ = kDownloadProgressEventStep;
};

void Download::Start() {
  result_ = {};
  result_.origin_role = job_.origin_role;
  result_.requested_url = StripUrlQuery(job_.url);
  start_ms_ = world_.now_ms();
  EmitChainEvent("download_start",
                 {{"origin_role", result_.origin_role}, {"url", result_.requested_url}});
  if (job_.progress_window != nullptr) {
    job_.progress_window->set_status(job_.origin_role == kMirrorRole
                                         ? "Connecting to RF mirror..."
                                         : "Connecting to update server...",
                                     "Preparing download...", -1);
  }
}

bool Download::Connect() {
  if (!NotCancelled("cancelled_before_connect")) return false;
  target_ = ParseUpdateUrl(job_.url);
  if (!target_.ok) {
    return Fail(DownloadFailureKind::kTransport, target_.error,
                {"url_parse", {{"error", target_.error}}});
  }
  std::uint32_t code = 0;
  if (!world_.transport.OpenSession(kUserAgent, &code)) {
    return FailWithCode(DownloadFailureKind::kTransport, "WinHttpOpen failed", "winhttp_open",
                        code);
  }
  world_.transport.SetTimeouts(
      {kResolveTimeoutMs, kConnectTimeoutMs, kSendTimeoutMs,
       job_.cancel_callback ? kCancellableReceiveTimeoutMs : kReceiveTimeoutMs});
  if (!NotCancelled("cancelled_after_session_open")) return false;
  if (!world_.transport.Connect(target_.host, target_.port, &code)) {
    return FailWithCode(DownloadFailureKind::kTransport, "WinHttpConnect failed", "winhttp_connect",
                        code);
  }
  return true;
}

bool Download::SendRequest() {
  std::uint32_t code = 0;
  if (!world_.transport.OpenRequest(target_.path_and_query, target_.secure, &code)) {
    return FailWithCode(DownloadFailureKind::kTransport, "WinHttpOpenRequest failed",
                        "winhttp_open_request", code);
  }
  if (!NotCancelled("cancelled_before_send")) return false;
  if (!world_.transport.SendAndReceive(&code)) {
    return FailWithCode(KindOfTransferError(code), "WinHTTP send/receive failed",
                        "winhttp_send_receive", code);
  }
  return true;
}

bool Download::JudgeResponse() {
  std::uint32_t code = 0;
  if (!world_.transport.QueryStatus(&result_.http_status, &code)) {
    return FailWithCode(DownloadFailureKind::kTransport, "WinHTTP status query failed",
                        "status_query", code);
  }
  if (result_.http_status < 200 || result_.http_status > 299) {
    const std::string status = std::to_string(result_.http_status);
    return Fail(DownloadFailureKind::kHttpStatus, "Update download HTTP status " + status,
                {"http_status", {{"http_status", status}}});
  }
  result_.total_bytes = ParseDeclaredLength(world_.transport.ContentLengthText());
  if (result_.total_bytes > world_.max_bytes) {
    return Fail(DownloadFailureKind::kHttpStatus, "Update package exceeds maximum allowed size",
                {"content_length_cap", {{"declared_size", std::to_string(result_.total_bytes)}}});
  }
  return true;
}

bool Download::JudgeEffectiveUrl() {
  std::string resolved = world_.transport.EffectiveUrl();
  if (resolved.empty()) resolved = job_.url;
  result_.effective_url = StripUrlQuery(resolved);
  // Parsed with its query: in `https://good?@evil/` a parser may take `evil` for the host.
  const UpdateUrlParts parts = ParseUpdateUrl(resolved);
  if (!parts.ok) {
    return Fail(DownloadFailureKind::kTransport,
                parts.error.empty() ? "Resolved update URL is invalid" : parts.error,
                {"effective_url_validation", {}, true});
  }
  std::string refusal;
  if (!IsAllowedDownloadUrl(result_.effective_url, DefaultUpdateDownloadHosts(), &refusal)) {
    return Fail(DownloadFailureKind::kTransport, refusal,
                {"effective_url_host_allowlist", {}, true});
  }
  EmitChainEvent("download_redirect_resolution", {{"origin_role", result_.origin_role},
                                                  {"requested_url", result_.requested_url},
                                                  {"effective_url", result_.effective_url}});
  return true;
}

bool Download::OpenOutput() {
  std::error_code ec;
  // A failure is reported by the open that follows.
  static_cast<void>(fs::CreateDirectories(job_.destination.parent_path(), ec));
  output_ = fs::CreateTruncatedFile(job_.destination, ec);
  if (!output_.is_open()) {
    return Fail(DownloadFailureKind::kFileIo, "Cannot open update package destination file",
                {"open_output"});
  }
  return true;
}

bool Download::ReceiveBody() {
  for (;;) {
    if (!NotCancelled("cancelled_during_download",
                      {{"bytes_downloaded", std::to_string(result_.bytes_downloaded)}})) {
      return false;
    }
    std::uint32_t code = 0;
    std::size_t available = 0;
    if (!world_.transport.QueryDataAvailable(&available, &code)) {
      return FailWithCode(KindOfTransferError(code), "WinHttpQueryDataAvailable failed",
                          "query_data_available", code);
    }
    if (available == 0) return true;
    if (buffer_.size() < available) buffer_.resize(available);
    std::size_t read = 0;
    if (!world_.transport.ReadData(buffer_.data(), available, &read, &code)) {
      return FailWithCode(KindOfTransferError(code), "WinHttpReadData failed", "read_data", code);
    }
    if (read == 0) return true;
    if (!StoreChunk(read)) return false;
    UpdateTiming();
    ReportProgress();
    EmitProgressWhenDue();
  }
}

bool Download::StoreChunk(std::size_t size) {
  std::error_code ec;
  if (!fs::WriteAll(output_, buffer_.data(), size, ec)) {
    return Fail(DownloadFailureKind::kFileIo, "Cannot write update package file", {"write_output"});
  }
  result_.bytes_downloaded += size;
  if (result_.bytes_downloaded > world_.max_bytes) {
    return Fail(
        DownloadFailureKind::kFileIo, "Update package exceeds maximum allowed size",
        {"download_size_cap", {{"bytes_downloaded", std::to_string(result_.bytes_downloaded)}}});
  }
  return true;
}

bool Download::Complete() {
  world_.transport.Close();
  UpdateTiming();
  result_.success = true;
  result_.failure_kind = DownloadFailureKind::kNone;
  ReportProgress();
  EmitChainEvent("download_complete",
                 {{"origin_role", result_.origin_role},
                  {"bytes_downloaded", std::to_string(result_.bytes_downloaded)},
                  {"elapsed_ms", std::to_string(result_.elapsed_ms)},
                  {"avg_throughput_bps", std::to_string(result_.avg_throughput_bps)},
                  {"effective_url", result_.effective_url}});
  return true;
}

/// The window continues to answer: a virus scanner may read the whole package before the close
/// returns, and some file systems write it to the device then.
void Download::CloseOutput() {
  if (!output_.is_open()) return;
  RunKeepingAlive([this] { output_ = {}; }, KeepingAlive(job_.progress_window));
}

void Download::UpdateTiming() {
  result_.elapsed_ms = world_.now_ms() - start_ms_;
  result_.avg_throughput_bps =
      result_.elapsed_ms == 0 ? 0 : result_.bytes_downloaded * 1000 / result_.elapsed_ms;
}

void Download::ReportProgress() {
  if (job_.progress_window != nullptr) {
    job_.progress_window->set_download_progress(job_.origin_role, result_.bytes_downloaded,
                                                result_.total_bytes, result_.avg_throughput_bps);
  }
  if (job_.progress_callback) {
    job_.progress_callback(job_.origin_role, result_.bytes_downloaded, result_.total_bytes,
                           result_.avg_throughput_bps);
  }
}

/// At most one event per chunk. After a chunk of several steps, each of the next chunks emits one
/// until the step has caught up.
void Download::EmitProgressWhenDue() {
  if (result_.bytes_downloaded < next_progress_event_) return;
  EmitChainEvent("download_progress",
                 {{"origin_role", result_.origin_role},
                  {"bytes_downloaded", std::to_string(result_.bytes_downloaded)},
                  {"elapsed_ms", std::to_string(result_.elapsed_ms)},
                  {"avg_throughput_bps", std::to_string(result_.avg_throughput_bps)}});
  next_progress_event_ += kDownloadProgressEventStep;
}

bool Download::NotCancelled(std::string_view reason, std::vector<ChainEventField> extra) {
  if (!job_.cancel_callback || !job_.cancel_callback()) return true;
  return Fail(DownloadFailureKind::kTimeout, "Download cancelled.",
              {std::string(reason), std::move(extra)});
}

bool Download::Fail(DownloadFailureKind kind, std::string message, FailureTrace trace) {
  world_.transport.Close();
  UpdateTiming();
  result_.failure_kind = kind;
  result_.error = std::move(message);
  if (error_text_ != nullptr) {
    *error_text_ = result_.error;
    if (result_.winhttp_error_code != 0) {
      *error_text_ += " (code=" + std::to_string(result_.winhttp_error_code) + ")";
    }
  }
  std::vector<ChainEventField> fields = {{"origin_role", result_.origin_role},
                                         {"url", result_.requested_url}};
  if (trace.with_effective_url) fields.emplace_back("effective_url", result_.effective_url);
  fields.emplace_back("reason", std::move(trace.reason));
  for (ChainEventField& field : trace.extra) fields.push_back(std::move(field));
  fields.emplace_back("failure_kind", FailureKindName(kind));
  EmitChainEvent("download_fail", fields);
  return false;
}

bool Download::FailWithCode(DownloadFailureKind kind, std::string message, std::string reason,
                            std::uint32_t code) {
  result_.winhttp_error_code = code;
  return Fail(kind, std::move(message),
              {std::move(reason), {{"winhttp_error_code", std::to_string(code)}}});
}

}  // namespace

bool DownloadPackageOver(const DownloadWorld& world, const DownloadJob& job, DownloadResult* result,
                         std::string* error_text) {
  return Download(world, job, result, error_text).Run();
}

bool ShouldTryFallback(const DownloadResult& result) {
  if (result.success) return false;
  switch (result.failure_kind) {
    case DownloadFailureKind::kTransport:
    case DownloadFailureKind::kTimeout:
    case DownloadFailureKind::kStall:
      return true;
    case DownloadFailureKind::kHttpStatus:
      return result.http_status >= 500;
    default:
      return false;
  }
}

std::string_view FailureKindName(DownloadFailureKind kind) {
  switch (kind) {
    case DownloadFailureKind::kNone:
      return "none";
    case DownloadFailureKind::kTransport:
      return "transport";
    case DownloadFailureKind::kTimeout:
      return "timeout";
    case DownloadFailureKind::kStall:
      return "stall";
    case DownloadFailureKind::kHttpStatus:
      return "http_status";
    case DownloadFailureKind::kFileIo:
      return "file_io";
  }
  return "unknown";
}

}  // namespace zul

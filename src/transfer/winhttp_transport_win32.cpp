#include <windows.h>

#include <chrono>

#include "core/text.h"
#include "transfer/download.h"
#include "transfer/download_transport.h"
#include "transfer/read_ahead_transport.h"
#include "transfer/winhttp_win32.h"

namespace zul {

namespace {

/// A download is one exchange: a GET without extra headers and without a body.
class WinHttpTransport final : public DownloadTransport {
 public:
  bool OpenSession(std::string_view user_agent, std::uint32_t* code) override {
    return exchange_.OpenSession(Utf8ToWide(user_agent).value_or(std::wstring()), code);
  }
  void SetTimeouts(const TransportTimeouts& timeouts) override { exchange_.SetTimeouts(timeouts); }
  bool Connect(const std::wstring& host, std::uint16_t port, std::uint32_t* code) override {
    return exchange_.Connect(host, port, code);
  }
  bool OpenRequest(const std::wstring& path_and_query, bool secure, std::uint32_t* code) override {
    return exchange_.OpenRequest(L"GET", path_and_query, secure, code);
  }
  bool SendAndReceive(std::uint32_t* code) override {
    return exchange_.SendAndReceive({}, {}, code);
  }
  bool QueryStatus(std::int32_t* status, std::uint32_t* code) override {
    return exchange_.QueryStatus(status, code);
  }
  std::string ContentLengthText() override { return exchange_.ContentLengthText(); }
  std::string EffectiveUrl() override { return exchange_.EffectiveUrl(); }
  bool QueryDataAvailable(std::size_t* available, std::uint32_t* code) override {
    return exchange_.QueryDataAvailable(available, code);
  }
  bool ReadData(void* buffer, std::size_t size, std::size_t* read, std::uint32_t* code) override {
    return exchange_.ReadData(buffer, size, read, code);
  }
  void Close() override { exchange_.Close(); }

 private:
  WinHttpExchange exchange_;
};

std::uint64_t SteadyMilliseconds() {
  const auto since_start = std::chrono::steady_clock::now().time_since_epoch();
  return static_cast<std::uint64_t>(
      std::chrono::duration_cast<std::chrono::milliseconds>(since_start).count());
}

}  // namespace

std::unique_ptr<DownloadTransport> CreateWinHttpTransport() {
  return std::make_unique<WinHttpTransport>();
}

bool DownloadPackage(std::string_view url, const fs::Path& destination_path,
                     std::string_view origin_role, DownloadResult* result, std::string* error_text,
                     UpdateProgressWindow* progress_window,
                     const DownloadProgressCallback& progress_callback,
                     const DownloadCancelCallback& cancel_callback) {
  WinHttpTransport winhttp;
  ReadAheadTransport transport(winhttp, KeepingAlive(progress_window));
  return DownloadPackageOver(
      {transport, SteadyMilliseconds},
      {url, destination_path, origin_role, progress_window, progress_callback, cancel_callback},
      result, error_text);
}

}  // namespace zul

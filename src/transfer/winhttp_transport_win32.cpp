#include <windows.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <utility>

#include "core/handle_win32.h"
#include "core/text.h"
#include "transfer/download.h"
#include "transfer/download_job.h"
#include "transfer/download_transport.h"
#include "transfer/redirect_url.h"
#include "transfer/winhttp_api_win32.h"

namespace zul {

namespace {

struct InternetHandleTraits {
  using Type = HINTERNET;
  static HINTERNET Invalid() { return nullptr; }
  // An open handle came from the library, so the library is there.
  static void Close(HINTERNET handle) { WinHttp()->WinHttpCloseHandle(handle); }
};
using UniqueInternetHandle = UniqueHandle<InternetHandleTraits>;

bool Succeeded(BOOL result, std::uint32_t& code) {
  code = result ? 0 : ::GetLastError();
  return result != FALSE;
}

bool TakeHandle(HINTERNET opened, UniqueInternetHandle& handle, std::uint32_t& code) {
  code = opened == nullptr ? ::GetLastError() : 0;
  handle.Reset(opened);
  return opened != nullptr;
}

/// The redirects of one request, told by WinHTTP while it sends. The last one stands in for the
/// final URL where the system cannot name it.
class RedirectLog {
 public:
  void Begin(std::string url) { url_ = std::move(url); }

  [[nodiscard]] std::string LastUrl() const { return redirected_ ? url_ : std::string(); }

  /// WinHTTP calls this on the thread that sends; `context` is the log.
  static void CALLBACK OnStatus(HINTERNET, DWORD_PTR context, DWORD status, LPVOID information,
                                DWORD) noexcept {
    if (status != WINHTTP_CALLBACK_STATUS_REDIRECT || context == 0 || information == nullptr) {
      return;
    }
    // The platform hands the context back as the integer that it took.
    auto* const log = reinterpret_cast<RedirectLog*>(context);
    log->Follow(static_cast<const wchar_t*>(information));
  }

 private:
  void Follow(const wchar_t* location) {
    // A unit that cannot be converted must not make the host of an earlier URL count.
    url_ = ResolveRedirect(url_, WideToUtf8Lossy(location));
    redirected_ = true;
  }

  std::string url_;
  bool redirected_ = false;
};

class WinHttpTransport final : public DownloadTransport {
 public:
  ~WinHttpTransport() override { Close(); }

  bool OpenSession(std::string_view user_agent, std::uint32_t& code) override {
    if (api_ == nullptr) {
      code = ::GetLastError();
      return false;
    }
    const std::wstring agent = Utf8ToWide(user_agent).value_or(std::wstring());
    return TakeHandle(api_->WinHttpOpen(agent.c_str(), WINHTTP_ACCESS_TYPE_AUTOMATIC_PROXY,
                                        WINHTTP_NO_PROXY_NAME, WINHTTP_NO_PROXY_BYPASS, 0),
                      session_, code);
  }

  void SetTimeouts(const TransportTimeouts& timeouts) override {
    api_->WinHttpSetTimeouts(session_.get(), static_cast<int>(timeouts.resolve_ms),
                             static_cast<int>(timeouts.connect_ms),
                             static_cast<int>(timeouts.send_ms),
                             static_cast<int>(timeouts.receive_ms));
    // The wait for the headers has a limit of its own, which is longer or none at all.
    DWORD response_ms = timeouts.receive_ms;
    api_->WinHttpSetOption(session_.get(), WINHTTP_OPTION_RECEIVE_RESPONSE_TIMEOUT, &response_ms,
                           sizeof(response_ms));
  }

  bool Connect(const std::wstring& host, std::uint16_t port, std::uint32_t& code) override {
    authority_ = host + L":" + std::to_wstring(port);
    return TakeHandle(api_->WinHttpConnect(session_.get(), host.c_str(), port, 0), connection_,
                      code);
  }

  bool OpenRequest(const std::wstring& path_and_query, bool secure, std::uint32_t& code) override {
    const std::wstring url = (secure ? L"https://" : L"http://") + authority_ + path_and_query;
    redirects_.Begin(WideToUtf8Lossy(url));
    if (!TakeHandle(
            api_->WinHttpOpenRequest(connection_.get(), L"GET", path_and_query.c_str(), nullptr,
                                     WINHTTP_NO_REFERER, WINHTTP_DEFAULT_ACCEPT_TYPES,
                                     secure ? WINHTTP_FLAG_SECURE : 0),
            request_, code)) {
      return false;
    }
    api_->WinHttpSetStatusCallback(request_.get(), &RedirectLog::OnStatus,
                                   WINHTTP_CALLBACK_FLAG_REDIRECT, 0);
    return true;
  }

  bool SendAndReceive(std::uint32_t& code) override {
    const auto context = reinterpret_cast<DWORD_PTR>(&redirects_);
    return Succeeded(api_->WinHttpSendRequest(request_.get(), WINHTTP_NO_ADDITIONAL_HEADERS, 0,
                                              WINHTTP_NO_REQUEST_DATA, 0, 0, context),
                     code) &&
           Succeeded(api_->WinHttpReceiveResponse(request_.get(), nullptr), code);
  }

  bool QueryStatus(std::int32_t& status, std::uint32_t& code) override {
    DWORD value = 0;
    DWORD size = sizeof(value);
    if (!Succeeded(api_->WinHttpQueryHeaders(
                       request_.get(), WINHTTP_QUERY_STATUS_CODE | WINHTTP_QUERY_FLAG_NUMBER,
                       WINHTTP_HEADER_NAME_BY_INDEX, &value, &size, WINHTTP_NO_HEADER_INDEX),
                   code)) {
      return false;
    }
    status = static_cast<std::int32_t>(value);
    return true;
  }

  std::string ContentLengthText() override {
    std::array<wchar_t, 32> text{};
    DWORD size_bytes = sizeof(text);
    if (!api_->WinHttpQueryHeaders(request_.get(), WINHTTP_QUERY_CONTENT_LENGTH,
                                   WINHTTP_HEADER_NAME_BY_INDEX, text.data(), &size_bytes,
                                   WINHTTP_NO_HEADER_INDEX)) {
      return {};
    }
    return WideToUtf8Lossy({text.data(), size_bytes / sizeof(wchar_t)});
  }

  std::string EffectiveUrl() override {
    DWORD size_bytes = 0;
    api_->WinHttpQueryOption(request_.get(), WINHTTP_OPTION_URL, nullptr, &size_bytes);
    if (size_bytes > sizeof(wchar_t)) {
      std::wstring url(size_bytes / sizeof(wchar_t), L'\0');
      if (api_->WinHttpQueryOption(request_.get(), WINHTTP_OPTION_URL, url.data(), &size_bytes)) {
        url.resize(std::min(url.size(), size_bytes / sizeof(wchar_t)));
        if (!url.empty() && url.back() == L'\0') url.pop_back();
        if (!url.empty()) return WideToUtf8Lossy(url);
      }
    }
    return redirects_.LastUrl();
  }

  bool QueryDataAvailable(std::size_t& available, std::uint32_t& code) override {
    DWORD size = 0;
    const bool succeeded = Succeeded(api_->WinHttpQueryDataAvailable(request_.get(), &size), code);
    available = size;
    return succeeded;
  }

  bool ReadData(void* buffer, std::size_t size, std::size_t& read, std::uint32_t& code) override {
    DWORD taken = 0;
    const bool succeeded = Succeeded(
        api_->WinHttpReadData(request_.get(), buffer, static_cast<DWORD>(size), &taken), code);
    read = taken;
    return succeeded;
  }

  void Close() override {
    request_.Reset();
    connection_.Reset();
    session_.Reset();
  }

 private:
  const WinHttpApi* const api_ = WinHttp();
  std::wstring authority_;
  RedirectLog redirects_;  // outlives the request that reports to it
  UniqueInternetHandle session_;
  UniqueInternetHandle connection_;
  UniqueInternetHandle request_;
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

bool DownloadPackage(std::string_view url, const std::filesystem::path& destination_path,
                     std::string_view origin_role, DownloadResult& result, std::string* error_text,
                     UpdateProgressWindow* progress_window,
                     const DownloadProgressCallback& progress_callback,
                     const DownloadCancelCallback& cancel_callback) {
  WinHttpTransport transport;
  return DownloadPackageOver(
      {transport, SteadyMilliseconds},
      {url, destination_path, origin_role, progress_window, progress_callback, cancel_callback},
      result, error_text);
}

}  // namespace zul

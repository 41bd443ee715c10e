#include "transfer/winhttp_win32.h"

#include <algorithm>
#include <array>
#include <limits>
#include <utility>

#include "core/text.h"
#include "transfer/url_policy.h"

namespace zul {

namespace {

bool IsComplete(const WinHttpApi& api) {
  return api.WinHttpCloseHandle && api.WinHttpConnect && api.WinHttpCrackUrl && api.WinHttpOpen &&
         api.WinHttpOpenRequest && api.WinHttpQueryDataAvailable && api.WinHttpQueryHeaders &&
         api.WinHttpQueryOption && api.WinHttpReadData && api.WinHttpReceiveResponse &&
         api.WinHttpSendRequest && api.WinHttpSetOption && api.WinHttpSetStatusCallback &&
         api.WinHttpSetTimeouts;
}

bool Succeeded(BOOL result, std::uint32_t* code) {
  *code = result ? 0 : ::GetLastError();
  return result != FALSE;
}

bool TakeHandle(HINTERNET opened, UniqueInternetHandle* handle, std::uint32_t* code) {
  *code = opened == nullptr ? ::GetLastError() : 0;
  handle->Reset(opened);
  return opened != nullptr;
}

}  // namespace

const WinHttpApi* WinHttp() {
  static const LateLibraries for_secure_connections{L"crypt32.dll", L"secur32.dll"};
  static const WinHttpApi api;
  if (IsComplete(api)) return &api;
  ::SetLastError(api.WinHttpOpen.error() != 0 ? api.WinHttpOpen.error() : ERROR_PROC_NOT_FOUND);
  return nullptr;
}

void CALLBACK RedirectLog::OnStatus(HINTERNET, DWORD_PTR context, DWORD status, LPVOID information,
                                    DWORD) noexcept {
  if (status != WINHTTP_CALLBACK_STATUS_REDIRECT || context == 0 || information == nullptr) return;
  // WinHTTP passes the context as an integer.
  // NOLINTNEXTLINE(performance-no-int-to-ptr)
  auto* const log = reinterpret_cast<RedirectLog*>(context);
  log->Follow(static_cast<const wchar_t*>(information));
}

void RedirectLog::Follow(const wchar_t* location) {
  // Lossy: a location that is malformed UTF-16 must still replace the host of the earlier URL.
  url_ = ResolveRedirect(url_, WideToUtf8Lossy(location));
  redirected_ = true;
}

bool WinHttpExchange::OpenSession(const std::wstring& user_agent, std::uint32_t* code) {
  if (api_ == nullptr) {
    *code = ::GetLastError();
    return false;
  }
  return TakeHandle(api_->WinHttpOpen(user_agent.c_str(), WINHTTP_ACCESS_TYPE_AUTOMATIC_PROXY,
                                      WINHTTP_NO_PROXY_NAME, WINHTTP_NO_PROXY_BYPASS, 0),
                    &session_, code);
}

void WinHttpExchange::SetTimeouts(const TransportTimeouts& timeouts) {
  api_->WinHttpSetTimeouts(
      session_.get(), static_cast<int>(timeouts.resolve_ms), static_cast<int>(timeouts.connect_ms),
      static_cast<int>(timeouts.send_ms), static_cast<int>(timeouts.receive_ms));
  // The wait for the headers has its own time-out, which is longer by default, or infinite.
  DWORD response_ms = timeouts.receive_ms;
  api_->WinHttpSetOption(session_.get(), WINHTTP_OPTION_RECEIVE_RESPONSE_TIMEOUT, &response_ms,
                         sizeof(response_ms));
}

bool WinHttpExchange::Connect(const std::wstring& host, std::uint16_t port, std::uint32_t* code) {
  authority_ = host + L":" + std::to_wstring(port);
  return TakeHandle(api_->WinHttpConnect(session_.get(), host.c_str(), port, 0), &connection_,
                    code);
}

bool WinHttpExchange::OpenRequest(const std::wstring& method, const std::wstring& path_and_query,
                                  bool secure, std::uint32_t* code) {
  const std::wstring url = (secure ? L"https://" : L"http://") + authority_ + path_and_query;
  redirects_.Begin(WideToUtf8Lossy(url));
  if (!TakeHandle(
          api_->WinHttpOpenRequest(connection_.get(), method.c_str(), path_and_query.c_str(),
                                   nullptr, WINHTTP_NO_REFERER, WINHTTP_DEFAULT_ACCEPT_TYPES,
                                   secure ? WINHTTP_FLAG_SECURE : 0),
          &request_, code)) {
    return false;
  }
  api_->WinHttpSetStatusCallback(request_.get(), &RedirectLog::OnStatus,
                                 WINHTTP_CALLBACK_FLAG_REDIRECT, 0);
  return true;
}

bool WinHttpExchange::DisableRedirects(std::uint32_t* code) {
  DWORD features = WINHTTP_DISABLE_REDIRECTS;
  return Succeeded(api_->WinHttpSetOption(request_.get(), WINHTTP_OPTION_DISABLE_FEATURE, &features,
                                          sizeof(features)),
                   code);
}

bool WinHttpExchange::SendAndReceive(std::wstring_view headers, std::string_view body,
                                     std::uint32_t* code) {
  // As a length of headers, the largest DWORD means a text that ends in NUL.
  constexpr std::size_t kMaxSize = std::numeric_limits<DWORD>::max() - 1;
  if (headers.size() > kMaxSize || body.size() > kMaxSize) {
    *code = ERROR_INVALID_PARAMETER;
    return false;
  }
  const auto context = reinterpret_cast<DWORD_PTR>(&redirects_);
  const auto body_size = static_cast<DWORD>(body.size());
  // The parameter is not const, but the call does not change the body.
  void* const body_data = body.empty() ? WINHTTP_NO_REQUEST_DATA : const_cast<char*>(body.data());
  return Succeeded(
             api_->WinHttpSendRequest(
                 request_.get(), headers.empty() ? WINHTTP_NO_ADDITIONAL_HEADERS : headers.data(),
                 static_cast<DWORD>(headers.size()), body_data, body_size, body_size, context),
             code) &&
         Succeeded(api_->WinHttpReceiveResponse(request_.get(), nullptr), code);
}

bool WinHttpExchange::QueryStatus(std::int32_t* status, std::uint32_t* code) {
  DWORD value = 0;
  DWORD size = sizeof(value);
  if (!Succeeded(api_->WinHttpQueryHeaders(
                     request_.get(), WINHTTP_QUERY_STATUS_CODE | WINHTTP_QUERY_FLAG_NUMBER,
                     WINHTTP_HEADER_NAME_BY_INDEX, &value, &size, WINHTTP_NO_HEADER_INDEX),
                 code)) {
    return false;
  }
  *status = static_cast<std::int32_t>(value);
  return true;
}

std::string WinHttpExchange::ContentLengthText() {
  std::array<wchar_t, 32> text{};
  DWORD size_bytes = sizeof(text);
  if (!api_->WinHttpQueryHeaders(request_.get(), WINHTTP_QUERY_CONTENT_LENGTH,
                                 WINHTTP_HEADER_NAME_BY_INDEX, text.data(), &size_bytes,
                                 WINHTTP_NO_HEADER_INDEX)) {
    return {};
  }
  return WideToUtf8Lossy({text.data(), size_bytes / sizeof(wchar_t)});
}

std::string WinHttpExchange::EffectiveUrl() {
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

bool WinHttpExchange::QueryDataAvailable(std::size_t* available, std::uint32_t* code) {
  DWORD size = 0;
  const bool succeeded = Succeeded(api_->WinHttpQueryDataAvailable(request_.get(), &size), code);
  *available = size;
  return succeeded;
}

bool WinHttpExchange::ReadData(void* buffer, std::size_t size, std::size_t* read,
                               std::uint32_t* code) {
  DWORD taken = 0;
  const bool succeeded = Succeeded(
      api_->WinHttpReadData(request_.get(), buffer, static_cast<DWORD>(size), &taken), code);
  *read = taken;
  return succeeded;
}

void WinHttpExchange::Close() {
  request_.Reset();
  connection_.Reset();
  session_.Reset();
}

}  // namespace zul

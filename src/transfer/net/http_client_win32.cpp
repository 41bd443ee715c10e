#include "transfer/net/http_client.h"

#include <windows.h>

#include <chrono>

#include "transfer/net/http_call.h"
#include "transfer/winhttp_api_win32.h"
#include "transfer/winhttp_exchange_win32.h"

namespace zul::net {

namespace {

/// The steps up to the wait for the response's headers; the message of the one that failed, or
/// empty.
std::string_view Send(WinHttpExchange& exchange, const HttpCall& call, const HttpRequest& request,
                      std::uint32_t& code) {
  if (!exchange.OpenSession(call.user_agent, code)) return "WinHttpOpen failed";
  exchange.SetTimeouts(call.timeouts);
  if (!exchange.Connect(call.host, call.port, code)) return "WinHttpConnect failed";
  if (!exchange.OpenRequest(call.method, call.path_and_query, true, code)) {
    return "WinHttpOpenRequest failed";
  }
  if (!request.follow_redirects && !exchange.DisableRedirects(code)) {
    return "WinHTTP redirect policy setup failed";
  }
  return exchange.SendAndReceive(call.headers, request.body, code) ? ""
                                                                   : "WinHTTP send/receive failed";
}

/// Reads the body up to `max_bytes`, or all of it for 0; as `Send` for the result. The platform
/// bounds each wait; a server that drips its answer would hold its caller for hours all the same.
std::string_view ReadBody(WinHttpExchange& exchange, std::uint64_t max_bytes,
                          std::chrono::milliseconds timeout, HttpResponse& response,
                          std::uint32_t& code) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    if (std::chrono::steady_clock::now() > deadline) {
      code = kTransportTimeoutCode;
      return "WinHTTP read data failed";
    }
    std::size_t available = 0;
    if (!exchange.QueryDataAvailable(available, code)) {
      return "WinHTTP query data available failed";
    }
    if (available == 0) return {};
    const std::size_t size = response.body.size();
    if (max_bytes != 0 && available > max_bytes - size) {
      response.response_too_large = true;
      return {};
    }
    response.body.resize(size + available);
    std::size_t read = 0;
    const bool succeeded = exchange.ReadData(response.body.data() + size, available, read, code);
    response.body.resize(size + (succeeded ? read : 0));
    if (!succeeded) return "WinHTTP read data failed";
    if (read == 0) return {};
  }
}

class WinHttpClient final : public HttpClient {
 public:
  HttpResponse send(const HttpRequest& request) override {
    HttpResponse response;
    const HttpCall call = PrepareHttpCall(request);
    if (!call.error.empty()) {
      response.error = call.error;
      return response;
    }
    WinHttpExchange exchange;
    std::uint32_t code = 0;
    std::string_view failure = Send(exchange, call, request, code);
    if (failure.empty() && !exchange.QueryStatus(response.status, code)) {
      failure = "WinHTTP status query failed";
    }
    if (failure.empty()) {
      response.effective_url = exchange.EffectiveUrl();
      if (response.effective_url.empty()) response.effective_url = request.url;
      failure = ReadBody(exchange, request.max_response_bytes,
                         std::chrono::milliseconds(call.timeouts.receive_ms), response, code);
    }
    if (!failure.empty()) SetHttpFailure(response, failure, code);
    return response;
  }
};

}  // namespace

std::unique_ptr<HttpClient> CreateDefaultHttpClient() {
  if (WinHttp() == nullptr) return nullptr;
  return std::make_unique<WinHttpClient>();
}

}  // namespace zul::net

#include <windows.h>

#include <chrono>

#include "transfer/net/http_call.h"
#include "transfer/net/http_client.h"
#include "transfer/winhttp_win32.h"

namespace zul::net {

namespace {

/// Sends the request and waits for the headers of the response. Returns the message of the step
/// that failed; empty on success.
std::string_view Send(WinHttpExchange& exchange, const HttpCall& call, const HttpRequest& request,
                      std::uint32_t* code) {
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

/// Reads the body up to `max_bytes`, or all of it for 0. Returns as `Send` does. The platform
/// bounds each wait only, so the body as a whole has a deadline of `timeout`: a server that sends
/// one byte a second would otherwise block the caller for hours.
std::string_view ReadBody(WinHttpExchange& exchange, std::uint64_t max_bytes,
                          std::chrono::milliseconds timeout, HttpResponse* response,
                          std::uint32_t* code) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    if (std::chrono::steady_clock::now() > deadline) {
      *code = kTransportTimeoutCode;
      return "WinHTTP read data failed";
    }
    std::size_t available = 0;
    if (!exchange.QueryDataAvailable(&available, code)) {
      return "WinHTTP query data available failed";
    }
    if (available == 0) return {};
    std::string& body = response->body;
    const std::size_t size = body.size();
    if (max_bytes != 0 && available > max_bytes - size) {
      response->response_too_large = true;
      return {};
    }
    body.resize(size + available);
    std::size_t read = 0;
    const bool succeeded = exchange.ReadData(body.data() + size, available, &read, code);
    body.resize(size + (succeeded ? read : 0));
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
    std::string_view failure = Send(exchange, call, request, &code);
    if (failure.empty() && !exchange.QueryStatus(&response.status, &code)) {
      failure = "WinHTTP status query failed";
    }
    if (failure.empty()) {
      response.effective_url = exchange.EffectiveUrl();
      if (response.effective_url.empty()) response.effective_url = request.url;
      failure = ReadBody(exchange, request.max_response_bytes,
                         std::chrono::milliseconds(call.timeouts.receive_ms), &response, &code);
    }
    if (!failure.empty()) SetHttpFailure(&response, failure, code);
    return response;
  }
};

}  // namespace

std::unique_ptr<HttpClient> CreateDefaultHttpClient() {
  if (WinHttp() == nullptr) return nullptr;
  return std::make_unique<WinHttpClient>();
}

}  // namespace zul::net

#include "transfer/net/http_call.h"

#include <algorithm>
#include <array>
#include <optional>
#include <utility>
#include <vector>

#include "core/text.h"
#include "transfer/url_policy.h"

namespace zul::net {

namespace {

constexpr std::string_view kDefaultUserAgent = "qorva_http/1.0";
constexpr std::string_view kInvalidHeader = "Invalid HTTP header";
constexpr std::string_view kInvalidEncoding = "Invalid HTTP request encoding";

/// Errors of winhttp.h about the server's certificate or the secure channel: CERT_DATE_INVALID,
/// CERT_CN_INVALID, INVALID_CA, CERT_REV_FAILED, SECURE_FAILURE.
constexpr std::array<std::uint32_t, 5> kTlsErrorCodes = {12037, 12038, 12045, 12057, 12175};

std::wstring_view MethodWord(HttpMethod method) {
  switch (method) {
    case HttpMethod::kGet:
      return L"GET";
    case HttpMethod::kPost:
      return L"POST";
    case HttpMethod::kPut:
      return L"PUT";
    case HttpMethod::kDelete:
      return L"DELETE";
    case HttpMethod::kPatch:
      return L"PATCH";
    case HttpMethod::kHead:
      return L"HEAD";
  }
  return L"GET";
}

bool HasLineEnd(std::string_view text) {
  return text.find_first_of("\r\n") != std::string_view::npos;
}

bool HasControlCharacter(std::string_view text) {
  return std::any_of(text.begin(), text.end(),
                     [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7F; });
}

TransportTimeouts Timeouts(const HttpRequest& request) {
  const auto or_default = [](std::int32_t ms, std::uint32_t default_ms) {
    return ms > 0 ? static_cast<std::uint32_t>(ms) : default_ms;
  };
  const std::uint32_t connect_ms = or_default(request.resolve_and_connect_timeout_ms, 5000);
  return {connect_ms, connect_ms, or_default(request.send_timeout_ms, 10000),
          or_default(request.receive_timeout_ms, 15000)};
}

/// Fills `*call` except headers and time-outs. Returns the message of a refusal; empty on success.
std::string_view ConvertTexts(const HttpRequest& request, const NormalizedUrl& url,
                              HttpCall* call) {
  const std::string_view agent =
      request.user_agent.empty() ? kDefaultUserAgent : std::string_view(request.user_agent);
  if (HasLineEnd(agent)) return kInvalidHeader;
  if (HasControlCharacter(url.path_and_query)) return kInvalidEncoding;
  call->method = MethodWord(request.method);
  call->host = Utf8ToWide(url.host).value_or(std::wstring());
  call->port = static_cast<std::uint16_t>(url.port);
  call->path_and_query = Utf8ToWide(url.path_and_query).value_or(std::wstring());
  call->user_agent = Utf8ToWide(agent).value_or(std::wstring());
  const bool converted =
      !call->host.empty() && !call->path_and_query.empty() && !call->user_agent.empty();
  return converted ? std::string_view() : kInvalidEncoding;
}

/// The lines `Name: value` CR LF. Nothing when a name is empty or holds CR, LF or a colon, when a
/// value holds CR or LF, or when either is not UTF-8.
std::optional<std::wstring> RenderHeaders(const std::vector<HttpHeader>& headers) {
  std::wstring lines;
  for (const auto& [name, value] : headers) {
    if (name.empty() || HasLineEnd(name) || name.find(':') != std::string::npos ||
        HasLineEnd(value)) {
      return std::nullopt;
    }
    const std::optional<std::wstring> wide_name = Utf8ToWide(name);
    const std::optional<std::wstring> wide_value = Utf8ToWide(value);
    if (!wide_name || !wide_value) return std::nullopt;
    lines.append(*wide_name).append(L": ").append(*wide_value).append(L"\r\n");
  }
  return lines;
}

}  // namespace

HttpCall PrepareHttpCall(const HttpRequest& request) {
  HttpCall call;
  const NormalizedUrl url = NormalizeUrl(request.url, true);
  if (!url.ok) {
    call.error = url.error;
    return call;
  }
  std::optional<std::wstring> headers = RenderHeaders(request.headers);
  if (!headers) {
    call.error = kInvalidHeader;
    return call;
  }
  call.headers = *std::move(headers);
  call.error = ConvertTexts(request, url, &call);
  call.timeouts = Timeouts(request);
  return call;
}

void SetHttpFailure(HttpResponse* response, std::string_view message, std::uint32_t code) {
  response->error = message;
  response->platform_error = static_cast<std::int32_t>(code);
  response->timed_out = code == kTransportTimeoutCode;
  response->tls_error =
      std::find(kTlsErrorCodes.begin(), kTlsErrorCodes.end(), code) != kTlsErrorCodes.end();
}

HttpResponse SendHttpRequest(const HttpRequest& request) {
  if (const std::unique_ptr<HttpClient> client = CreateDefaultHttpClient()) {
    return client->send(request);
  }
  HttpResponse response;
  response.error = "HTTP transport unavailable";
  return response;
}

}  // namespace zul::net

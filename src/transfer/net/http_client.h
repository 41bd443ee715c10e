#pragma once

// One request and its response, both whole in memory, over HTTPS only. The report upload uses it. A
// package download streams into a file and has its own transport (transfer/download.h).

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace zul::net {

/// Any other value is sent as GET.
enum class HttpMethod : std::int32_t {
  kGet = 0,
  kPost = 1,
  kPut = 2,
  kDelete = 3,
  kPatch = 4,
  kHead = 5,
};

/// Name and value, UTF-8.
using HttpHeader = std::pair<std::string, std::string>;

struct HttpRequest {
  HttpMethod method = HttpMethod::kGet;
  std::string url;  ///< UTF-8; refused unless it is https
  std::vector<HttpHeader> headers;
  std::string body;                                 ///< any bytes
  std::int32_t resolve_and_connect_timeout_ms = 0;  ///< 5000 when not above 0
  std::int32_t send_timeout_ms = 0;                 ///< 10000 when not above 0
  std::int32_t receive_timeout_ms =
      0;  ///< 15000 when not above 0; also the limit for the whole body
  std::uint64_t max_response_bytes = 0;  ///< 0 for no limit
  bool follow_redirects = false;         ///< never from https to http
  std::string user_agent;                ///< UTF-8; "qorva_http/1.0" when empty
};

/// The request failed if and only if `error` is not empty; the other fields then hold what was read
/// before the failure. A status of 4xx or 5xx is not a failure.
struct HttpResponse {
  std::int32_t status = 0;          ///< 0 when no status was read
  std::string body;                 ///< any bytes
  std::string effective_url;        ///< after redirects; empty when no status was read
  std::int32_t platform_error = 0;  ///< the platform's code of the failure; 0 when there is none
  std::string error;
  bool timed_out = false;
  bool tls_error = false;
  bool response_too_large = false;  ///< `body` holds what was read before the limit
};

/// Has no state: several threads may send through one client at once.
class HttpClient {
 public:
  virtual ~HttpClient() = default;

  /// Blocks until the response is complete, its limit is exceeded, or the request has failed. It
  /// cannot be cancelled; the request's time-outs bound each wait for the network.
  [[nodiscard]] virtual HttpResponse send(const HttpRequest& request) = 0;
};

/// The client over WinHTTP; null when the system has no WinHTTP.
[[nodiscard]] std::unique_ptr<HttpClient> CreateDefaultHttpClient();

/// Sends through a default client. When there is none, the response has an error.
[[nodiscard]] HttpResponse SendHttpRequest(const HttpRequest& request);

}  // namespace zul::net

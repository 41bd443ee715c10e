#pragma once

// One request and its response, whole in memory, over HTTPS and nothing else: what the report
// upload sends through. A package download streams into a file and has a transport of its own
// (transfer/download.h).

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
  std::int32_t receive_timeout_ms = 0;   ///< 15000 when not above 0; also of the body as a whole
  std::uint64_t max_response_bytes = 0;  ///< 0 for no limit
  bool follow_redirects = false;         ///< never from https to http
  std::string user_agent;                ///< UTF-8; "qorva_http/1.0" when empty
};

/// What came back. The request failed exactly when `error` is not empty; what had been read until
/// then stands in the other fields. A status of 4xx or 5xx is no failure.
struct HttpResponse {
  std::int32_t status = 0;          ///< 0 when none was read
  std::string body;                 ///< any bytes
  std::string effective_url;        ///< after redirects; empty when no status was read
  std::int32_t platform_error = 0;  ///< of a failure that the platform has a number for
  std::string error;
  bool timed_out = false;
  bool tls_error = false;
  bool response_too_large = false;  ///< `body` holds what fit into the limit
};

/// Has no state: one client may send from several threads at once, or be made for one request.
class HttpClient {
 public:
  virtual ~HttpClient() = default;

  /// Blocks until the response is whole, the limit is passed, or the request has failed. Nothing
  /// cancels it; each wait for the network is bounded by the request's time-outs.
  [[nodiscard]] virtual HttpResponse send(const HttpRequest& request) = 0;
};

/// The client over the platform's HTTP library; null where there is none.
[[nodiscard]] std::unique_ptr<HttpClient> CreateDefaultHttpClient();

/// Sends through a default client. Without one the response's error says so.
[[nodiscard]] HttpResponse SendHttpRequest(const HttpRequest& request);

}  // namespace zul::net

#pragma once

// A request made ready for the platform: everything about it that can be judged before a session
// exists. Inside the room only.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "transfer/download_transport.h"
#include "transfer/net/http_client.h"

namespace zul::net {

/// What the platform's calls take. After a refusal only `error` means anything.
struct HttpCall {
  std::string error;  ///< empty when the request may be sent
  std::wstring method;
  std::wstring host;
  std::uint16_t port = 0;
  std::wstring path_and_query;
  std::wstring headers;  ///< lines that end in CR LF
  std::wstring user_agent;
  TransportTimeouts timeouts{};
};

/// Judges and converts `request`. What would end up between the lines of the request's head is
/// refused: a line end in a header or in the agent, a control character in the path.
[[nodiscard]] HttpCall PrepareHttpCall(const HttpRequest& request);

/// The lines `Name: value` CR LF. Nothing when a name is empty or holds CR, LF or a colon, when a
/// value holds CR or LF, or when either is not UTF-8.
[[nodiscard]] std::optional<std::wstring> RenderHttpHeaders(const std::vector<HttpHeader>& headers);

/// Stores a failure and what the platform's code says about it.
void SetHttpFailure(HttpResponse& response, std::string_view message, std::uint32_t code);

}  // namespace zul::net

#pragma once

// A request prepared for the platform: everything that can be checked before a session exists.
// Inside the room only.

#include <cstdint>
#include <string>
#include <string_view>

#include "transfer/download_transport.h"
#include "transfer/net/http_client.h"

namespace zul::net {

/// The arguments of the platform's calls. After a refusal only `error` is valid.
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

/// Checks and converts `request`. A text that could add a line to the head of the request is
/// refused: a header or agent with a line end, a path with a control character.
[[nodiscard]] HttpCall PrepareHttpCall(const HttpRequest& request);

/// Stores the message and the platform's code of a failure, and sets the flags that follow from the
/// code.
void SetHttpFailure(HttpResponse* response, std::string_view message, std::uint32_t code);

}  // namespace zul::net

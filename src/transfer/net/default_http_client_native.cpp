#include "transfer/net/http_client.h"

namespace zul::net {

std::unique_ptr<HttpClient> CreateDefaultHttpClient() {
  return nullptr;
}

}  // namespace zul::net

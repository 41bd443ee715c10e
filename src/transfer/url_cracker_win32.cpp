#include "transfer/url_cracker.h"

#include "transfer/winhttp_win32.h"

namespace zul {

namespace {

/// As the length of a component: return a pointer into the text instead of a copy.
constexpr DWORD kPointToComponent = static_cast<DWORD>(-1);

std::wstring Component(const wchar_t* start, DWORD length) {
  return start == nullptr ? std::wstring() : std::wstring(start, length);
}

}  // namespace

bool CrackUrl(const std::wstring& url, CrackedUrl* cracked) {
  const WinHttpApi* const api = WinHttp();
  if (api == nullptr) return false;
  URL_COMPONENTS components{};
  components.dwStructSize = sizeof(components);
  components.dwSchemeLength = kPointToComponent;
  components.dwHostNameLength = kPointToComponent;
  components.dwUserNameLength = kPointToComponent;
  components.dwPasswordLength = kPointToComponent;
  components.dwUrlPathLength = kPointToComponent;
  components.dwExtraInfoLength = kPointToComponent;
  if (!api->WinHttpCrackUrl(url.c_str(), static_cast<DWORD>(url.size()), 0, &components))
    return false;
  cracked->scheme =
      components.nScheme == INTERNET_SCHEME_HTTPS ? UrlScheme::kHttps : UrlScheme::kHttp;
  cracked->host = Component(components.lpszHostName, components.dwHostNameLength);
  cracked->port = components.nPort;
  cracked->path = Component(components.lpszUrlPath, components.dwUrlPathLength);
  cracked->extra_info = Component(components.lpszExtraInfo, components.dwExtraInfoLength);
  return true;
}

}  // namespace zul

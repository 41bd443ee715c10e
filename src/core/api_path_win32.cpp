#include "core/api_path_win32.h"

#include <windows.h>

namespace zul::fs {

namespace {

constexpr std::wstring_view kVerbatim = L"\\\\?\\";
constexpr std::wstring_view kVerbatimUnc = L"\\\\?\\UNC\\";

bool IsSeparator(wchar_t c) {
  return c == L'\\' || c == L'/';
}

bool IsLetter(wchar_t c) {
  return (c >= L'A' && c <= L'Z') || (c >= L'a' && c <= L'z');
}

bool StartsWithDriveRoot(std::wstring_view text) {
  return text.size() >= 3 && IsLetter(text[0]) && text[1] == L':' && IsSeparator(text[2]);
}

/// True for "\\server\...", and not for "\\?\" and "\\.\", which are passed on unchanged.
bool StartsWithServer(std::wstring_view text) {
  return text.size() >= 3 && IsSeparator(text[0]) && IsSeparator(text[1]) &&
         !IsSeparator(text[2]) && text[2] != L'?' && text[2] != L'.';
}

/// Appends the components of `text` to `out`. ".." removes the last one, but none of the first
/// `floor` characters of `out`.
void AppendNormalized(std::wstring* out, std::wstring_view text, std::size_t floor) {
  while (!text.empty()) {
    std::size_t length = 0;
    while (length < text.size() && !IsSeparator(text[length])) ++length;
    const std::wstring_view component = text.substr(0, length);
    text.remove_prefix(length < text.size() ? length + 1 : length);
    if (component.empty() || component == L".") continue;
    if (component == L"..") {
      if (out->size() > floor) out->resize(out->rfind(L'\\'));
      continue;
    }
    out->append(1, L'\\').append(component);
  }
}

/// Removes the first component and the separators after it from `text` and returns the component.
std::wstring_view TakeComponent(std::wstring_view& text) {
  std::size_t length = 0;
  while (length < text.size() && !IsSeparator(text[length])) ++length;
  const std::wstring_view component = text.substr(0, length);
  while (length < text.size() && IsSeparator(text[length])) ++length;
  text.remove_prefix(length);
  return component;
}

std::wstring ApiText(std::wstring_view text) {
  std::wstring out;
  out.reserve(text.size() + kVerbatimUnc.size() + 2);  // room for the caller's "\*"
  if (StartsWithDriveRoot(text)) {
    out.append(kVerbatim).append(text.substr(0, 2));
    const std::size_t floor = out.size();
    AppendNormalized(&out, text.substr(2), floor);
    if (out.size() == floor) out += L'\\';
  } else if (StartsWithServer(text)) {
    text.remove_prefix(2);
    out.append(kVerbatimUnc).append(TakeComponent(text));
    const std::wstring_view share = TakeComponent(text);
    if (!share.empty()) out.append(L"\\").append(share);
    const std::size_t floor = out.size();
    AppendNormalized(&out, text, floor);
    if (out.size() == floor) out += L'\\';
  } else {
    out = text;
  }
  return out;
}

}  // namespace

std::wstring ApiPath(const Path& path) {
  return ApiText(path.native());
}

std::wstring AbsoluteApiPath(const Path& path) {
  const std::wstring& text = path.native();
  if (StartsWithDriveRoot(text) || StartsWithServer(text) || text.starts_with(kVerbatim)) {
    return ApiText(text);
  }
  // Another thread may change the current directory between two calls, so the size may grow again.
  std::wstring full(260, L'\0');
  for (;;) {
    const DWORD length =
        ::GetFullPathNameW(text.c_str(), static_cast<DWORD>(full.size()), full.data(), nullptr);
    if (length == 0) return {};
    const bool fits = length < full.size();
    full.resize(length);
    if (fits) return ApiText(full);
  }
}

bool IsApiRoot(std::wstring_view api_path) {
  return api_path.size() == ApiRootLength(api_path);
}

std::size_t ApiRootLength(std::wstring_view api_path) {
  std::size_t separators = 0;
  std::size_t from = 0;
  if (api_path.starts_with(kVerbatimUnc)) {
    from = kVerbatimUnc.size();
    separators = 2;  // after the server and after the share
  } else if (api_path.starts_with(kVerbatim)) {
    from = kVerbatim.size();
    separators = 1;
  } else {
    return 0;
  }
  for (std::size_t at = from; at < api_path.size(); ++at) {
    if (api_path[at] == L'\\' && --separators == 0) return at + 1;
  }
  return api_path.size();
}

bool MeansNothingThere(const std::error_code& ec) {
  switch (ec.value()) {
    case ERROR_FILE_NOT_FOUND:
    case ERROR_PATH_NOT_FOUND:
    case ERROR_INVALID_NAME:
    case ERROR_BAD_PATHNAME:
    case ERROR_DIRECTORY:
      return true;
    default:
      return false;
  }
}

Path PathFromApi(std::wstring_view api_path) {
  if (api_path.starts_with(kVerbatimUnc)) {
    return std::wstring(L"\\\\").append(api_path.substr(kVerbatimUnc.size()));
  }
  if (api_path.starts_with(kVerbatim)) api_path.remove_prefix(kVerbatim.size());
  return std::wstring(api_path);
}

}  // namespace zul::fs

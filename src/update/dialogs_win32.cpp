#include "update/dialogs.h"

#include <windows.h>

#include <shellapi.h>

#include <cstring>

#include "core/text.h"

namespace zul {

namespace {

constexpr wchar_t kTitle[] = L"QORVA Updater";
constexpr UINT kErrorBox = MB_OK | MB_ICONERROR;
constexpr UINT kApplyFailureBox = MB_YESNOCANCEL | MB_ICONERROR;
constexpr UINT kMigrationBox = MB_YESNOCANCEL | MB_ICONINFORMATION;
constexpr UINT kWarningBox = MB_OK | MB_ICONWARNING;

/// The text to display; `fallback` when nothing can be made of it.
std::wstring Displayable(std::string_view text, const wchar_t* fallback) {
  std::wstring wide = Utf8ToWide(text).value_or(std::wstring());
  return wide.empty() ? fallback : wide;
}

int ShowBox(const std::wstring& text, UINT flags) {
  return ::MessageBoxW(nullptr, text.c_str(), kTitle, flags);
}

void Warn(std::string_view prefix, std::string_view address) {
  std::string text(prefix);
  text += address;
  ShowBox(Displayable(text, L"Updater failed."), kWarningBox);
}

/// Shows a box that offers the installer's page and does what the user chose.
void OfferInstaller(const std::wstring& text, UINT flags, std::string_view address) {
  switch (ShowBox(text, flags)) {
    case IDYES:
      if (!OpenUrlInBrowser(address)) Warn("Cannot open browser automatically.\n\n", address);
      break;
    case IDNO:
      if (!CopyTextToClipboard(address)) {
        Warn("Cannot copy download link to clipboard.\n\n", address);
      }
      break;
    default:
      break;
  }
}

/// A movable global block with the text and its terminator; null when there is no memory.
HGLOBAL MakeClipboardBlock(const std::wstring& text) {
  const std::size_t size = (text.size() + 1) * sizeof(wchar_t);
  HGLOBAL block = ::GlobalAlloc(GMEM_MOVEABLE, size);
  if (block == nullptr) return nullptr;
  void* memory = ::GlobalLock(block);
  if (memory == nullptr) {
    ::GlobalFree(block);
    return nullptr;
  }
  std::memcpy(memory, text.c_str(), size);
  ::GlobalUnlock(block);
  return block;
}

}  // namespace

void ShowUpdaterError(std::string_view message) {
  ShowBox(Displayable(message, L"Updater failed."), kErrorBox);
}

void ShowApplyFailureDialog(std::string_view message, std::string_view /*selected_url*/) {
  OfferInstaller(Displayable(BuildApplyFailureDialogText(message), L"Automatic update failed."),
                 kApplyFailureBox, ResolveInstallerPageUrl({}));
}

void ShowInstallerMigrationDialog(std::string_view page_url) {
  OfferInstaller(
      Displayable(BuildMigrationDialogText(page_url), L"QORVA installer migration is required."),
      kMigrationBox, ResolveInstallerPageUrl(page_url));
}

bool OpenUrlInBrowser(std::string_view url) {
  const std::wstring wide = Utf8ToWide(url).value_or(std::wstring());
  if (wide.empty()) return false;
  const HINSTANCE result =
      ::ShellExecuteW(nullptr, L"open", wide.c_str(), nullptr, nullptr, SW_SHOWNORMAL);
  // The platform's documentation: a value above 32 means success.
  return reinterpret_cast<INT_PTR>(result) > 32;
}

bool CopyTextToClipboard(std::string_view text) {
  const std::wstring wide = Utf8ToWide(text).value_or(std::wstring());
  if (wide.empty()) return false;
  HGLOBAL block = MakeClipboardBlock(wide);
  if (block == nullptr) return false;
  if (!::OpenClipboard(nullptr)) {
    ::GlobalFree(block);
    return false;
  }
  ::EmptyClipboard();
  const bool set = ::SetClipboardData(CF_UNICODETEXT, block) != nullptr;
  ::CloseClipboard();
  // From a successful set on the clipboard owns the block.
  if (!set) ::GlobalFree(block);
  return set;
}

}  // namespace zul

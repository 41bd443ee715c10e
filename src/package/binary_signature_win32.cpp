#include <windows.h>

#include <softpub.h>
#include <wincrypt.h>
#include <wintrust.h>

#include <optional>
#include <vector>

#include "core/api_path_win32.h"
#include "core/handle_win32.h"
#include "core/system_library_win32.h"
#include "core/text.h"
#include "package/payload_signatures.h"

namespace zul {

namespace {

constexpr wchar_t kTrustLibrary[] = L"wintrust.dll";
constexpr wchar_t kCryptLibrary[] = L"crypt32.dll";

/// The functions that ReadSignerDisplayName calls. The library is loaded with the first signed
/// file.
struct CryptApi {
  SystemFunction<decltype(::CryptQueryObject)> query_object{kCryptLibrary, "CryptQueryObject"};
  SystemFunction<decltype(::CryptMsgGetParam)> message_parameter{kCryptLibrary, "CryptMsgGetParam"};
  SystemFunction<decltype(::CryptMsgClose)> close_message{kCryptLibrary, "CryptMsgClose"};
  SystemFunction<decltype(::CertFindCertificateInStore)> find_certificate{
      kCryptLibrary, "CertFindCertificateInStore"};
  SystemFunction<decltype(::CertFreeCertificateContext)> free_certificate{
      kCryptLibrary, "CertFreeCertificateContext"};
  SystemFunction<decltype(::CertCloseStore)> close_store{kCryptLibrary, "CertCloseStore"};
  SystemFunction<decltype(::CertGetNameStringW)> name_string{kCryptLibrary, "CertGetNameStringW"};

  explicit operator bool() const {
    return query_object && message_parameter && close_message && find_certificate &&
           free_certificate && close_store && name_string;
  }
};

const CryptApi& Crypt() {
  static const CryptApi api;
  return api;
}

struct StoreTraits {
  using Type = HCERTSTORE;
  static HCERTSTORE Invalid() { return nullptr; }
  static void Close(HCERTSTORE store) { Crypt().close_store(store, 0); }
};
struct MessageTraits {
  using Type = HCRYPTMSG;
  static HCRYPTMSG Invalid() { return nullptr; }
  static void Close(HCRYPTMSG message) { Crypt().close_message(message); }
};
struct CertificateTraits {
  using Type = PCCERT_CONTEXT;
  static PCCERT_CONTEXT Invalid() { return nullptr; }
  static void Close(PCCERT_CONTEXT certificate) { Crypt().free_certificate(certificate); }
};

/// The path in the form that trust providers take: without the long-path prefix while it is short
/// enough, because not every provider handles the prefix. Empty for malformed UTF-8.
std::wstring ProviderPath(const std::string& path) {
  std::wstring wide = Utf8ToWide(path).value_or(std::wstring());
  return wide.size() < MAX_PATH ? wide : fs::ApiPath(wide);
}

/// A CMSG_SIGNER_INFO with the data that it points to; empty when it cannot be read.
std::vector<std::byte> SignerInfo(HCRYPTMSG message) {
  DWORD size = 0;
  if (!Crypt().message_parameter(message, CMSG_SIGNER_INFO_PARAM, 0, nullptr, &size) ||
      size < sizeof(CMSG_SIGNER_INFO)) {
    return {};
  }
  std::vector<std::byte> info(size);
  if (!Crypt().message_parameter(message, CMSG_SIGNER_INFO_PARAM, 0, info.data(), &size)) {
    return {};
  }
  return info;
}

std::string DisplayName(PCCERT_CONTEXT certificate) {
  const auto ask = [certificate](wchar_t* buffer, DWORD units) {
    return Crypt().name_string(certificate, CERT_NAME_SIMPLE_DISPLAY_TYPE, 0, nullptr, buffer,
                               units);
  };
  const DWORD units = ask(nullptr, 0);
  if (units == 0) return {};
  std::wstring name(units, L'\0');
  name.resize(ask(name.data(), units));
  while (!name.empty() && name.back() == L'\0') name.pop_back();
  return WideToUtf8(name).value_or(std::string());
}

/// The status of WinVerifyTrust; nothing on a system without it.
std::optional<LONG> AskTrustProvider(const std::wstring& path) {
  static const LateLibraries for_images{L"imagehlp.dll"};
  static const SystemFunction<decltype(::WinVerifyTrust)> verify_trust(kTrustLibrary,
                                                                       "WinVerifyTrust");
  if (!verify_trust) return std::nullopt;
  WINTRUST_FILE_INFO file{};
  file.cbStruct = sizeof file;
  file.pcwszFilePath = path.c_str();
  WINTRUST_DATA data{};
  data.cbStruct = sizeof data;
  data.dwUIChoice = WTD_UI_NONE;
  data.fdwRevocationChecks = WTD_REVOKE_NONE;
  data.dwUnionChoice = WTD_CHOICE_FILE;
  data.pFile = &file;
  data.dwStateAction = WTD_STATEACTION_VERIFY;
  data.dwProvFlags = WTD_CACHE_ONLY_URL_RETRIEVAL;
  GUID action = WINTRUST_ACTION_GENERIC_VERIFY_V2;
  const LONG status = verify_trust(nullptr, &action, &data);
  data.dwStateAction = WTD_STATEACTION_CLOSE;
  verify_trust(nullptr, &action, &data);
  return status;
}

}  // namespace

UpdatePayloadBinarySignatureResult VerifyBinarySignature(const std::string& path) {
  const std::wstring wide = ProviderPath(path);
  if (wide.empty()) {
    return {PayloadSignatureStatus::kVerificationError, "path conversion failed", {}};
  }
  const std::optional<LONG> status = AskTrustProvider(wide);
  if (!status) {
    return {PayloadSignatureStatus::kVerificationError, "WinVerifyTrust is not available", {}};
  }
  UpdatePayloadBinarySignatureResult result = MapTrustStatus(*status);
  if (result.status == PayloadSignatureStatus::kValid) {
    result.publisher = ReadSignerDisplayName(path);
  }
  return result;
}

std::string ReadSignerDisplayName(const std::string& path) {
  const std::wstring wide = ProviderPath(path);
  if (wide.empty() || !Crypt()) return {};
  HCERTSTORE opened_store = nullptr;
  HCRYPTMSG opened_message = nullptr;
  if (!Crypt().query_object(CERT_QUERY_OBJECT_FILE, wide.c_str(),
                            CERT_QUERY_CONTENT_FLAG_PKCS7_SIGNED_EMBED,
                            CERT_QUERY_FORMAT_FLAG_BINARY, 0, nullptr, nullptr, nullptr,
                            &opened_store, &opened_message, nullptr)) {
    return {};
  }
  const UniqueHandle<StoreTraits> store(opened_store);
  const UniqueHandle<MessageTraits> message(opened_message);

  std::vector<std::byte> signer = SignerInfo(message.get());
  if (signer.empty()) return {};
  const auto* info = reinterpret_cast<const CMSG_SIGNER_INFO*>(signer.data());
  CERT_INFO wanted{};
  wanted.Issuer = info->Issuer;
  wanted.SerialNumber = info->SerialNumber;
  const UniqueHandle<CertificateTraits> certificate(
      Crypt().find_certificate(store.get(), X509_ASN_ENCODING | PKCS_7_ASN_ENCODING, 0,
                               CERT_FIND_SUBJECT_CERT, &wanted, nullptr));
  return certificate ? DisplayName(certificate.get()) : std::string();
}

}  // namespace zul

#pragma once

// Whether the executables and libraries of a staged payload carry signatures that this machine's
// policy trusts. The trust decision is the platform's; the signer's name is collected for the
// record only and decides nothing.

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "core/path.h"

namespace zul {

enum class PayloadSignatureStatus : std::int32_t {
  kValid = 0,
  kUnsigned = 1,
  kInvalid = 2,
  kVerificationError = 3,
};

struct UpdatePayloadBinarySignatureResult {
  PayloadSignatureStatus status = PayloadSignatureStatus::kVerificationError;
  std::string detail;     ///< a word or message, UTF-8
  std::string publisher;  ///< display name of the signing certificate; empty unless valid
};

/// Judges the signature of one file, given by its absolute UTF-8 path.
using PayloadSignatureVerifier =
    std::function<UpdatePayloadBinarySignatureResult(const std::string& path)>;

/// The word for a status in messages; "unknown" for any other value.
[[nodiscard]] std::string_view SignatureStatusWord(PayloadSignatureStatus status);

/// Walks `staged_root` and has `verifier` judge every .exe and .dll; the first that is not valid
/// ends the pass. Without `require_signed` nothing is looked at. `verified_files` (may be null)
/// receives the paths relative to the root with `/` separators, UTF-8, in the order of the walk. On
/// failure `error` (may be null) has the reason. Throws std::filesystem::filesystem_error for an
/// entry whose type cannot be had.
[[nodiscard]] bool VerifyStagedPayloadSignatures(const fs::Path& staged_root, bool require_signed,
                                                 const PayloadSignatureVerifier& verifier,
                                                 std::vector<std::string>* verified_files,
                                                 std::string* error);

/// What the platform's verdict (a HRESULT of WinVerifyTrust) means.
[[nodiscard]] UpdatePayloadBinarySignatureResult MapTrustStatus(std::int32_t trust_status);

/// The platform's verifier: no user interface, no revocation checks, nothing fetched from the
/// network. A system without a trust provider gives kVerificationError.
[[nodiscard]] UpdatePayloadBinarySignatureResult VerifyBinarySignature(const std::string& path);

/// Simple display name of the certificate that signed the file, UTF-8; empty when it cannot be
/// read.
[[nodiscard]] std::string ReadSignerDisplayName(const std::string& path);

}  // namespace zul

#pragma once

// Checks that the executables and libraries of a staged payload have signatures that this machine
// trusts. The platform decides about trust. The signer's name is recorded for information only.

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "core/keep_alive.h"
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

/// Checks the signature of one file. `path` is absolute, UTF-8.
using PayloadSignatureVerifier =
    std::function<UpdatePayloadBinarySignatureResult(const std::string& path)>;

/// True for the name of a file that needs a signature: .exe or .dll, in any case.
[[nodiscard]] bool IsSignedFileName(const fs::Path& path);

/// Calls `verifier` for every .exe and .dll below `staged_root`; the first file that is not valid
/// ends the pass. Without `require_signed` it returns true and reads nothing. `verified_files` (may
/// be null) receives the paths that were checked, relative to the root, UTF-8, with `/` separators,
/// in the order of the walk. On failure `error` (may be null) has the reason. Throws
/// std::filesystem::filesystem_error for an entry whose type cannot be read. `keep_alive` is called
/// for each entry; it may be empty.
[[nodiscard]] bool VerifyStagedPayloadSignatures(const fs::Path& staged_root, bool require_signed,
                                                 const PayloadSignatureVerifier& verifier,
                                                 std::vector<std::string>* verified_files,
                                                 std::string* error,
                                                 const KeepAlive& keep_alive = {});

/// The result for a status of WinVerifyTrust (an HRESULT).
[[nodiscard]] UpdatePayloadBinarySignatureResult MapTrustStatus(std::int32_t trust_status);

/// The platform's verifier (WinVerifyTrust): no user interface, no revocation checks, no network.
/// The trust provider opens the file itself. kVerificationError on a system without a trust
/// provider.
[[nodiscard]] UpdatePayloadBinarySignatureResult VerifyBinarySignature(const std::string& path);

/// The simple display name of the certificate that signed the file at `path` (UTF-8), UTF-8; empty
/// when it cannot be read.
[[nodiscard]] std::string ReadSignerDisplayName(const std::string& path);

}  // namespace zul

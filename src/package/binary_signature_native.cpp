// Only Windows can verify Authenticode signatures. Without it no file counts as signed.

#include "package/payload_signatures.h"

namespace zul {

UpdatePayloadBinarySignatureResult VerifyBinarySignature(const std::string& /*path*/) {
  return {PayloadSignatureStatus::kVerificationError, "no trust provider on this system", {}};
}

std::string ReadSignerDisplayName(const std::string& /*path*/) {
  return {};
}

}  // namespace zul

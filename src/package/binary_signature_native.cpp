// Authenticode is judged by Windows alone; nothing counts as signed where there is no judge.

#include "package/payload_signatures.h"

namespace zul {

UpdatePayloadBinarySignatureResult VerifyBinarySignature(const std::string& /*path*/) {
  return {PayloadSignatureStatus::kVerificationError, "no trust provider on this system", {}};
}

std::string ReadSignerDisplayName(const std::string& /*path*/) {
  return {};
}

}  // namespace zul

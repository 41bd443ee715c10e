// Asks the product's verifier about files and prints one JSON object a line (UTF-8) for each:
//   signature_probe FILE...
//   {"detail":"valid","publisher":"Somebody","signer":"Somebody","status":0}
// "signer" is the name that is read from the file whatever the verdict. Exit code 0, or 64 without
// arguments.

#include <windows.h>

#include <cstdint>
#include <nlohmann/json.hpp>

#include "package/payload_signatures.h"
#include "tests/rig/programs/program_support_win32.h"

int wmain() {
  const auto paths = zul::rig::CommandLineArguments();
  if (paths.empty()) return zul::rig::Usage("usage: signature_probe FILE...");
  for (const std::string& path : paths) {
    const zul::UpdatePayloadBinarySignatureResult result = zul::VerifyBinarySignature(path);
    zul::rig::PrintLine(nlohmann::json{{"status", static_cast<std::int32_t>(result.status)},
                                       {"detail", result.detail},
                                       {"publisher", result.publisher},
                                       {"signer", zul::ReadSignerDisplayName(path)}}
                            .dump());
  }
  return 0;
}

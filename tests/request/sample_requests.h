#pragma once

#include <vector>

#include "request/update_request.h"

namespace zul::test {

/// Requests whose values try every rule of quoting.
[[nodiscard]] inline std::vector<UpdateRequest> SampleRequests() {
  UpdateRequest plain;
  plain.pid = 4294967295;
  plain.download_url = "https://dist.qorva.example/p.zip?a=b&c=%20";
  plain.sha256 = std::string(64, 'a');
  plain.target_dir = "C:\\Qorva";
  plain.restart_exe = "C:\\Qorva\\qorva.exe";

  UpdateRequest quoted = plain;
  quoted.pid = 7;
  quoted.fallback_download_url = "https://mirror1.qorva.example/a b";
  quoted.sha256 = " " + std::string(64, 'F') + "\t";
  quoted.target_dir = "C:\\Program Files\\Žluť \xF0\x9F\x96\xA8\\";
  quoted.restart_exe = "\\\\server\\share name\\\\";
  quoted.restart_args = "a \"b\" \\\"c\\\\\" d\\\\\\";
  quoted.headless_restart_version_proof = true;
  quoted.required_payload_files = {"qorva.exe", "data/ä b.bin", "qorva.exe", "\"", "\\\\\"", "a\\"};
  quoted.require_signed_payload_binaries = true;
  return {UpdateRequest{}, plain, quoted};
}

}  // namespace zul::test

// What an upload does to a report in the queue, and what a report may say.
// Input: the file in the queue; the same bytes are also the text of a report's file.

#include <algorithm>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "collector/evidence_sanitizer.h"
#include "core/text.h"
#include "diagnostics/redaction.h"
#include "diagnostics/report_manifest.h"
#include "diagnostics/report_text.h"
#include "diagnostics/report_upload.h"
#include "tests/fuzz/fuzz_target.h"
#include "tests/support/temp_folder.h"

namespace zul::fuzz {

namespace {

using nlohmann::json;

constexpr std::string_view kHashKeys[] = {"path_hash", "filename_hash", "install_dir_hash"};

void RequireNoIdentifiers(const json& value) {
  if (value.is_object()) {
    for (const std::string_view key : kHashKeys) {
      Require(!value.contains(key), "no hash of a path is left");
    }
  }
  if (value.is_structured()) std::for_each(value.begin(), value.end(), RequireNoIdentifiers);
  if (!value.is_string()) return;
  const std::string& text = value.get_ref<const std::string&>();
  const std::size_t marker = text.find("[redacted-path:");
  Require(marker == std::string::npos || text.find(']', marker) == std::string::npos,
          "no hash in a marker is left");
}

/// `sent` is what an origin gets of the manifest `before`.
void RequireSendable(const json& before, const json& sent) {
  RequireNoIdentifiers(sent);
  const json& contract = sent.at("upload_contract");
  for (const char* flag :
       {"source_artwork_uploaded", "dump_uploaded", "raw_recent_log_tail_uploaded"}) {
    Require(contract.at(flag) == false, "what is not uploaded is said not to be");
    Require(sent.at("privacy").contains(flag), "and promised");
  }
  Require(sent.at("privacy").at("redaction_policy") == kRedactionPolicy, "the policy is told");
  Require(contract.at("what_uploaded") == UploadedParts(before), "what is uploaded is told");
  if (const auto evidence = before.find(kCompactEvidenceKey); evidence != before.end()) {
    const json& of_it = sent.at(kCompactEvidenceKey);
    Require(of_it == SanitizeEvidenceRecord(*evidence), "evidence is sanitised again");
  }
  const json& attempts = sent.at("upload_attempts");
  Require(attempts.size() <= 8 && attempts.back().at("result") == "attempting",
          "attempts are bounded, and the last one is under way");
  json again = sent;
  NormalizeManifestPrivacy(&again);
  Require(again == sent, "a normal manifest stays as it is");
}

void RequireSoundUpload(std::string_view input) {
  static const test::TempFolder folder;
  const fs::Path report = folder / "report.json";
  test::WriteFile(report, input);
  const json before = json::parse(input, nullptr, false);
  const std::atomic<bool> cancel{false};
  std::size_t requests = 0;
  const ReportSender refuse = [&](const net::HttpRequest& request) {
    ++requests;
    const json sent = json::parse(request.body, nullptr, false);
    Require(sent.is_object(), "what is sent is JSON");
    RequireSendable(before, sent);
    Require(sent.at("upload_attempts").back().at("payload_size_bytes") == request.body.size(),
            "a payload is as large as it says");
    net::HttpResponse response;
    response.status = 503;
    return response;
  };
  UploadOneReport(report, cancel, refuse);
  const std::string after = test::ReadFile(report);
  Require(requests == 2 || requests == 0, "every origin is asked, or none");
  if (requests == 0) {
    Require(after == input, "what is no report stays as it is");
    return;
  }
  const json kept = json::parse(after, nullptr, false);
  Require(kept.is_object(), "what stays is JSON");
  if (before.contains(kCompactEvidenceKey) && kept == before) return;  // too large to be rewritten
  Require(kept.at("upload_contract").at("result") == "failed", "a failure is told");
  UploadOneReport(report, cancel, refuse);
  Require(requests == 4, "a report that was kept can be sent");
}

void RequireSoundText(std::string_view input) {
  const std::string text = ReportText(input, true);
  Require(!IsValidUtf8(input) || IsValidUtf8(text), "UTF-8 stays UTF-8");
  for (const std::string_view root : {"\\\\Server\\", "/home/", "/Users/", "/tmp/"}) {
    Require(text.find(root) == std::string::npos, "no path is left");
  }
  // Values that stay may hold the start of one that does not.
  const bool some_stay =
      text.find("e='") != std::string::npos || text.find("owner_query='") != std::string::npos;
  const std::size_t quoted = text.find("target='");
  Require(some_stay || quoted == std::string::npos ||
              text.compare(quoted + 8, kRedactedPath.size(), kRedactedPath) == 0,
          "no quoted value is left");
  const std::string cut = ReportText(input, false);
  Require(cut.find("=== recent log tail ===") == std::string::npos, "the log's tail goes");
}

}  // namespace

void Run(std::string_view input) {
  RequireSoundUpload(input);
  RequireSoundText(input);
}

}  // namespace zul::fuzz

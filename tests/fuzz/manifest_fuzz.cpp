// What an upload makes of a report in the queue, and what the text of a report may hold.
// Input: the file in the queue. The same bytes are also the text of a report's file.

#include <nlohmann/json.hpp>
#include <string>

#include "collector/evidence_sanitizer.h"
#include "core/text.h"
#include "diagnostics/redaction.h"
#include "diagnostics/redaction_steps.h"
#include "diagnostics/report_manifest.h"
#include "diagnostics/report_text.h"
#include "diagnostics/report_upload.h"
#include "tests/fuzz/fuzz_target.h"
#include "tests/support/temp_folder.h"

namespace zul::fuzz {

namespace {

using nlohmann::json;

void RequireNoIdentifiers(const json& sent) {
  const json flat = sent.flatten();
  for (const auto& [pointer, value] : flat.items()) {
    for (const char* key : {"/path_hash/", "/filename_hash/", "/install_dir_hash/"}) {
      Require((pointer + "/").find(key) == pointer.npos, "no hash of a path is left");
    }
    const std::string text = value.is_string() ? value.get<std::string>() : std::string();
    Require(text.find(']', text.find("[redacted-path:")) == text.npos, "nor one in a marker");
  }
}

/// `sent` is what an origin gets of the manifest `before`.
void RequireSendable(const json& before, const json& sent) {
  RequireNoIdentifiers(sent);
  const json& contract = sent.at("upload_contract");
  for (const char* flag :
       {"source_artwork_uploaded", "dump_uploaded", "raw_recent_log_tail_uploaded"}) {
    Require(contract.at(flag) == false, "the contract says what is not uploaded");
    Require(sent.at("privacy").contains(flag), "and so do the privacy promises");
  }
  Require(sent.at("privacy").at("redaction_policy") == kRedactionPolicy, "the policy is named");
  Require(contract.at("what_uploaded") == UploadedParts(before), "the uploaded parts are listed");
  for (const std::string_view key : {kCompactEvidenceKey, kCompactHangKey}) {
    const auto evidence = before.find(key);
    Require(evidence == before.end() || sent.at(key) == SanitizeEvidenceRecord(*evidence),
            "evidence is sanitised again");
  }
  const json& attempts = sent.at("upload_attempts");
  Require(attempts.size() <= 8, "at most 8 attempts are kept");
  Require(attempts.back().at("result") == "attempting", "and the last one is this one");
  json again = sent;
  NormalizeManifestPrivacy(&again);
  Require(again == sent, "a second pass changes nothing");
}

void RequireSoundUpload(std::string_view input) {
  static const test::TempFolder folder;
  const fs::Path report = folder / "report.json";
  test::WriteFile(report, input);
  const json before = json::parse(input, nullptr, false);
  int requests = 0;
  const ReportSender refuse = [&](const net::HttpRequest& request) {
    ++requests;
    const json sent = json::parse(request.body, nullptr, false);
    RequireSendable(before, sent);
    const json& attempt = sent.at("upload_attempts").back();
    Require(attempt.at("payload_size_bytes") == request.body.size(), "the stated size is true");
    net::HttpResponse response;
    response.status = 503;
    return response;
  };
  UploadOneReport(report, {}, refuse);
  const std::string after = test::ReadFile(report);
  Require(requests == 2 || (requests == 0 && after == input),
          "a report is sent to each origin, and another file is neither sent nor changed");
  if (requests == 0) return;
  const json kept = json::parse(after, nullptr, false);
  if (before.contains(kCompactEvidenceKey) && kept == before) return;  // too large to rewrite
  Require(kept.at("upload_contract").at("result") == "failed", "a failure is recorded");
  UploadOneReport(report, {}, refuse);
  Require(requests == 4, "a report that was kept can be sent");
}

/// True when `text` begins with a quoted relative name that has only the bytes of product files.
bool IsHarmlessName(std::string_view text) {
  const std::string_view name = text.substr(0, text.find('\''));
  constexpr std::string_view kBytes =
      "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789._+-/";
  return !name.empty() && name.size() < text.size() && name.front() != '/' &&
         name.find_first_not_of(kBytes) == name.npos;
}

void RequireSoundText(std::string_view input) {
  const std::string text = ReportText(input, true);
  Require(!IsValidUtf8(input) || IsValidUtf8(text), "UTF-8 stays UTF-8");
  for (const char* root : {"\\\\Server\\", "/home/", "/Users/", "/tmp/"}) {
    Require(text.find(root) == text.npos, "no path is left");
  }
  // Values of these keys stay and may hold the beginning of one that does not.
  const bool some_stay = text.find("e='") != text.npos || text.find("owner_query='") != text.npos;
  const std::size_t target = text.find("target='");
  Require(some_stay || target == text.npos || text.find(kRedactedPath, target) == target + 8 ||
              IsHarmlessName(std::string_view(text).substr(target + 8)),
          "no quoted value is left but a relative name of few letters");
  const std::string cut = ReportText(input, false);
  Require(cut.find("=== recent log tail ===") == cut.npos, "the log's tail is removed");
}

}  // namespace

void Run(std::string_view input) {
  RequireSoundUpload(input);
  RequireSoundText(input);
}

}  // namespace zul::fuzz

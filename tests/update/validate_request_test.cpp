#include "update/validate_request.h"

#include <gtest/gtest.h>

#include <functional>

#include "core/text.h"
#include "tests/support/temp_folder.h"
#include "transfer/url_policy.h"

namespace zul {
namespace {

struct Case {
  const char* name;
  std::function<void(UpdateRequest&)> change;
  std::string message;  ///< empty for a request that may run
};

TEST(ValidateUpdateRequest, TheFirstFailingCheckGivesTheMessage) {
  const test::TempFolder folder;
  test::WriteFile(folder / "app/qorva_gui.exe", "MZ");
  const std::string host = DefaultUpdateDownloadHosts().front();

  UpdateRequest sound;
  sound.download_url = "https://" + host + "/qorva.zip";
  sound.sha256 = std::string(64, 'a');
  sound.target_dir = PathToUtf8(folder / "app");
  sound.restart_exe = PathToUtf8(folder / "app" / "qorva_gui.exe");

  const std::string incomplete = "Update payload is incomplete.";
  const std::string bad_digest = "Update SHA-256 must be a 64-character hex string.";
  const Case cases[] = {
      {"a sound request", [](auto&) {}, ""},
      {"a mirror and a contract",
       [&](auto& r) {
         r.fallback_download_url = "https://" + DefaultUpdateDownloadHosts().back() + "/q.zip?t=1";
         r.required_payload_files = {"qorva_gui.exe"};
       },
       ""},
      {"a digest with blanks around it and upper case",
       [](auto& r) { r.sha256 = " \t" + std::string(64, 'F') + "\n"; }, ""},
      {"no url", [](auto& r) { r.download_url.clear(); }, incomplete},
      {"no digest", [](auto& r) { r.sha256.clear(); }, incomplete},
      {"no target", [](auto& r) { r.target_dir.clear(); }, incomplete},
      {"no executable", [](auto& r) { r.restart_exe.clear(); }, incomplete},
      {"restart arguments", [](auto& r) { r.restart_args = "x"; },
       "Updater restart arguments are not supported."},
      {"a proof that would wait for a process",
       [](auto& r) {
         r.headless_restart_version_proof = true;
         r.pid = 7;
         r.target_dir = "no path is looked at";
       },
       "Headless installed-update proof requires an isolated updater request."},
      {"a proof without signatures", [](auto& r) { r.headless_restart_version_proof = true; },
       "Headless installed-update proof requires signed payload verification."},
      {"a target that is not there", [](auto& r) { r.target_dir += "x"; },
       "Update target directory must exist and be a directory."},
      {"a plain http origin", [&](auto& r) { r.download_url = "http://" + host + "/q.zip"; },
       "Update URL must use HTTPS"},
      {"an origin off the list", [](auto& r) { r.download_url = "https://other.example/q.zip"; },
       "Update download host is not allowed: other.example"},
      {"an origin with user info", [&](auto& r) { r.download_url = "https://a@" + host + "/"; },
       "Invalid HTTPS URL in download_url: URL host is empty or contains user info"},
      {"a mirror off the list",
       [](auto& r) { r.fallback_download_url = "https://mirror.other.example/q.zip"; },
       "Update download host is not allowed: mirror.other.example"},
      {"a short digest", [](auto& r) { r.sha256.pop_back(); }, bad_digest},
      {"a digest with a letter too far", [](auto& r) { r.sha256.back() = 'g'; }, bad_digest},
      {"a required path", [](auto& r) { r.required_payload_files = {"bin/qorva.exe"}; },
       "Update package required file name is unsafe: bin/qorva.exe"},
  };
  for (const Case& c : cases) {
    UpdateRequest request = sound;
    c.change(request);
    std::string error;
    EXPECT_EQ(ValidateUpdateRequest(request, &error), c.message.empty()) << c.name;
    EXPECT_EQ(error, c.message) << c.name;
    EXPECT_EQ(ValidateUpdateRequest(request, nullptr), c.message.empty()) << c.name;
  }
}

}  // namespace
}  // namespace zul

#include "update/validate_request.h"

#include <gtest/gtest.h>

#include <functional>

#include "core/text.h"
#include "tests/support/temp_folder.h"
#include "transfer/url_policy.h"

namespace zul {
namespace {

// What else is refused, and each message as the user sees it, the end-to-end runs show.
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
  const struct {
    std::function<void(UpdateRequest&)> change;
    std::string message;  ///< empty for a request that may run
  } cases[] = {
      {[](auto&) {}, ""},
      {[](auto& r) {
         r.fallback_download_url = "https://" + DefaultUpdateDownloadHosts().back() + "/q.zip?t=1";
         r.required_payload_files = {"qorva_gui.exe"};
       },
       ""},
      {[](auto& r) { r.sha256 = " \t" + std::string(64, 'F') + "\n"; }, ""},
      {[](auto& r) { r.download_url.clear(); }, incomplete},
      {[](auto& r) { r.sha256.clear(); }, incomplete},
      {[](auto& r) { r.target_dir.clear(); }, incomplete},
      {[](auto& r) { r.restart_exe.clear(); }, incomplete},
      {[](auto& r) { r.restart_args = "x"; }, "Updater restart arguments are not supported."},
      // A proof that would wait for a process is refused before any path is looked at.
      {[](auto& r) {
         r.headless_restart_version_proof = true;
         r.pid = 7;
         r.target_dir = "x";
       },
       "Headless installed-update proof requires an isolated updater request."},
      {[](auto& r) { r.headless_restart_version_proof = true; },
       "Headless installed-update proof requires signed payload verification."},
      {[](auto& r) { r.target_dir += "x"; },
       "Update target directory must exist and be a directory."},
      {[&](auto& r) { r.download_url = "http://" + host + "/"; }, "Update URL must use HTTPS"},
      {[](auto& r) { r.fallback_download_url = "https://other.example/q.zip"; },
       "Update download host is not allowed: other.example"},
      {[](auto& r) { r.sha256.pop_back(); }, bad_digest},
      {[](auto& r) { r.sha256.back() = 'g'; }, bad_digest},
      {[](auto& r) { r.required_payload_files = {"bin/qorva.exe"}; },
       "Update package required file name is unsafe: bin/qorva.exe"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(&c - cases);
    UpdateRequest request = sound;
    c.change(request);
    std::string error;
    EXPECT_EQ(ValidateUpdateRequest(request, &error), c.message.empty());
    EXPECT_EQ(error, c.message);
    EXPECT_EQ(ValidateUpdateRequest(request, nullptr), c.message.empty());
  }
}

}  // namespace
}  // namespace zul

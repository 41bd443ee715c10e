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
  const struct {
    std::function<void(UpdateRequest&)> change;
    std::string message;  ///< empty for a request that may run
  } cases[] = {
      {[](auto& r) {
         r.fallback_download_url = "https://" + DefaultUpdateDownloadHosts().back() + "/q.zip?t=1";
         r.required_payload_files = {"qorva_gui.exe"};
         r.sha256 = " \t" + std::string(64, 'F') + "\n";
       },
       ""},
      {[](auto& r) { r.download_url.clear(); }, incomplete},
      {[](auto& r) { r.target_dir.clear(); }, incomplete},
      {[](auto& r) { r.restart_exe.clear(); }, incomplete},
      // A proof that would wait for a process is refused before any path is looked at.
      {[](auto& r) {
         r.headless_restart_version_proof = true;
         r.pid = 7;
         r.target_dir = "x";
       },
       "Headless installed-update proof requires an isolated updater request."},
      {[](auto& r) { r.sha256.back() = 'g'; }, "Update SHA-256 must be a 64-character hex string."},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(&c - cases);
    UpdateRequest request = sound;
    c.change(request);
    std::string error;
    EXPECT_EQ(ValidateUpdateRequest(request, &error), c.message.empty());
    EXPECT_EQ(error, c.message);
  }
}

}  // namespace
}  // namespace zul

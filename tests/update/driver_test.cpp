// The driver from validation to restart, with every way in which a run ends.

#include "update/driver.h"

#include <gtest/gtest.h>

#include <cctype>

#include "core/build_identity.h"
#include "core/deployment.h"
#include "tests/diagnostics/started_diagnostics.h"
#include "tests/update/update_scene.h"

namespace zul {
namespace {

using test::UpdateScene;

const std::string kPage(deployment::kPageUrl);
const std::string kOfferedInstaller =
    "\n\nDownload and run the current QORVA installer from:\n" + kPage;
const std::string kMigrationNotice =
    std::string(InstallerMigrationMessage()) + kOfferedInstaller +
    "\n\nAfter installation, close this old copy and start QORVA from the Start Menu/Desktop "
    "shortcut or from the folder chosen in the installer.\n\nYes opens the download page now. No "
    "copies the link to the clipboard.";

std::string ApplyFailureNotice(const std::string& message) {
  return "Automatic update failed during apply stage.\n\n" + message + kOfferedInstaller +
         "\n\nUse Yes to open the download page now, No to copy the link to clipboard.";
}

/// The one box of a run with this report, "stage: message". The number is the style of MessageBoxW.
std::string BoxOf(const std::string& report) {
  const std::size_t colon = report.find(": ");
  const std::string stage = report.substr(0, colon), message = report.substr(colon + 2);
  if (stage == "archive_installer_migration_required") return "67: " + kMigrationNotice;
  return stage == "apply" ? "19: " + ApplyFailureNotice(message) : "16: " + message;
}

// --- Before anything is touched

TEST(Driver, RefusesARequestBeforeAnySideEffect) {
  const std::string incomplete = "Update payload is incomplete.";
  const std::string foreign = "Update download host is not allowed: h.example";
  const std::string no_digest = "Update SHA-256 must be a 64-character hex string.";
  const struct {
    void (*change)(UpdateRequest& request);
    std::string message;
    bool for_proof = false;
    std::wstring more_argument = {};
  } cases[] = {
      {[](auto& r) { r.download_url.clear(); }, incomplete},
      {[](auto& r) { r.sha256.clear(); }, incomplete},
      {[](auto& r) { r.target_dir.clear(); }, incomplete},
      {[](auto& r) { r.restart_exe.clear(); }, incomplete},
      {[](auto& r) { r.unreadable_switch = "--required-payload-file"; },
       "Updater argument --required-payload-file is not valid UTF-16.", false,
       L"--required-payload-file=\xD800"},
      {[](auto& r) { r.restart_args = "x"; }, "Updater restart arguments are not supported."},
      // A proof that waits for a process is refused before the path is.
      {[](auto& r) { r.target_dir = "x"; },
       "Headless installed-update proof requires an isolated updater request.", true},
      {[](auto& r) { r.pid = 0; },
       "Headless installed-update proof requires signed payload verification.", true},
      {[](auto& r) { r.target_dir = "x"; }, "Update target directory must be an absolute path."},
      {[](auto& r) { r.download_url.replace(0, 5, "http"); }, "Update URL must use HTTPS"},
      {[](auto& r) { r.download_url = "https://h.example/p.zip"; }, foreign},
      {[](auto& r) { r.fallback_download_url = "https://h.example/p.zip"; }, foreign},
      {[](auto& r) { r.sha256 += 'a'; }, no_digest},
      {[](auto& r) { r.sha256.back() = 'g'; }, no_digest},
      {[](auto& r) { r.required_payload_files.push_back("../b.dll"); },
       "Update package required file name is unsafe: ../b.dll"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(&c - cases);
    UpdateScene scene;
    scene.request.headless_restart_version_proof = c.for_proof;
    scene.Uninstall("qorva_installation.json");  // validation comes before the archive refusal
    c.change(scene.request);
    scene.more_argument = c.more_argument;
    EXPECT_EQ(scene.Run(), 2);
    EXPECT_EQ(scene.calls, "report box shutdown");
    EXPECT_EQ(scene.report, "validate: " + c.message);
    EXPECT_EQ(scene.boxes, "16: " + c.message);
    EXPECT_EQ(scene.Events() + scene.Kept() + scene.Installed(), "-old");
  }
}

TEST(Driver, PrintsTheVersionAndDoesNothingElse) {
  UpdateScene scene;
  EXPECT_EQ(scene.RunWith({L"updater.exe", L"--pid=1", L"--print-app-version-json", L"more"}), 0);
  EXPECT_EQ(scene.printed, BuildAppVersionJson() + "\n");
  EXPECT_EQ(scene.calls + scene.Events(), "");
}

// --- The stages and their failures

const std::string kEnd = " report window-gone box shutdown";
const std::string kDone = " wait apply start <install>/qorva_gui.exe window-gone";

// Events of the trace, in the order in which the stages write them.
const std::string kStart = "updater_run_start";
const std::string kNotGot = " download_start download_fail";
const std::string kGot =
    " download_start download_redirect_resolution download_complete checksum_verify "
    "checksum_verify";
const std::string kFetched = kStart + kGot + " download_selected";
const std::string kExtracted = kFetched + " extract_start extract_ok";
const std::string kApplied = kExtracted + " apply_start apply_ok";
const std::string kRestarted = kApplied + " restart_start restart_ok";
const std::string kNotExtracted = kFetched + " extract_start extract_fail";
const std::string kNotWaited = kExtracted + " apply_wait_main_process_fail";
const std::string kNotApplied = kExtracted + " apply_start";
const std::string kNotRestarted = kApplied + " restart_start restart_fail";

/// One run and what it must leave. The defaults are those of a success.
struct Case {
  const char* name;
  std::function<void(UpdateScene&)> arrange;
  std::string report = {};  ///< "stage: message"; empty without one
  std::string calls = "isolate primary" + kDone;
  std::string events = kRestarted;
  std::string kept = "-";  ///< in the workspace; "-" without one
  std::string installed = events.find(" apply_ok") != events.npos ? "new" : "old";
  bool next_copy_left = false;

  void Check(bool from_inside = false) const {
    SCOPED_TRACE(name);
    UpdateScene scene;
    if (from_inside) scene.RunFromInside();
    arrange(scene);
    EXPECT_EQ(scene.Run(), report.empty() ? 0 : report.starts_with("archive") ? 18 : 2);
    EXPECT_EQ(scene.calls, calls);
    EXPECT_EQ(scene.report, report);
    EXPECT_EQ(scene.boxes, report.empty() ? "" : BoxOf(report));
    EXPECT_EQ(scene.Events(), events);
    EXPECT_EQ(scene.Kept(), kept);
    EXPECT_EQ(scene.Installed(), installed);
    EXPECT_EQ(scene.next_copy_left, next_copy_left);
    EXPECT_EQ(scene.trace.Text().find("secret"), std::string::npos);
  }
};

TEST(Driver, RunsItsStagesUntilOneFails) {
  const std::string fetched = "isolate primary", package = "update_package.zip",
                    staged = "stage update_package.zip", backed_up = "rollback_backup " + staged;
  const std::string apply_failure = "apply: Cannot apply update safely: <apply error>";
  const Case cases[] = {
      {"success", [](auto&) {}},
      {"a package without the running updater",
       [](auto& s) {
         s.RunFromInside().Serve({{"qorva_gui.exe", "new program"}});
       }},
      // Where the URL does not end in ".zip", the first bytes decide.
      {"a URL with a query", [](auto& s) { s.request.download_url += "?token=secret"; }},
      {"another spelling of the digest",
       [](auto& s) {
         for (char& c : s.request.sha256) c = static_cast<char>(std::toupper(c));
         s.request.sha256 = " \t" + s.request.sha256 + "\n";
       }},
      {"a restart of a name that the update removes",
       [](auto& s) {
         s.Install("qorva.exe").request.restart_exe = PathToUtf8(s.install / "qorva.exe");
       },
       "", "isolate primary" + kDone,
       kNotApplied + " retired_install_executable_removed" + kRestarted.substr(kNotApplied.size()),
       "-", "neither"},
      {"an archive copy", [](auto& s) { s.Uninstall("qorva_installation.json"); },
       "archive_installer_migration_required: QORVA archive mode requires installer migration; "
       "reject normal portable update package for archive mode; target reason: product executable "
       "outside installer directory",
       "report box shutdown", ""},
      {"a copy outside takes over", [](auto& s) { s.relaunched = true; }, "", "isolate shutdown",
       ""},
      {"no copy takes over", [](auto& s) { s.relaunch_error = "no helper"; },
       "isolate_helper: no helper", "isolate report box shutdown", ""},
      {"another updater at work", [](auto& s) { s.other_updater_runs = true; },
       "claim_target: Another updater is already updating the QORVA installation '<install>'. This "
       "updater has not changed anything. Wait until the other one has finished. If QORVA does not "
       "start then, start the update again.",
       "isolate report box shutdown", "updater_run_claim_fail"},
      {"a folder with the name of the claim",
       [](auto& s) { s.Install("._qorva_update_in_progress/x"); }, "", "isolate primary" + kDone,
       "updater_run_claim_warning " + kRestarted},
      {"no temporary folder", [](auto& s) { test::WriteFile(s.temp, ""); },
       "error: Cannot create updater temp directory.", "isolate" + kEnd, kStart},
      {"not a ZIP", [](auto& s) { s.ServeBytes("PK\3?", "?token=secret.zip#"); },
       "error: Unsupported update package format. Only .zip packages are supported.",
       fetched + kEnd, kFetched, package},
      {"a ZIP by name only", [](auto& s) { s.ServeBytes("PK\3?", "/Q.ZIP"); },
       "error: Cannot extract update package: ZIP end record not found", fetched + kEnd,
       kNotExtracted, package},
      {"a package without a required file",
       [](auto& s) { s.request.required_payload_files = {"x.dll"}; },
       "error: Update package contract validation failed: Update package layout mismatch. Required "
       "files are missing: x.dll. Supported layout is either flat ZIP root or a single top-level "
       "wrapper folder containing those files.",
       fetched + kEnd, kNotExtracted, staged},
      {"an unsigned binary", [](auto& s) { s.request.require_signed_payload_binaries = true; },
       apply_failure, fetched + " wait apply" + kEnd, kNotApplied + " apply_fail", staged},
      {"an apply that is rolled back", [](auto& s) { s.faults.fail_after_replacements = 1; },
       apply_failure, fetched + " wait apply" + kEnd,
       kNotApplied + " rollback_start rollback_ok apply_fail", backed_up},
      {"an apply that needs recovery",
       [](auto& s) {
         s.faults.fail_after_replacements = 2;
         s.faults.fail_first_restore = s.faults.fail_first_remove = true;
       },
       apply_failure, fetched + " wait apply" + kEnd,
       kNotApplied + " rollback_start rollback_recovery_required apply_recovery_required",
       backed_up, "neither"},
  };
  for (const Case& c : cases) c.Check();
}

TEST(Driver, ClaimsTheInstallationUntilItsLastChange) {
  for (const bool fails : {false, true}) {
    UpdateScene scene;
    if (fails) scene.faults.fail_after_replacements = 1;
    scene.Run();
    EXPECT_EQ(scene.claimed_calls, "primary wait apply");
  }
}

// A run that was not isolated replaces the updater's own file.
TEST(Driver, LeavesNoStagedCopyOfTheUpdaterAfterAFailure) {
  const std::string fetched = "isolate primary", staged = "stage update_package.zip",
                    replaced = fetched + " wait apply replace-self",
                    start = " start <install>/qorva_gui.exe";
  const Case cases[] = {
      {"success", [](auto&) {}, "", replaced + start + " window-gone"},
      {"a copy that fails", [](auto& s) { s.Install("qorva_updater.next.exe/x"); },
       "error: Cannot stage deferred updater self-update copy: "
       "target='<install>/qorva_updater.next.exe', code=N.",
       fetched + kEnd, kExtracted, staged, "old", true},
      {"an application that stays", [](auto& s) { s.wait_error = "Timed out."; },
       "error: Timed out.", fetched + " wait" + kEnd, kNotWaited, staged},
      {"an apply that fails", [](auto& s) { s.Install("zul_rip.exe/x"); },
       "apply: Cannot apply update safely: <apply error>", fetched + " wait apply" + kEnd,
       kNotApplied + " apply_fail", staged},
      {"a replacement that fails", [](auto& s) { s.replace_error = "In use."; },
       "error: Cannot schedule updater self-update: In use.", replaced + kEnd,
       kApplied + " apply_fail", staged},
      {"a replacement at the next start of the system",
       [](auto& s) {
         s.replaced_at_next_start = true;
         s.launch_error = "No.";
       },
       "error: No.", replaced + start + kEnd, kNotRestarted, staged, "new", true},
  };
  for (const Case& c : cases) c.Check(true);
}

TEST(Driver, AsksTheMirrorOnlyAfterAFailureThatAMirrorMayCure) {
  const std::string primary = "isolate primary", both = "isolate primary mirror",
                    failed = "error: Update download failed: ", package = "update_package.zip",
                    not_valid = "error: Update checksum validation failed";
  const std::string not_got = kStart + kNotGot + " download_primary_fail";
  const std::string wrong = kStart + kGot + " checksum_primary_fail";
  const std::string from_mirror =
      kGot + " download_fallback_ok download_selected" + kRestarted.substr(kFetched.size());
  const Case cases[] = {
      {"500", [](auto& s) { s.NameMirror().primary.status = 500; }, "", both + kDone,
       not_got + from_mirror},
      {"no connection", [](auto& s) { s.NameMirror().primary.failing_step = "SendAndReceive"; }, "",
       both + kDone, not_got + from_mirror},
      {"wrong digest", [](auto& s) { s.NameMirror().primary.chunks.front() = "wrong"; }, "",
       both + kDone, wrong + from_mirror},
      {"499", [](auto& s) { s.NameMirror().primary.status = 499; },
       failed + "Update download HTTP status 499", primary + kEnd, not_got, ""},
      {"full disk",
       [](auto& s) {
         s.NameMirror().primary.before = [&s](const std::string& step) {
           if (step == "QueryStatus") test::WriteFile(s.Workspace() / "update_package.zip/x", "");
         };
       },
       failed + "Cannot open update package destination file", primary + kEnd,
       kStart + " download_start download_redirect_resolution download_fail download_primary_fail",
       package},
      {"503 without a mirror", [](auto& s) { s.primary.status = 503; },
       failed + "Update download HTTP status 503", primary + kEnd, not_got, ""},
      {"503 of a URL that is its own mirror",
       [](auto& s) { s.NameMirror(s.request.download_url).primary.status = 503; },
       failed + "Update download HTTP status 503", primary + kEnd, not_got, ""},
      {"wrong digest without a mirror", [](auto& s) { s.request.sha256 = std::string(64, '0'); },
       not_valid + ": Downloaded package checksum mismatch.", primary + kEnd, kStart + kGot,
       package},
      {"503 twice", [](auto& s) { s.NameMirror().primary.status = s.mirror.status = 503; },
       "error: Update download failed on primary and RF fallback: Update download HTTP status 503",
       both + kEnd, not_got + kNotGot + " download_fallback_fail", ""},
      {"wrong digest twice", [](auto& s) { s.NameMirror().request.sha256 = std::string(64, '0'); },
       not_valid + " on RF fallback: Downloaded package checksum mismatch.", both + kEnd,
       wrong + kGot, package},
  };
  for (const Case& c : cases) c.Check();
}

TEST(Driver, RestartsTheCurrentNameForAProofOfTheVersion) {
  UpdateScene scene;
  scene.Install("zul_rip_gui.exe");
  scene.request.restart_exe = PathToUtf8(scene.install / "zul_rip_gui.exe");
  scene.request.pid = 0;
  scene.request.headless_restart_version_proof = true;
  scene.request.require_signed_payload_binaries = true;
  scene.request.required_payload_files = {"colors.dat"};  // no binary that could be unsigned
  scene.Serve({{"colors.dat", "new colors"}});
  EXPECT_EQ(scene.Run(), 0) << scene.report;
  EXPECT_EQ(scene.calls,
            "isolate primary wait apply start <install>/qorva_gui.exe --write-app-version-json "
            "\"<install>/.qorva_update_restart_proof.json\" window-gone");
}

TEST(Driver, ShowsEachStageAndTracesTheSelectedOrigin) {
  UpdateScene scene;
  scene.NameMirror().primary.chunks.front() = "wrong";
  EXPECT_EQ(scene.Run(), 0);
  const auto selected = "download_selected selected_url=" + scene.request.fallback_download_url;
  const std::vector<std::string> events = scene.trace.Events();
  EXPECT_EQ(std::count(events.begin(), events.end(), selected), 1);
  EXPECT_EQ(scene.Titles(),
            "Preparing update... | Creating temporary workspace. | 0%\n"
            "Connecting to update server... | Preparing download... | Working...\n"
            "Verifying update package... | Checking downloaded package SHA-256. | 100%\n"
            "Primary package failed verification. | Trying RF fallback download. | 0%\n"
            "Connecting to RF mirror... | Preparing download... | Working...\n"
            "Verifying update package... | Checking downloaded package SHA-256. | 100%\n"
            "Extracting update package... | Unpacking files into a temporary staging folder. | "
            "100%\n"
            "Waiting for application to close... | The updater will continue automatically. | "
            "100%\n"
            "Installing update... | Replacing application files safely. | 100%\n"
            "Restarting application... | Update installed. Launching QORVA. | 100%\n");
}

// --- Started by hand

TEST(Driver, OpensTheApplicationWhenItIsStartedByHand) {
  const std::string lead = "16: QORVA Updater is launched automatically by QORVA.\n\n";
  const std::string started = "show-running start <install>/";
  const struct {
    const char* name;
    std::function<void(UpdateScene&)> arrange;
    int exit_code;
    std::string calls, box;
  } cases[] = {
      {"both names", [](auto& s) { s.Install("zul_rip_gui.exe"); }, 0,
       started + "qorva_gui.exe --show-update-status", ""},
      {"the legacy name", [](auto& s) { s.Install("zul_rip_gui.exe").Uninstall("qorva_gui.exe"); },
       0, started + "zul_rip_gui.exe --show-update-status", ""},
      {"it runs", [](auto& s) { s.application_runs = true; }, 0, "show-running", ""},
      {"an archive copy", [](auto& s) { s.Uninstall("qorva_installation.json"); }, 18, "box",
       "67: " + kMigrationNotice},
      {"it does not start", [](auto& s) { s.launch_error = "No."; }, 2,
       started + "qorva_gui.exe --show-update-status box", "16: No."},
      {"no application", [](auto& s) { s.Uninstall("qorva_gui.exe"); }, 2, "show-running box",
       lead + "Cannot find qorva_gui.exe next to the updater. Please open QORVA and use Settings > "
              "Update."},
      {"a path of 260 units",
       [](auto& s) {
         const std::size_t length = s.install.native().size();
         s.world.own_executable = s.install / std::string(260 - length - 5, 'x').append(".exe");
       },
       2, "show-running box", lead + "Please open QORVA and use Settings > Update."},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    UpdateScene scene;
    scene.RunFromInside();
    c.arrange(scene);
    EXPECT_EQ(scene.RunWith({L"updater.exe"}), c.exit_code);
    EXPECT_EQ(scene.calls, c.calls);
    EXPECT_EQ(scene.boxes, c.box);
  }
}

// --- Dialogs

TEST(Dialogs, OfferTheInstallersPage) {
  const struct {
    BoxAnswer answer;
    bool works;
    std::string opened, copied, warning;
  } cases[] = {
      {BoxAnswer::kYes, true, kPage, "", ""},
      {BoxAnswer::kNo, true, "", kPage, ""},
      {BoxAnswer::kOther, true, "", "", ""},
      {BoxAnswer::kYes, false, kPage, "", "48: Cannot open browser automatically.\n\n" + kPage},
      {BoxAnswer::kNo, false, "", kPage, "48: Cannot copy download link to clipboard.\n\n" + kPage},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(&c - cases);
    for (const bool migration : {false, true}) {
      UpdateScene scene;
      scene.answer = c.answer;
      scene.browser_works = scene.clipboard_works = c.works;
      if (migration) {
        ShowInstallerMigrationDialog(scene.world, "");
      } else {
        ShowApplyFailureDialog(scene.world, "m", scene.request.download_url);
      }
      EXPECT_EQ(scene.opened, c.opened);
      EXPECT_EQ(scene.copied, c.copied);
      EXPECT_EQ(
          scene.boxes,
          (migration ? "67: " + kMigrationNotice : "19: " + ApplyFailureNotice("m")) + c.warning);
    }
  }
}

TEST(Dialogs, ShowATextOfTheirOwnWhereThereIsNone) {
  UpdateScene scene;
  ShowUpdaterError(scene.world, "");
  ShowUpdaterError(scene.world, "\xff");
  ShowApplyFailureDialog(scene.world, "", "");
  ShowApplyFailureDialog(scene.world, "\xff", "");
  ShowInstallerMigrationDialog(scene.world, "\xff");
  EXPECT_EQ(scene.boxes, "16: Updater failed.16: Updater failed.19: " +
                             ApplyFailureNotice("No additional error details.") +
                             "19: Automatic update failed."
                             "67: QORVA installer migration is required.");
}

// --- The report

class UpdaterReport : public test::StartedDiagnostics {};

TEST_F(UpdaterReport, HoldsTheTraceAndTheRequestWithoutQueries) {
  const test::TraceInTempFolder trace;
  EmitChainEvent("download_primary_fail", {});
  UpdateRequest request;
  request.download_url = "https://h.example/p.zip?token=secret";
  ReportUpdaterError(request, "validate", "");
  const test::Files files = test::FilesBelow(queue_);
  ASSERT_EQ(files.size(), 1u);
  const auto& [name, text] = *files.begin();
  const nlohmann::json report = nlohmann::json::parse(text);
  EXPECT_TRUE(name.starts_with("qorva_updater_error_")) << name;
  EXPECT_EQ(report["kind"], "updater_error");
  EXPECT_EQ(report["reason"], "validate") << "the stage where there is no message";
  EXPECT_EQ(report["details"]["stage"], "validate");
  EXPECT_EQ(report["details"]["download_url"], "https://h.example/p.zip");
  EXPECT_NE(report["report_text"].get<std::string>().find("download_primary_fail"), text.npos);
  EXPECT_EQ(text.find("secret"), text.npos);
  EXPECT_EQ(test::FilesBelow(crash_ / "session_state").size(), 1u) << "the session has not begun";
}

}  // namespace
}  // namespace zul

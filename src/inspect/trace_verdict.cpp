#include "inspect/trace_verdict.h"

#include <algorithm>
#include <array>

#include "inspect/paper.h"

namespace zul {

namespace {

/// What the driver puts before the error of a stage in the message box.
struct UserTextRule {
  std::string_view event;
  std::string_view reason;
  std::string_view origin;
  std::string_view beginning;
};

constexpr std::array kUserTexts = std::to_array<UserTextRule>({
    {"download_primary_fail", "", "", "Update download failed: "},
    {"download_fallback_fail", "", "", "Update download failed on primary and RF fallback: "},
    {"checksum_verify", "", "primary", "Update checksum validation failed: "},
    {"checksum_verify", "", "rf_fallback", "Update checksum validation failed on RF fallback: "},
    {"extract_fail", "", "", "Cannot extract update package: "},
    {"extract_fail", "package_layout_contract", "", "Update package contract validation failed: "},
    {"apply_fail", "", "", "Cannot apply update safely: "},
    {"apply_fail", "deferred_self_replace", "", "Cannot schedule updater self-update: "},
    {"apply_recovery_required", "", "", "Cannot apply update safely: "},
});

constexpr std::string_view kFreeDisk =
    "Free space on the volume that the text names, or else on that of the temporary folder; then "
    "start the update again.";
constexpr std::string_view kCheckServer =
    "Look whether the package is at this address, complete and readable for everyone; the mirror "
    "is asked only after a 5xx answer, a transport error or a wrong digest.";
constexpr std::string_view kCheckNetwork =
    "Check the machine's connection, its proxy and firewall with a browser on the same address, "
    "then start the update again.";
constexpr std::string_view kCheckCertificates =
    "The machine does not trust the server's certificate: check the machine's clock, its root "
    "certificates, and whether a proxy replaces certificates.";
constexpr std::string_view kCheckRights =
    "Check that this user may write to the file that the text names, and that no security product "
    "blocks it; then start the update again.";

/// Advice by a part of the error's text. The first row that fits counts.
struct AdviceRule {
  std::string_view part;
  Remedy remedy;
  std::string_view advice;
};

constexpr std::array kAdvice = std::to_array<AdviceRule>({
    {"RECOVERY_REQUIRED", Remedy::kMachine,
     "Do not start QORVA. Run the current QORVA installer over this installation; keep the folder "
     "of the backup until QORVA works again."},
    {"Another updater is already", Remedy::kMachine,
     "Wait until the other updater has finished. End it in the Task Manager only when its window "
     "has not changed for minutes."},
    {"checksum mismatch", Remedy::kPublisher,
     "Compare the SHA-256 of the file at each origin with --sha256 of the command line: an upload "
     "is incomplete or old, or the digest on the command line belongs to another package."},
    {"HTTP status 5", Remedy::kPublisher,
     "The servers are out of order; try again later, and look into the log of the servers."},
    {"HTTP status", Remedy::kPublisher, kCheckServer},
    {"maximum allowed size", Remedy::kPublisher,
     "The server offers more than 1 GiB: it serves another file, or the package is too large."},
    {"host is not allowed", Remedy::kPublisher,
     "The origin redirects to a host that is not in the updater's list; serve the package from one "
     "of the listed hosts."},
    {"package destination file", Remedy::kMachine, kCheckRights},
    {"write update package file", Remedy::kMachine, kFreeDisk},
    {"(code=12157)", Remedy::kNetwork, kCheckCertificates},
    {"(code=12175)", Remedy::kNetwork, kCheckCertificates},
    {"WinH", Remedy::kNetwork, kCheckNetwork},
    {"main process to exit", Remedy::kMachine,
     "QORVA did not close within 3 minutes: close its open dialogs or end it in the Task Manager, "
     "then start the update again."},
    {"main_process_tree_still_alive", Remedy::kMachine,
     "QORVA or a program that it has started still uses the file: close what `owners` names or end "
     "it in the Task Manager, then start the update again."},
    {"external_process_lock", Remedy::kMachine,
     "Close the program that `owners` names, then start the update again."},
    {"unknown_lock_owner", Remedy::kMachine,
     "A program that is not named keeps the file open, often a virus scanner or a file manager: "
     "close it or restart the machine, then start the update again."},
    {"Not enough free space", Remedy::kMachine, kFreeDisk},
    {"ran out of memory", Remedy::kMachine,
     "Close other programs or restart the machine, then start the update again."},
    {"code=112,", Remedy::kMachine, kFreeDisk},
    {"code=39,", Remedy::kMachine, kFreeDisk},
    {"code=28,", Remedy::kMachine, kFreeDisk},
    {"permission", Remedy::kMachine, kCheckRights},
    {"Cannot restart application", Remedy::kMachine,
     "Start QORVA by hand, and look whether a security product blocks it."},
});

std::string_view PlaceOf(const TraceRun& run) {
  if (run.steps.empty()) {
    return run.correlation_id.empty() ? "before the copy of the updater began" : "at its start";
  }
  return {};
}

TraceVerdict JudgeFailure(const TraceFailure& failure, std::string_view step) {
  TraceVerdict verdict;
  verdict.summary = "The run failed at the step '" + std::string(step) + "'.";
  if (const PackageAdvice* const row = FindPackageAdvice(failure.error)) {
    verdict.remedy = row->remedy;
    verdict.advice = row->advice;
    return verdict;
  }
  for (const AdviceRule& row : kAdvice) {
    if (failure.error.find(row.part) == std::string::npos) continue;
    verdict.remedy = row.remedy;
    verdict.advice = row.advice;
    return verdict;
  }
  verdict.advice =
      "No advice is known for this text; send the trace and the log to the makers of QORVA.";
  return verdict;
}

std::string FailedStep(const TraceRun& run) {
  const auto failed =
      std::find_if(run.steps.rbegin(), run.steps.rend(), [&run](const TraceStep& step) {
        return step.outcome == TraceOutcome::kFailed && step.error == run.failure->error;
      });
  return failed == run.steps.rend() ? std::string() : failed->name;
}

const TraceStep* FindStep(const TraceRun& run, std::string_view name) {
  const auto found = std::find_if(run.steps.begin(), run.steps.end(),
                                  [name](const TraceStep& step) { return step.name == name; });
  return found == run.steps.end() ? nullptr : &*found;
}

/// What has become of the installed files in a run that did not succeed.
std::string_view InstallationAfter(const TraceRun& run) {
  const TraceStep* const install = FindStep(run, "install");
  const TraceStep* const rollback = FindStep(run, "roll back");
  if (install == nullptr) return "Nothing was changed.";
  if (install->outcome == TraceOutcome::kSucceeded) return "The new version is installed.";
  if (run.last_event == "apply_recovery_required" ||
      (rollback != nullptr && rollback->outcome == TraceOutcome::kFailed)) {
    return "It is damaged: some files are new and some are old.";
  }
  if (rollback != nullptr && rollback->outcome == TraceOutcome::kSucceeded) {
    return "It is the old version: every change was undone and verified.";
  }
  if (run.failure) return "Nothing was changed.";
  return "It may hold old and new files; each of them is complete.";
}

/// A run whose trace stops.
TraceVerdict JudgeUnfinished(const TraceRun& run) {
  const std::string_view place = PlaceOf(run);
  const bool changing = FindStep(run, "install") != nullptr;
  TraceVerdict verdict{.remedy = Remedy::kMachine};
  verdict.summary = "The run never ended: its last event is '" + run.last_event + "'" +
                    (place.empty() ? ", of the step '" + run.steps.back().name + "'."
                                   : ", " + std::string(place) + ".");
  verdict.advice = "The process was ended, has crashed (look at the evidence) or still runs";
  if (run.last_event == "download_selected") verdict.advice += ", or the file is of another format";
  verdict.advice += "; start the update again.";
  if (changing) verdict.advice += " The old files are in rollback_backup in the workspace.";
  return verdict;
}

}  // namespace

std::string UserText(const TraceRun& run) {
  if (!run.failure) return {};
  const TraceFailure& failure = *run.failure;
  const auto* const rule =
      std::find_if(kUserTexts.begin(), kUserTexts.end(), [&failure](const UserTextRule& row) {
        const bool reason_fits =
            failure.event.starts_with("download") || row.reason == failure.reason;
        const bool origin_fits = row.origin.empty() || row.origin == failure.origin;
        return row.event == failure.event && reason_fits && origin_fits;
      });
  return (rule == kUserTexts.end() ? std::string() : std::string(rule->beginning)) + failure.error;
}

TraceVerdict JudgeRun(const TraceRun& run) {
  if (run.outcome == TraceOutcome::kSucceeded) {
    return {.summary = "The update is installed, and the application was started."};
  }
  TraceVerdict verdict =
      run.failure ? JudgeFailure(*run.failure, FailedStep(run)) : JudgeUnfinished(run);
  verdict.installation = InstallationAfter(run);
  return verdict;
}

}  // namespace zul

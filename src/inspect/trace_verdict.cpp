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
    "Free space on the volume that the text names, then start the update again.";
constexpr std::string_view kCheckServer =
    "Look whether the package is at this address, complete and readable for everyone; the mirror "
    "is "
    "asked only after a 5xx answer, a transport error or a wrong digest.";
constexpr std::string_view kCheckNetwork =
    "Check the machine's connection, its proxy and firewall with a browser on the same address, "
    "then "
    "start the update again.";
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
     "of "
     "the backup until QORVA works again."},
    {"checksum mismatch", Remedy::kPublisher,
     "Compare the SHA-256 of the file at each origin with --sha256 of the command line: an upload "
     "is "
     "incomplete or old, or the digest on the command line belongs to another package."},
    {"HTTP status 5", Remedy::kPublisher,
     "The servers are out of order; try again later, and look into the log of the servers."},
    {"HTTP status", Remedy::kPublisher, kCheckServer},
    {"maximum allowed size", Remedy::kPublisher,
     "The server offers more than 1 GiB: it serves another file, or the package is too large."},
    {"host is not allowed", Remedy::kPublisher,
     "The origin redirects to a host that is not in the updater's list; serve the package from one "
     "of "
     "the listed hosts."},
    {"package destination file", Remedy::kMachine, kCheckRights},
    {"write update package file", Remedy::kMachine,
     "Free space on the volume of the temporary folder, then start the update again."},
    {"(code=12157)", Remedy::kNetwork,
     "The machine does not trust the server's certificate: check the machine's clock, its root "
     "certificates, and whether a proxy replaces certificates."},
    {"(code=12175)", Remedy::kNetwork,
     "The machine does not trust the server's certificate: check the machine's clock, its root "
     "certificates, and whether a proxy replaces certificates."},
    {"WinH", Remedy::kNetwork, kCheckNetwork},
    {"main process to exit", Remedy::kMachine,
     "QORVA did not close within 3 minutes: close its open dialogs or end it in the Task Manager, "
     "then "
     "start the update again."},
    {"main_process_tree_still_alive", Remedy::kMachine,
     "QORVA still runs: close it or end it in the Task Manager, then start the update again."},
    {"external_process_lock", Remedy::kMachine,
     "Close the program that `owners` names, then start the update again; nothing has changed."},
    {"unknown_lock_owner", Remedy::kMachine,
     "A program that is not named keeps the file open, often a virus scanner or a file manager: "
     "close "
     "it or restart the machine, then start the update again."},
    {"code=112,", Remedy::kMachine, kFreeDisk},
    {"code=39,", Remedy::kMachine, kFreeDisk},
    {"code=28,", Remedy::kMachine, kFreeDisk},
    {"permission", Remedy::kMachine, kCheckRights},
    {"Rollback completed", Remedy::kMachine,
     "The old version is complete and may be started; remove the cause in the text, then start the "
     "update again."},
    {"Cannot restart application", Remedy::kMachine,
     "The update is installed; start QORVA by hand, and look whether a security product blocks "
     "it."},
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
  if (failure.event == "extract_fail") {
    if (const PackageAdvice* const row = FindPackageAdvice(failure.error)) {
      verdict.remedy = row->remedy;
      verdict.advice = row->advice;
      return verdict;
    }
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

/// A run whose trace stops. What may have changed depends on the step.
TraceVerdict JudgeUnfinished(const TraceRun& run) {
  const std::string_view place = PlaceOf(run);
  const std::string step = run.steps.empty() ? std::string() : run.steps.back().name;
  const bool changing = step == "install" || step == "roll back";
  TraceVerdict verdict{.remedy = Remedy::kMachine};
  verdict.summary =
      "The run never ended: its last event is '" + run.last_event + "'" +
      (place.empty() ? ", at the step '" + step + "'." : ", " + std::string(place) + ".");
  verdict.advice =
      changing
          ? "The installation may hold old and new files: start the update again; the old files "
            "are "
            "in rollback_backup in the workspace in the temporary folder. Look at the evidence for "
            "a "
            "crash."
          : "Nothing was changed: start the update again. If it does not run any more, the process "
            "was ended, has crashed (look at the evidence), or refused the package's format.";
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
  switch (run.outcome) {
    case TraceOutcome::kSucceeded:
      return {.summary = "The update is installed, and the application was started."};
    case TraceOutcome::kFailed: {
      const auto failed =
          std::find_if(run.steps.rbegin(), run.steps.rend(), [&run](const TraceStep& step) {
            return step.outcome == TraceOutcome::kFailed && step.error == run.failure->error;
          });
      return JudgeFailure(*run.failure, failed == run.steps.rend() ? "" : failed->name);
    }
    case TraceOutcome::kNeverEnded:
      break;
  }
  return JudgeUnfinished(run);
}

}  // namespace zul

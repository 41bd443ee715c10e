#include "collector/incident.h"

#include <nlohmann/json.hpp>

namespace zul {

namespace {

using nlohmann::json;

void SetMoment(const IncidentMoment& moment, json* record) {
  (*record)["observed_at_unix_ms"] = moment.observed_at_unix_ms;
  (*record)["process_uptime_ms"] = moment.process_uptime_ms;
  (*record)["clean_shutdown_intent"] = moment.declared_exit_code.has_value();
}

/// Classifies the end of a process of which the observer captured no crash.
void ClassifyEnding(const ProcessEnding& ending, const fs::Path& session_directory, json* record) {
  // The process may have ended before the observer saw its crash event.
  ReadEmergencyFile(session_directory, record);
  if (record->value("exception_observed", false)) {
    (*record)["capture_status"] = "partial";
    (*record)["capture_error"] = "process_exited_before_stack_capture";
    return;
  }
  const bool as_declared = ending.exit_code && ending.exit_code == ending.moment.declared_exit_code;
  (*record)["capture_status"] = "exit_status_only";
  (*record)["event"] = as_declared ? "clean_exit" : "process_exit_cause_unclassified";
}

}  // namespace

RequestAnswer AnswerTo(ObserverRequest request, bool crash_captured, bool hang_captured) {
  switch (request) {
    case ObserverRequest::kNone:
      return RequestAnswer::kNone;
    case ObserverRequest::kCrash:
      return RequestAnswer::kCaptureCrash;
    case ObserverRequest::kHang:
      return crash_captured || hang_captured ? RequestAnswer::kRelease
                                             : RequestAnswer::kCaptureHang;
  }
  // Any other value comes from a damaged block. Answer it anyway, so that the crashing process does
  // not wait.
  return RequestAnswer::kRelease;
}

void BeginCapture(const IncidentMoment& moment, json* record) {
  SetMoment(moment, record);
  (*record)["capture_status"] = "complete";
  record->erase("capture_error");
  (*record)["frames"] = json::array();
}

void NoteCrash(const EmergencyRecord& emergency, json* record) {
  MergeEmergencyRecord(emergency, record);
  (*record)["capture_status"] = "collecting_stack";
}

void NoteHang(std::uint32_t thread_id, std::uint64_t heartbeat_age_ms, json* record) {
  (*record)["event"] = "ui_hang";
  (*record)["thread_id"] = thread_id;
  (*record)["ui_heartbeat_age_ms"] = heartbeat_age_ms;
  (*record)["live_stack_best_effort"] = true;
  (*record)["capture_status"] = "collecting_stack";
}

void FinishIncident(const ProcessEnding& ending, const fs::Path& session_directory, json* record) {
  SetMoment(ending.moment, record);
  (*record)["exit_code_known"] = ending.exit_code.has_value();
  if (ending.exit_code) (*record)["exit_code"] = *ending.exit_code;
  (*record)["exit_status_kind"] = "windows_process_exit_status";
  (*record)["finalized"] = true;
  if (!ending.crash_captured) ClassifyEnding(ending, session_directory, record);
}

}  // namespace zul

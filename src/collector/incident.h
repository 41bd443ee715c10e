#pragma once

// What the observer writes into an incident record, as functions over plain records: the steps of a
// capture, and the classification of how a process ended. A record states only what is known. It
// never names another process as the cause of the end.

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <optional>

#include "collector/collector_block.h"
#include "collector/emergency_record.h"
#include "core/path.h"

namespace zul {

/// The observed process at one moment.
struct IncidentMoment {
  std::uint64_t observed_at_unix_ms = 0;
  std::uint64_t process_uptime_ms = 0;
  std::optional<std::uint32_t> declared_exit_code;  ///< nothing when none is declared yet
};

/// How a process ended, as far as the system and the observer know it.
struct ProcessEnding {
  IncidentMoment moment;
  std::optional<std::uint32_t> exit_code;  ///< nothing when the query for it failed
  bool crash_captured = false;             ///< the observer has recorded a crash
};

/// What the observer does with a request.
enum class RequestAnswer {
  kNone,     ///< there was no request
  kRelease,  ///< answer the waiting process and record nothing
  kCaptureCrash,
  kCaptureHang,  ///< only once, and not after a crash
};
/// The answer to `request`, which may have any value.
[[nodiscard]] RequestAnswer AnswerTo(ObserverRequest request, bool crash_captured,
                                     bool hang_captured);

/// Starts a capture: sets the moment, an empty list of frames, and no error.
void BeginCapture(const IncidentMoment& moment, nlohmann::json* record);

/// Records a crash, before its stack is walked.
void NoteCrash(const EmergencyRecord& emergency, nlohmann::json* record);

/// Records a hang of `thread_id`, before its stack is walked.
void NoteHang(std::uint32_t thread_id, std::uint64_t heartbeat_age_ms, nlohmann::json* record);

/// Makes the record final. When the observer captured no crash, a record in the emergency.bin of
/// `session_directory` decides, and without one the exit code: the exit was clean only when the
/// code is the declared one.
void FinishIncident(const ProcessEnding& ending, const fs::Path& session_directory,
                    nlohmann::json* record);

}  // namespace zul

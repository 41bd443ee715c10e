#pragma once

// What the observer writes into an incident record, as functions over plain records: the course of
// a capture, and the judgement of how a process ended. They state only what is known; nobody is
// ever said to have ended a process.

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <optional>

#include "collector/collector_block.h"
#include "collector/emergency_record.h"
#include "core/file_layer.h"

namespace zul {

/// The observed process at one moment.
struct IncidentMoment {
  std::uint64_t observed_at_unix_ms = 0;
  std::uint64_t process_uptime_ms = 0;
  std::optional<std::uint32_t> declared_exit_code;  ///< what it means to end with; nothing before
};

/// How a process ended, as far as the system and the observer know.
struct ProcessEnding {
  IncidentMoment moment;
  std::optional<std::uint32_t> exit_code;  ///< nothing when the system does not tell
  bool crash_captured = false;             ///< the observer has recorded its crash already
};

/// What the observer does about a request.
enum class RequestAnswer {
  kNone,          ///< nobody asked
  kRelease,       ///< only the waiting process is released
  kCaptureCrash,  ///< each time
  kCaptureHang,   ///< once, and not behind a crash
};
[[nodiscard]] RequestAnswer AnswerTo(ObserverRequest request, bool crash_captured,
                                     bool hang_captured);

/// Opens a capture: the moment, no frames yet, no error.
void BeginCapture(const IncidentMoment& moment, nlohmann::json* record);

/// States a crash, before its stack is looked at.
void NoteCrash(const EmergencyRecord& emergency, nlohmann::json* record);

/// States a hang of `thread_id`, before its stack is looked at.
void NoteHang(std::uint32_t thread_id, std::uint64_t heartbeat_age_ms, nlohmann::json* record);

/// Makes the record final. Without a captured crash the emergency.bin in `session_directory` is
/// asked, and then the exit code: the end was a clean one only when it is the declared one.
void FinishIncident(const ProcessEnding& ending, const fs::Path& session_directory,
                    nlohmann::json* record);

}  // namespace zul

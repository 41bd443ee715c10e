#pragma once

// The session of a process in memory: a plain record behind one lock, which is never held across
// file work. When a checkpoint is due its state is copied out, written, and put back as dirty when
// the write failed. Inside the room only; the door is session_checkpoint.h.
//
// Inactive, active (any number of checkpoints), inactive again once finished. A process that dies
// in between leaves its last checkpoint on disk.

#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "core/file_layer.h"
#include "diagnostics/session_checkpoint.h"

namespace zul {

/// One step that the process has taken. Sanitised and bounded.
struct Breadcrumb {
  std::uint64_t sequence = 0;
  std::string time_local;
  std::string event;
  DiagnosticFields details;
};

inline constexpr std::size_t kBreadcrumbsMax = 64;
inline constexpr std::size_t kBreadcrumbFieldsMax = 16;
inline constexpr std::size_t kBreadcrumbValueBytesMax = 256;

/// The life sign of a user interface that is watched. The updater has none, so nothing feeds it
/// here; the long-running application writes the same file.
struct UiHeartbeat {
  std::uint64_t sequence = 0;
  std::uint64_t last_ms = 0;  ///< steady clock
  bool watchdog_running = false;
  bool watchdog_reported_stall = false;
};

/// What decides whether a checkpoint is due.
struct CheckpointPace {
  bool dirty = false;  ///< something changed since the last good write
  std::uint64_t last_write_ms = 0;
  std::uint64_t heartbeat_at_last_write = 0;
};

/// A change is written 2 s after the last write at the earliest, a mere heartbeat after 10 s.
[[nodiscard]] bool IsCheckpointDue(const CheckpointPace& pace, std::uint64_t now_ms,
                                   std::uint64_t heartbeat_sequence);

/// All that is known of a session.
struct SessionRecord {
  std::string session_id;
  std::string process_identity;
  std::string started_at_local;
  std::string termination_state = "active";
  fs::Path file;
  std::uint64_t start_ms = 0;  ///< steady clock
  std::uint64_t checkpoint_sequence = 0;
  std::uint64_t breadcrumb_sequence = 0;
  std::deque<Breadcrumb> breadcrumbs;  ///< oldest first
  UiHeartbeat heartbeat;
};

class SessionCheckpoint {
 public:
  /// Begins the session of `record` at `now_ms`. False when one is active, which goes on.
  bool Start(SessionRecord record, std::uint64_t now_ms);

  /// Adds a step unless it repeats the newest one. Nothing without a session.
  void Add(Breadcrumb breadcrumb);

  /// The session as it is to be written now, counted as written; nothing when no checkpoint is due
  /// or no session active.
  [[nodiscard]] std::optional<SessionRecord> TakeCheckpoint(bool force, std::uint64_t now_ms);

  /// A checkpoint that could not be written: the next call tries again.
  void CheckpointFailed(const fs::Path& file);

  /// Sets the state that the last checkpoint tells. Nothing when no session is active, else its
  /// file.
  [[nodiscard]] std::optional<fs::Path> Finish(const std::string& termination_state);
  void End();

  [[nodiscard]] std::deque<Breadcrumb> Breadcrumbs() const;

 private:
  mutable std::mutex mutex_;
  bool active_ = false;
  CheckpointPace pace_;
  SessionRecord record_;
};

/// A step as it is recorded: identifiers, the first 16 fields, values of 256 bytes.
[[nodiscard]] Breadcrumb MakeBreadcrumb(const std::string& event, const DiagnosticFields& fields);

[[nodiscard]] nlohmann::json BreadcrumbsToJson(const std::deque<Breadcrumb>& breadcrumbs);

/// The clocks at one moment, and the process that they are read in.
struct CheckpointMoment {
  std::uint32_t pid = 0;
  std::uint64_t steady_ms = 0;  ///< of the host
  std::uint64_t unix_ms = 0;
  std::string local_text;
};

/// The content of a session file. `app` is AppObject().
[[nodiscard]] nlohmann::json BuildSessionJson(const SessionRecord& record,
                                              const CheckpointMoment& now, nlohmann::json app);

}  // namespace zul

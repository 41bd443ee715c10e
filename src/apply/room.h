#pragma once

// The room that the changes of an apply take on the volume of its backups and on the volume of the
// installation. It is counted before the first change, so that an apply does not begin what the
// volumes cannot hold.

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>

#include "core/file_layer.h"

namespace zul {

/// Adds up the changes of an apply, in their order. What counts is the most that they take at one
/// time: a backup stays to the end, and a temporary copy until it has replaced its target.
class RoomCount {
 public:
  /// The two volumes may be the same. A default `fs::Volume` is one whose facts are unavailable; it
  /// counts as large enough. `files_ahead` is the most files that have their backup and their copy
  /// while another one is replaced.
  RoomCount(fs::Volume backups, fs::Volume installation, std::size_t files_ahead = 0);

  /// A file is backed up and removed.
  void AddRemoval(std::uint64_t size_bytes);

  /// A file is backed up and replaced. `old_bytes` is 0 for a file that did not exist.
  void AddReplacement(std::uint64_t old_bytes, std::uint64_t new_bytes);

  /// False when a volume has less room than the changes take. `error` then names the volume and the
  /// missing megabytes.
  [[nodiscard]] bool Suffices(std::string* error) const;

  /// True when each volume also has room for the files ahead. False when the facts of one are
  /// unavailable.
  [[nodiscard]] bool SufficesAhead() const;

  /// The most bytes that the changes so far take at one time on the volume of the installation. It
  /// includes the backups when both are on one volume.
  [[nodiscard]] std::uint64_t installation_bytes() const {
    return static_cast<std::uint64_t>(installation_.most_bytes);
  }

  /// The same for the volume of the backups; 0 when both are on one volume.
  [[nodiscard]] std::uint64_t backup_bytes() const {
    return static_cast<std::uint64_t>(backups_.most_bytes);
  }

 private:
  /// What the changes take of one volume.
  struct Use {
    fs::Volume volume;
    std::int64_t taken_bytes = 0;  // negative while the changes have freed more than they took
    std::int64_t most_bytes = 0;
    std::deque<std::int64_t> files_ahead{};  // what each of the last files takes
    std::int64_t ahead_bytes = 0;            // their sum
    std::int64_t most_ahead_bytes = 0;

    void Take(std::uint64_t file_bytes);
    void Free(std::uint64_t file_bytes);
    void TakeAhead(std::uint64_t file_bytes, std::size_t most_files);
    [[nodiscard]] std::int64_t RoomOf(std::uint64_t file_bytes) const;
    [[nodiscard]] bool Suffices(std::string* error) const;
    [[nodiscard]] bool SufficesAhead() const;
  };

  [[nodiscard]] Use& backups() { return one_volume_ ? installation_ : backups_; }

  const bool one_volume_;
  const std::size_t files_ahead_;
  Use backups_;  // unused for one volume
  Use installation_;
};

}  // namespace zul

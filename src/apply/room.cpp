#include "apply/room.h"

#include <algorithm>
#include <utility>

#include "core/failure.h"
#include "core/text.h"

namespace zul {

RoomCount::RoomCount(fs::Volume backups, fs::Volume installation, std::size_t files_ahead)
    : one_volume_(backups.root == installation.root),
      files_ahead_(files_ahead),
      backups_{std::move(backups)},
      installation_{std::move(installation)} {}

void RoomCount::AddRemoval(std::uint64_t size_bytes) {
  backups().Take(size_bytes);
  installation_.Free(size_bytes);
}

void RoomCount::AddReplacement(std::uint64_t old_bytes, std::uint64_t new_bytes) {
  backups().Take(old_bytes);
  installation_.Take(new_bytes);  // the temporary copy
  installation_.Free(old_bytes);
  if (files_ahead_ == 0) return;
  // On one volume a file takes the room of both, so it has two entries there.
  backups().TakeAhead(old_bytes, one_volume_ ? 2 * files_ahead_ : files_ahead_);
  installation_.TakeAhead(new_bytes, one_volume_ ? 2 * files_ahead_ : files_ahead_);
}

bool RoomCount::Suffices(std::string* error) const {
  return backups_.Suffices(error) && installation_.Suffices(error);
}

bool RoomCount::SufficesAhead() const {
  return (one_volume_ || backups_.SufficesAhead()) && installation_.SufficesAhead();
}

void RoomCount::Use::Take(std::uint64_t file_bytes) {
  taken_bytes += RoomOf(file_bytes);
  most_bytes = std::max(most_bytes, taken_bytes);
}

void RoomCount::Use::Free(std::uint64_t file_bytes) {
  taken_bytes -= RoomOf(file_bytes);
}

/// The files ahead are always those that follow in the order of the changes, so their room is at
/// most the largest sum of as many files in a row.
void RoomCount::Use::TakeAhead(std::uint64_t file_bytes, std::size_t most_files) {
  files_ahead.push_back(RoomOf(file_bytes));
  ahead_bytes += files_ahead.back();
  if (files_ahead.size() > most_files) {
    ahead_bytes -= files_ahead.front();
    files_ahead.pop_front();
  }
  most_ahead_bytes = std::max(most_ahead_bytes, ahead_bytes);
}

bool RoomCount::Use::SufficesAhead() const {
  const auto needed_bytes = static_cast<std::uint64_t>(most_bytes + most_ahead_bytes);
  return !volume.root.empty() && needed_bytes <= volume.available_bytes;
}

std::int64_t RoomCount::Use::RoomOf(std::uint64_t file_bytes) const {
  const std::uint64_t cluster = std::max<std::uint64_t>(volume.cluster_bytes, 1);
  return static_cast<std::int64_t>((file_bytes + cluster - 1) / cluster * cluster);
}

bool RoomCount::Use::Suffices(std::string* error) const {
  const auto needed_bytes = static_cast<std::uint64_t>(most_bytes);
  if (volume.root.empty() || needed_bytes <= volume.available_bytes) return true;
  constexpr std::uint64_t kMegabyte = std::uint64_t{1} << 20;
  const std::uint64_t missing = (needed_bytes - volume.available_bytes + kMegabyte - 1) / kMegabyte;
  return Fail(error, "Not enough free space on '" + PathToUtf8(volume.root) +
                         "' for the update: " + std::to_string(missing) +
                         " MB more are needed. No file has been changed. Free this space, then "
                         "start the update again.");
}

}  // namespace zul

#include "diagnostics/recovery_claim.h"

#include <charconv>
#include <chrono>
#include <thread>

#include "collector/process_life.h"
#include "core/file_layer.h"
#include "core/process_environment.h"
#include "core/system_error.h"
#include "core/text.h"
#include "diagnostics/diagnostics_log.h"

namespace zul {

namespace {

constexpr std::string_view kClaimMark = ".recovering.";

// A folder cannot be renamed while another process reads a file in it, which takes milliseconds.
constexpr int kRenameAttempts = 20;
constexpr std::chrono::milliseconds kRenamePause{10};

struct ClaimedNameParts {
  std::string original;
  std::uint64_t pid = 0;  ///< of the claiming process; 0 without a claim
};

ClaimedNameParts SplitName(const std::string& name) {
  const std::size_t mark = name.rfind(kClaimMark);
  if (mark == std::string::npos) return {name, 0};
  ClaimedNameParts parts{name.substr(0, mark), 0};
  std::from_chars(name.data() + mark + kClaimMark.size(), name.data() + name.size(), parts.pid);
  return parts;
}

bool RenameFolder(const fs::Path& from, const fs::Path& to, std::error_code& ec) {
  for (int attempt = 1;; ++attempt) {
    if (fs::Rename(from, to, ec)) return true;
    if (attempt == kRenameAttempts || !IsLockedOrDeniedError(ec)) return false;
    std::this_thread::sleep_for(kRenamePause);
  }
}

}  // namespace

RecoveryClaim::RecoveryClaim(const fs::Path& path, ClaimKind kind) {
  const ClaimedNameParts parts = SplitName(PathToUtf8(path.filename()));
  const std::uint32_t own_pid = CurrentProcessId();
  original_ = path.parent_path() / PathOrEmpty(parts.original);
  claimed_ = original_;
  claimed_ += std::string(kClaimMark) + std::to_string(own_pid);
  if (parts.pid == own_pid) {
    held_ = true;  // an earlier process of the same id left it
    return;
  }
  if (parts.pid != 0 && IsProcessAlive({parts.pid, {}})) return;
  std::error_code ec;
  held_ = kind == ClaimKind::kFolder ? RenameFolder(path, claimed_, ec)
                                     : fs::MoveReplacing(path, claimed_, ec);
}

RecoveryClaim::~RecoveryClaim() {
  if (!held_ || !StillHeld()) return;
  std::error_code ec;
  if (RenameFolder(claimed_, original_, ec)) return;
  RunGuarded("recovery claim",
             [&] { LogDiagnosticsFailure("recovery claim", SystemErrorText(ec)); });
}

std::string RecoveryClaim::OriginalName() const {
  return PathToUtf8(original_.filename());
}

bool RecoveryClaim::StillHeld() const {
  std::error_code ec;
  return fs::KindOf(claimed_, fs::Links::kDoNotFollow, ec) != fs::EntryKind::kNotFound;
}

}  // namespace zul

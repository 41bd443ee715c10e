#pragma once

// The product's catalogue of user-facing errors and its recovery flows. Shared by the application,
// the updater and the diagnostics, so it is kept whole although the updater raises few of them.

#include <cstdint>
#include <span>
#include <string_view>

namespace zul {

struct UserErrorEntry {
  std::uint32_t code;
  std::string_view id;
  std::string_view user_message;
  std::string_view log_message;
};

struct RecoveryFlowEntry {
  std::uint32_t flow;
  std::string_view key;
  std::string_view user_error_id;
  std::string_view recovery_hint;
};

/// Recovery flow of the update check.
inline constexpr std::uint32_t kRecoveryFlowUpdate = 1;
/// Recovery flow of the report upload.
inline constexpr std::uint32_t kRecoveryFlowDiagnostics = 5;

[[nodiscard]] std::span<const UserErrorEntry> UserErrorCatalogue();
[[nodiscard]] std::span<const RecoveryFlowEntry> RecoveryFlows();

/// The `user_error_id` of a flow. Throws std::logic_error for a flow that is not in the table,
/// which is a programming error.
[[nodiscard]] std::string_view RecoveryFlowErrorId(std::uint32_t flow);

}  // namespace zul

#pragma once

// The product's catalogue of user-facing errors and its recovery flows. The application, the
// updater and the diagnostics share it, so it is complete although the updater raises few of these
// errors.

#include <cstdint>
#include <span>
#include <string_view>

namespace zul {

/// One error of the catalogue.
struct UserErrorEntry {
  std::uint32_t code;
  std::string_view id;            ///< stable key
  std::string_view user_message;  ///< what the user reads
  std::string_view log_message;   ///< what the log says
};

/// One recovery flow.
struct RecoveryFlowEntry {
  std::uint32_t flow;
  std::string_view key;            ///< short word
  std::string_view user_error_id;  ///< for the trace and for support
  std::string_view recovery_hint;  ///< what the user should do
};

/// Recovery flow of the update check.
inline constexpr std::uint32_t kRecoveryFlowUpdate = 1;
/// Recovery flow of the report upload.
inline constexpr std::uint32_t kRecoveryFlowDiagnostics = 5;

/// All errors, by ascending code.
[[nodiscard]] std::span<const UserErrorEntry> UserErrorCatalogue();
/// All recovery flows, by ascending number.
[[nodiscard]] std::span<const RecoveryFlowEntry> RecoveryFlows();

/// The `user_error_id` of a flow. Throws std::logic_error for a flow that is not in the table,
/// which is a programming error.
[[nodiscard]] std::string_view RecoveryFlowErrorId(std::uint32_t flow);

}  // namespace zul

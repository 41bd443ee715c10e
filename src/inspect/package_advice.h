#pragma once

// What to do about a refusal of the package room, by the beginning of its message.

#include <span>
#include <string_view>

namespace zul {

/// Who can remove the cause of a failure.
enum class Remedy {
  kPublisher,  ///< the package, its server or its command line must change
  kMachine,    ///< the user's machine: its disk, its rights, another program
  kNetwork,    ///< the way to the server
  kProduct,    ///< a fault of the updater itself
};

struct PackageAdvice {
  std::string_view beginning;  ///< of the message
  Remedy remedy;
  std::string_view advice;  ///< one sentence
};

/// One row for every message; where two rows fit a message, the first counts.
[[nodiscard]] std::span<const PackageAdvice> PackageAdviceTable();

/// The row for a message; null when no row fits.
[[nodiscard]] const PackageAdvice* FindPackageAdvice(std::string_view message);

/// The word for a remedy in JSON: "publisher", "machine", "network", "product".
[[nodiscard]] std::string_view RemedyWord(Remedy remedy);

}  // namespace zul

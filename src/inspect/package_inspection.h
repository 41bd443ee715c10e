#pragma once

// Judges a package before it is shipped, with the functions that judge it during an update.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "inspect/package_advice.h"
#include "inspect/payload_facts.h"
#include "package/payload_signatures.h"

namespace zul {

struct PackageRefusal {
  std::string message;                   ///< the updater's own
  std::string advice;                    ///< one sentence
  std::optional<ZipRefusedEntry> entry;  ///< the entry that caused it, if one did
  Remedy remedy = Remedy::kPublisher;
};

/// A program or library of the payload.
struct PayloadBinary {
  std::string path;  ///< relative to the payload root, with `/` separators
  bool has_signature = false;
  /// The verdict of the platform. On a system other than Windows, kVerificationError.
  UpdatePayloadBinarySignatureResult verdict;
};

struct PackageInspection {
  std::string path;
  std::uint64_t size_bytes = 0;
  std::string sha256;  ///< as --sha256 takes it
  std::optional<PackageRefusal> refusal;

  // Of an archive that could be unpacked:
  bool unpacked = false;
  std::uint64_t archive_entries = 0;  ///< folders included
  std::uint64_t archive_files = 0;
  std::uint64_t unpacked_bytes = 0;
  std::vector<std::string> skipped_paths;  ///< files that macOS adds
  std::string wrapper;                     ///< the folder that holds the payload; empty: the root
  std::vector<std::string> required;       ///< as given
  PayloadFacts payload;
  std::vector<PayloadBinary> binaries;
  RoomNeeded room;
  std::string command_line;  ///< of the updater; empty after a refusal
};

/// Inspects the package at `path` (UTF-8). Unpacks it into a new folder in the temporary folder,
/// which it removes at the end. False, with one sentence in `error`, when the file cannot be read
/// or this machine, and not the package, stops the inspection.
[[nodiscard]] bool InspectPackage(const std::string& path, const std::vector<std::string>& required,
                                  PackageInspection* inspection, std::string* error);

/// The updater's command line for a package of this name and digest, with example values for what
/// only the publisher knows. Requires signatures when `require_signed` is set.
[[nodiscard]] std::string ExampleCommandLine(const std::string& package_name,
                                             const std::string& sha256,
                                             const std::vector<std::string>& required,
                                             bool require_signed);

}  // namespace zul

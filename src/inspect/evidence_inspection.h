#pragma once

// How a process ended, as its evidence says. docs/formats/evidence.md describes the records.

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "core/path.h"

namespace zul {

/// One frame of a stack. Texts are empty and numbers 0 where the record has none.
struct StackFrame {
  std::string module;  ///< empty for an address in no module
  std::uint64_t rva = 0;
  std::uint64_t image_size = 0;
  std::uint64_t image_timestamp = 0;
  std::string pdb_guid;
  std::uint64_t pdb_age = 0;
  std::string symbol;  ///< "function file:line"; see ResolveFrames
};

/// What one record says.
struct EvidenceFinding {
  bool ended_badly = false;
  std::string summary;           ///< one sentence
  std::string advice;            ///< one sentence; empty when nothing is to be done
  std::string build;             ///< version, build id, channel, platform
  std::int64_t observed_at = 0;  ///< seconds since 1970; 0 when unknown
  std::uint64_t uptime_ms = 0;
  std::string capture;  ///< the status of the capture, and its error
  std::vector<StackFrame> frames;
  bool frames_limited = false;  ///< the stack has more frames
};

/// Describes a record, which may be any JSON value.
[[nodiscard]] EvidenceFinding DescribeEvidence(const nlohmann::json& record);

/// One session folder.
struct EvidenceInspection {
  std::string folder;
  EvidenceFinding end;
  std::vector<EvidenceFinding> hangs;  ///< from hang.json
};

/// Reads the session folder `path` (UTF-8), or each session folder in it or in its folder
/// compact_process, the oldest first. False, with one sentence in `error`, when there is none.
[[nodiscard]] bool InspectEvidence(const std::string& path,
                                   std::vector<EvidenceInspection>* inspections,
                                   std::string* error);

/// The text of an exception code or exit status of Windows: "0xC0000005 (access violation)".
[[nodiscard]] std::string CodeText(std::uint64_t code);

}  // namespace zul

#pragma once

// What qorva_inspect is asked for, and its help.

#include <string>
#include <string_view>
#include <vector>

namespace zul {

/// All texts are UTF-8.
struct InspectCommand {
  enum class Subject { kNone, kPackage, kTrace, kReport, kEvidence };
  Subject subject = Subject::kNone;
  std::string path;  ///< the file or folder to inspect
  std::vector<std::string> required_payload_files;
  std::string symbols;    ///< folder of symbol files; may be empty
  bool all_runs = false;  ///< every run of a trace, not only the last one
  bool json = false;
  bool help = false;
};

/// Reads the arguments after the program's name. With `help` set, `path` may be empty. False, with
/// one sentence in `error`, for arguments that cannot be carried out.
[[nodiscard]] bool ParseInspectCommand(const std::vector<std::string>& arguments,
                                       InspectCommand* command, std::string* error);

/// The help of a subject; of the whole program for kNone.
[[nodiscard]] std::string_view HelpText(InspectCommand::Subject subject);

}  // namespace zul

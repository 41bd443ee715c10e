#include "inspect/command_line.h"

#include <algorithm>
#include <array>

#include "core/failure.h"

namespace zul {

namespace {

using Subject = InspectCommand::Subject;

constexpr std::string_view kProgramHelp =
    R"(qorva_inspect says what the updater will do, or has done.

  qorva_inspect package FILE.zip     before shipping: will the updater take this package?
  qorva_inspect trace FILE           after a run: what happened, step by step, and what to do
  qorva_inspect report FILE          what a report says, and whether it keeps its promises on privacy
  qorva_inspect evidence FOLDER      how a process ended

Add --json for a program that reads the result, --help after a word for its switches and an example.
Exit status: 0 fine, 1 refused or failed, 2 could not be carried out.
Colours appear only on a terminal, and not when the environment variable NO_COLOR is set.
)";

constexpr std::string_view kPackageHelp =
    R"(qorva_inspect package FILE.zip [--required-payload-file=NAME]... [--json]

Scans and unpacks the package with the updater's own code, into a temporary folder that it removes
again, and says whether the updater takes it, what will be installed and what will not.

  --required-payload-file=NAME   as on the updater's command line; may be repeated

Example:
  qorva_inspect package qorva-2.0.zip --required-payload-file=qorva_gui.exe

Exit status: 0 the updater takes the package, 1 it refuses it, 2 the package could not be read.
)";

constexpr std::string_view kTraceHelp = R"(qorva_inspect trace FILE [--all] [--json]

Shows the last run in an update_trace.log: each step with its duration, sizes and outcome, the text
that the user saw, and what to do next.

  --all   every run in the file, the oldest first

Example:
  qorva_inspect trace "%APPDATA%\QORVA\logs\update_trace.log"

Exit status: 0 every shown run succeeded, 1 one failed or never ended, 2 the file could not be read.
)";

constexpr std::string_view kReportHelp = R"(qorva_inspect report FILE [--symbols=FOLDER] [--json]

Shows what a report says: what happened, in which build, and the stack of a crash. Checks that the
report holds nothing that its own privacy block excludes.

  --symbols=FOLDER   folder with one or more releases as ./release makes them, with their symbols

Example:
  qorva_inspect report qorva_updater_error_20260131_123005_1.json

Exit status: 0 the report keeps its promises, 1 it breaks one, 2 it is not a report.
)";

constexpr std::string_view kEvidenceHelp =
    R"(qorva_inspect evidence FOLDER [--symbols=FOLDER] [--json]

Shows how a process ended, from its session folder (process_...). Given a folder of such folders, it
shows each of them.

  --symbols=FOLDER   folder with one or more releases as ./release makes them, with their symbols

Example:
  qorva_inspect evidence "%APPDATA%\QORVA\crashes\compact_process"

Exit status: 0 every process ended in order or still runs, 1 one did not, 2 there is no evidence.
)";

struct SubjectName {
  std::string_view word;
  Subject subject;
  std::string_view operand;
  std::string_view help;
};

constexpr std::array kSubjects = std::to_array<SubjectName>({
    {"package", Subject::kPackage, "FILE.zip", kPackageHelp},
    {"trace", Subject::kTrace, "FILE", kTraceHelp},
    {"report", Subject::kReport, "FILE", kReportHelp},
    {"evidence", Subject::kEvidence, "FOLDER", kEvidenceHelp},
});

const SubjectName* Find(std::string_view word) {
  const auto* const found =
      std::find_if(kSubjects.begin(), kSubjects.end(),
                   [word](const SubjectName& name) { return name.word == word; });
  return found == kSubjects.end() ? nullptr : found;
}

/// Takes the value of `name`, which ends in "=", from an argument.
bool TakeValue(std::string_view argument, std::string_view name, std::string* value) {
  if (!argument.starts_with(name)) return false;
  *value = argument.substr(name.size());
  return true;
}

/// True when the subject has this switch and `argument` is it.
bool TakeSwitch(std::string_view argument, InspectCommand* command) {
  std::string value;
  switch (command->subject) {
    case Subject::kPackage:
      if (!TakeValue(argument, "--required-payload-file=", &value)) return false;
      command->required_payload_files.push_back(value);
      return true;
    case Subject::kTrace:
      return argument == "--all" && (command->all_runs = true);
    case Subject::kReport:
    case Subject::kEvidence:
      return TakeValue(argument, "--symbols=", &command->symbols);
    case Subject::kNone:
      break;
  }
  return false;
}

bool TakeArgument(const std::string& argument, InspectCommand* command, std::string* error) {
  if (argument == "--json") return command->json = true;
  if (argument == "--help" || argument == "-h") return command->help = true;
  if (TakeSwitch(argument, command)) return true;
  if (argument.starts_with("--")) return Fail(error, "unknown switch: ", argument);
  if (!command->path.empty())
    return Fail(error, "one file at a time; this is one more: ", argument);
  command->path = argument;
  return true;
}

}  // namespace

bool ParseInspectCommand(const std::vector<std::string>& arguments, InspectCommand* command,
                         std::string* error) {
  *command = InspectCommand();
  if (arguments.empty()) return Fail(error, "package, trace, report or evidence is missing");
  const std::string& word = arguments.front();
  if (word == "--help" || word == "-h" || word == "help") return command->help = true;
  const SubjectName* const name = Find(word);
  if (name == nullptr) return Fail(error, "unknown word: ", word);
  command->subject = name->subject;
  for (std::size_t i = 1; i < arguments.size(); ++i) {
    if (!TakeArgument(arguments[i], command, error)) return false;
  }
  if (!command->path.empty() || command->help) return true;
  return Fail(error, std::string(name->operand) + " is missing after " + word);
}

std::string_view HelpText(Subject subject) {
  for (const SubjectName& name : kSubjects) {
    if (name.subject == subject) return name.help;
  }
  return kProgramHelp;
}

}  // namespace zul

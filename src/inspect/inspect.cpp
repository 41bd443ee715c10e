#include "inspect/inspect.h"

#include <exception>
#include <nlohmann/json.hpp>

#include "core/failure.h"
#include "inspect/command_line.h"
#include "inspect/evidence_output.h"
#include "inspect/package_output.h"
#include "inspect/paper.h"
#include "inspect/report_output.h"
#include "inspect/symbols.h"
#include "inspect/text_file.h"
#include "inspect/trace_output.h"

namespace zul {

namespace {

using Subject = InspectCommand::Subject;

/// What an inspection hands to both layers of output.
struct Result {
  int status = kInspectFine;
  nlohmann::json json;
  Paper paper;
};

/// A larger trace is read from here on: older runs are rarely what support looks for.
constexpr std::uint64_t kTraceBytesMax = std::uint64_t{64} << 20;

bool InspectOnePackage(const InspectCommand& command, Result* result, std::string* error) {
  PackageInspection inspection;
  if (!InspectPackage(command.path, command.required_payload_files, &inspection, error)) {
    return false;
  }
  if (inspection.refusal) result->status = kInspectRefused;
  result->json = PackageJson(inspection);
  PrintPackage(inspection, &result->paper);
  return true;
}

bool InspectTrace(const InspectCommand& command, Result* result, std::string* error) {
  std::string text;
  if (!ReadTextFile(command.path, kTraceBytesMax, &text, error)) return false;
  const TraceReading reading = ReadTrace(text);
  if (reading.runs.empty()) {
    return Fail(error,
                "'" + command.path + "' is not an update trace: no line in it is an event of one");
  }
  nlohmann::json runs = nlohmann::json::array();
  for (std::size_t i = command.all_runs ? 0 : reading.runs.size() - 1; i < reading.runs.size();
       ++i) {
    const TraceRun& run = reading.runs[i];
    if (run.outcome != TraceOutcome::kSucceeded) result->status = kInspectRefused;
    PrintRun(run, &result->paper);
    runs.push_back(RunJson(run));
  }
  PrintTraceSummary(reading, &result->paper);
  result->json = {{"runs", runs},
                  {"runs_in_trace", reading.runs.size()},
                  {"damaged_lines", reading.damaged_lines}};
  return true;
}

bool InspectOneReport(const InspectCommand& command, Result* result, std::string* error) {
  ReportInspection inspection;
  if (!InspectReport(command.path, &inspection, error)) return false;
  if (!inspection.broken_promises.empty()) result->status = kInspectRefused;
  std::string note;
  if (inspection.evidence && !command.symbols.empty()) {
    note = ResolveFrames(command.symbols, &inspection.evidence->frames);
  }
  PrintReport(inspection, &result->paper);
  if (!note.empty()) result->paper.Line(note, Colour::kCaution);
  result->json = ReportJson(inspection);
  return true;
}

bool InspectSessions(const InspectCommand& command, Result* result, std::string* error) {
  std::vector<EvidenceInspection> inspections;
  if (!InspectEvidence(command.path, &inspections, error)) return false;
  result->json = {{"sessions", nlohmann::json::array()}};
  for (EvidenceInspection& inspection : inspections) {
    if (inspection.end.ended_badly) result->status = kInspectRefused;
    std::string note;
    if (!command.symbols.empty()) note = ResolveFrames(command.symbols, &inspection.end.frames);
    PrintEvidence(inspection, &result->paper);
    if (!note.empty()) result->paper.Line(note, Colour::kCaution);
    result->json["sessions"].push_back(EvidenceJson(inspection));
  }
  return true;
}

bool InspectSubject(const InspectCommand& command, Result* result, std::string* error) {
  switch (command.subject) {
    case Subject::kPackage:
      return InspectOnePackage(command, result, error);
    case Subject::kTrace:
      return InspectTrace(command, result, error);
    case Subject::kReport:
      return InspectOneReport(command, result, error);
    case Subject::kEvidence:
      return InspectSessions(command, result, error);
    case Subject::kNone:
      break;
  }
  return Fail(error, HelpText(Subject::kNone));
}

std::string Text(const nlohmann::json& json) {
  return json.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
}

InspectOutput NotDone(const std::string& sentence, bool json) {
  InspectOutput output{kInspectNotDone, {}, "qorva_inspect: " + Printable(sentence) + "\n"};
  if (json) output.out = Text({{"error", sentence}});
  return output;
}

InspectOutput CarryOut(const InspectCommand& command, bool colours) {
  Result result{.json = {}, .paper = Paper(colours)};
  std::string error;
  if (!InspectSubject(command, &result, &error)) return NotDone(error, command.json);
  return {result.status, command.json ? Text(result.json) : result.paper.text(), {}};
}

}  // namespace

InspectOutput RunInspect(const std::vector<std::string>& arguments, bool colours) {
  InspectCommand command;
  std::string error;
  if (!ParseInspectCommand(arguments, &command, &error)) {
    InspectOutput output = NotDone(error, false);
    output.err += "Try: qorva_inspect --help\n";
    return output;
  }
  if (command.help) return {kInspectFine, std::string(HelpText(command.subject)), {}};
  try {
    return CarryOut(command, colours);
  } catch (const std::exception& failure) {  // no memory, or an entry of unknown kind
    return NotDone(failure.what(), command.json);
  }
}

}  // namespace zul

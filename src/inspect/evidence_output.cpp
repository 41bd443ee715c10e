#include "inspect/evidence_output.h"

#include <cstdio>
#include <nlohmann/json.hpp>

#include "inspect/trace_output.h"

namespace zul {

namespace {

using nlohmann::json;

std::string FrameText(const StackFrame& frame) {
  if (frame.module.empty()) return "an address in no module";
  if (!frame.symbol.empty()) return frame.module + "!" + frame.symbol;
  char offset[24];
  static_cast<void>(
      std::snprintf(offset, sizeof offset, "+0x%llx", static_cast<unsigned long long>(frame.rva)));
  return frame.module + offset;
}

json FrameJson(const StackFrame& frame) {
  if (frame.module.empty()) return {{"module_resolved", false}};
  json object = {{"module", frame.module}, {"rva", frame.rva}, {"pdb_guid", frame.pdb_guid}};
  if (!frame.symbol.empty()) object["symbol"] = frame.symbol;
  return object;
}

}  // namespace

void PrintFinding(const EvidenceFinding& finding, Paper* paper) {
  paper->Prose("what", finding.summary, finding.ended_badly ? Colour::kBad : Colour::kGood);
  if (finding.build.empty()) return;  // a damaged record
  paper->Row("build", finding.build);
  const std::string after =
      finding.uptime_ms == 0 ? "" : ", after " + std::to_string(finding.uptime_ms / 1000) + " s";
  paper->Row("when", UtcText(finding.observed_at) + " UTC" + after);
  paper->Row("capture", finding.capture);
  for (std::size_t i = 0; i < finding.frames.size(); ++i) {
    paper->Row(i == 0 ? "stack" : "", FrameText(finding.frames[i]));
  }
  if (finding.frames_limited) paper->Row("", "and more frames", Colour::kFaint);
  if (!finding.advice.empty()) paper->Prose("what to do", finding.advice);
}

void PrintEvidence(const EvidenceInspection& inspection, Paper* paper) {
  paper->Heading(inspection.folder);
  PrintFinding(inspection.end, paper);
  for (const EvidenceFinding& hang : inspection.hangs) {
    paper->Line("");
    paper->Line("Before its end the window had stopped:");
    PrintFinding(hang, paper);
  }
}

json FindingJson(const EvidenceFinding& finding) {
  json frames = json::array();
  for (const StackFrame& frame : finding.frames) frames.push_back(FrameJson(frame));
  return {{"ended_badly", finding.ended_badly},
          {"summary", finding.summary},
          {"advice", finding.advice},
          {"build", finding.build},
          {"observed_at", UtcText(finding.observed_at)},
          {"process_uptime_ms", finding.uptime_ms},
          {"capture", finding.capture},
          {"frames", frames},
          {"frames_limited", finding.frames_limited}};
}

json EvidenceJson(const EvidenceInspection& inspection) {
  json hangs = json::array();
  for (const EvidenceFinding& hang : inspection.hangs) hangs.push_back(FindingJson(hang));
  return {{"folder", inspection.folder}, {"end", FindingJson(inspection.end)}, {"hangs", hangs}};
}

}  // namespace zul

#include "inspect/report_output.h"

#include <nlohmann/json.hpp>

#include "inspect/evidence_output.h"
#include "inspect/trace_output.h"

namespace zul {

namespace {

using nlohmann::json;

void PrintPrivacy(const ReportInspection& inspection, Paper* paper) {
  paper->Heading("What is in it of the machine's owner");
  paper->Line(CountText(inspection.withheld, "place is", "places are") +
              " replaced by a [redacted...] marker.");
  if (inspection.broken_promises.empty()) {
    paper->Line("The report keeps every promise of its privacy block.", Colour::kGood);
    return;
  }
  paper->Line(
      CountText(inspection.broken_promises.size(), "promise is", "promises are") + " broken:",
      Colour::kBad);
  paper->Names(inspection.broken_promises);
}

}  // namespace

void PrintReport(const ReportInspection& inspection, Paper* paper) {
  paper->Heading(inspection.path);
  paper->Prose("what", inspection.meaning + " (" + inspection.kind + ")");
  paper->Prose("reason", inspection.reason);
  if (!inspection.stage.empty()) paper->Row("stage", inspection.stage);
  if (!inspection.forensics.empty()) paper->Row("forensics", inspection.forensics);
  paper->Row("build", inspection.build);
  paper->Row("made", inspection.created_at + ", local time of the machine");
  paper->Row("upload", inspection.upload);
  if (inspection.evidence) {
    paper->Heading("Evidence");
    PrintFinding(*inspection.evidence, paper);
  }
  if (inspection.run) PrintRun(*inspection.run, paper);
  PrintPrivacy(inspection, paper);
}

json ReportJson(const ReportInspection& inspection) {
  json object = {{"path", inspection.path},
                 {"kind", inspection.kind},
                 {"meaning", inspection.meaning},
                 {"reason", inspection.reason},
                 {"stage", inspection.stage},
                 {"forensics", inspection.forensics},
                 {"build", inspection.build},
                 {"created_at_local", inspection.created_at},
                 {"upload", inspection.upload},
                 {"withheld", inspection.withheld},
                 {"broken_promises", inspection.broken_promises}};
  if (inspection.evidence) object["evidence"] = FindingJson(*inspection.evidence);
  if (inspection.run) object["run"] = RunJson(*inspection.run);
  return object;
}

}  // namespace zul

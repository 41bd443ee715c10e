#include "inspect/package_output.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "core/text.h"

namespace zul {

namespace {

using nlohmann::json;
using Names = std::vector<std::string>;

Names NamesWhere(const std::vector<PayloadBinary>& binaries,
                 bool (*applies)(const PayloadBinary&)) {
  Names names;
  for (const PayloadBinary& binary : binaries) {
    if (applies(binary)) names.push_back(binary.path);
  }
  return names;
}

bool HasNoSignature(const PayloadBinary& binary) {
  return !binary.has_signature;
}

bool IsNotTrusted(const PayloadBinary& binary) {
  return binary.has_signature && binary.verdict.status != PayloadSignatureStatus::kValid;
}

/// On a system without a trust provider no verdict says anything.
bool HasVerdict(const std::vector<PayloadBinary>& binaries) {
  return std::any_of(binaries.begin(), binaries.end(), [](const PayloadBinary& binary) {
    return binary.verdict.status != PayloadSignatureStatus::kVerificationError;
  });
}

void PrintContents(const PackageInspection& inspection, Paper* paper) {
  paper->Row("archive", CountText(inspection.archive_files, "file", "files") + ", " +
                            SizeText(inspection.unpacked_bytes) + " unpacked");
  paper->Row("payload",
             CountText(inspection.payload.files, "file", "files") + ", " +
                 SizeText(inspection.payload.bytes) +
                 (inspection.wrapper.empty() ? ", at the top of the archive"
                                             : ", in the folder '" + inspection.wrapper + "'"));
  if (!inspection.required.empty()) paper->Row("required", JoinText(inspection.required, ", "));
  paper->Row("room", SizeText(inspection.room.temporary) + " in the temporary folder, up to " +
                         SizeText(inspection.room.installation) + " in the installation");
}

void PrintNote(const Names& names, std::string_view text, Colour colour, Paper* paper) {
  if (names.empty()) return;
  paper->Line(CountText(names.size(), "file ", "files ") + std::string(text), colour);
  paper->Names(names);
}

void PrintNotes(const PackageInspection& inspection, Paper* paper) {
  const PayloadFacts& payload = inspection.payload;
  paper->Heading("Good to know");
  PrintNote(payload.beside_wrapper, "beside the folder '" + inspection.wrapper + "': not installed",
            Colour::kCaution, paper);
  PrintNote(payload.links,
            "made from a symbolic link: installed as text that holds the link's target",
            Colour::kCaution, paper);
  PrintNote(payload.long_paths,
            "with a path of more than 259 characters below " + std::string(kUsualInstallation) +
                ": other programs may not be able to open it",
            Colour::kCaution, paper);
  PrintNote(inspection.skipped_paths, "added by macOS: left out", Colour::kNone, paper);
  paper->Line("The update removes these programs of earlier versions where they are installed: " +
              JoinText(payload.removed_retired, ", ") + ".");
  paper->Line("Times and attributes of files are not kept; empty folders are not created.");
}

void PrintSignatures(const std::vector<PayloadBinary>& binaries, Paper* paper) {
  if (binaries.empty()) return;
  paper->Heading("Signatures");
  const Names unsigned_names = NamesWhere(binaries, HasNoSignature);
  paper->Line(std::to_string(binaries.size() - unsigned_names.size()) + " of " +
              CountText(binaries.size(), "program or library has", "programs and libraries have") +
              " an embedded signature.");
  if (!unsigned_names.empty()) {
    paper->Line("Without one, an update with --require-signed-payload-binaries=1 refuses:",
                Colour::kCaution);
    paper->Names(unsigned_names);
  }
  if (!HasVerdict(binaries)) {
    paper->Line("Whether a signature is trusted, only qorva_inspect.exe on Windows can say.");
    return;
  }
  PrintNote(NamesWhere(binaries, IsNotTrusted), "with a signature that this machine does not trust",
            Colour::kCaution, paper);
}

void PrintRefusal(const PackageInspection& inspection, Paper* paper) {
  const PackageRefusal& refusal = *inspection.refusal;
  paper->Heading("Refused");
  paper->Row("message", refusal.message, Colour::kBad);
  if (refusal.entry) {
    paper->Row("entry", "number " + std::to_string(refusal.entry->central_index + 1) + ", '" +
                            refusal.entry->name + "', local header at offset " +
                            std::to_string(refusal.entry->local_header_offset));
  }
  if (!refusal.advice.empty()) paper->Prose("what to do", refusal.advice);
  if (inspection.required.empty() && inspection.unpacked) {
    paper->Row("at its top", "these could be named:");
    paper->Names(inspection.payload.top_level_files);
  }
}

void PrintCommandLine(const PackageInspection& inspection, Paper* paper) {
  paper->Heading("Accepted: the updater takes this package");
  paper->Line("The command line; replace PATH, the folder, and 0 by the id of the application:");
  paper->Line("");
  paper->Line(inspection.command_line);
}

json BinaryJson(const PayloadBinary& binary) {
  json object = {{"path", binary.path}, {"embedded_signature", binary.has_signature}};
  if (binary.verdict.status != PayloadSignatureStatus::kVerificationError) {
    object["trusted"] = binary.verdict.status == PayloadSignatureStatus::kValid;
    object["detail"] = binary.verdict.detail;
    object["publisher"] = binary.verdict.publisher;
  }
  return object;
}

json RefusalJson(const PackageRefusal& refusal) {
  json object = {{"message", refusal.message}, {"advice", refusal.advice}};
  if (refusal.entry) {
    object["entry"] = {{"number", refusal.entry->central_index + 1},
                       {"name", refusal.entry->name},
                       {"local_header_offset", refusal.entry->local_header_offset}};
  }
  return object;
}

json PayloadJson(const PackageInspection& inspection) {
  const PayloadFacts& payload = inspection.payload;
  json binaries = json::array();
  for (const PayloadBinary& binary : inspection.binaries) binaries.push_back(BinaryJson(binary));
  return {{"wrapper", inspection.wrapper},
          {"files", payload.files},
          {"bytes", payload.bytes},
          {"top_level_files", payload.top_level_files},
          {"beside_wrapper", payload.beside_wrapper},
          {"links", payload.links},
          {"long_paths", payload.long_paths},
          {"removed_retired", payload.removed_retired},
          {"binaries", binaries}};
}

}  // namespace

void PrintPackage(const PackageInspection& inspection, Paper* paper) {
  paper->Heading(inspection.path);
  const std::string bytes = CountText(inspection.size_bytes, "byte", "bytes");
  paper->Row("size",
             inspection.size_bytes < 1000 ? bytes : SizeText(inspection.size_bytes) + ", " + bytes);
  if (!inspection.sha256.empty()) paper->Row("SHA-256", inspection.sha256);
  if (inspection.unpacked) {
    PrintContents(inspection, paper);
    PrintNotes(inspection, paper);
    PrintSignatures(inspection.binaries, paper);
  }
  if (inspection.refusal) {
    PrintRefusal(inspection, paper);
  } else {
    PrintCommandLine(inspection, paper);
  }
}

json PackageJson(const PackageInspection& inspection) {
  json object = {{"accepted", !inspection.refusal},
                 {"path", inspection.path},
                 {"size_bytes", inspection.size_bytes},
                 {"sha256", inspection.sha256},
                 {"required_payload_files", inspection.required}};
  if (inspection.refusal) object["refusal"] = RefusalJson(*inspection.refusal);
  if (!inspection.unpacked) return object;
  object["archive"] = {{"entries", inspection.archive_entries},
                       {"files", inspection.archive_files},
                       {"unpacked_bytes", inspection.unpacked_bytes},
                       {"left_out", inspection.skipped_paths}};
  object["payload"] = PayloadJson(inspection);
  object["room_bytes"] = {{"temporary", inspection.room.temporary},
                          {"installation", inspection.room.installation}};
  if (!inspection.command_line.empty()) object["command_line"] = inspection.command_line;
  return object;
}

}  // namespace zul

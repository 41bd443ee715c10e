#include "inspect/symbols.h"

#include <algorithm>
#include <cstdio>
#include <map>
#include <sstream>

#include "core/file_layer.h"
#include "core/text.h"
#include "inspect/binary_identity.h"

namespace zul {

namespace {

/// The file below `folder` that is the build of the frame; empty when there is none.
fs::Path FindBuild(const StackFrame& frame, const fs::Path& folder) {
  fs::TreeWalker walker(folder);
  fs::DirectoryEntry entry;
  std::error_code ec;
  while (walker.Next(&entry, ec)) {
    if (entry.kind == fs::EntryKind::kRegular && IsBuildOf(frame, entry.path)) return entry.path;
  }
  return {};
}

/// The file with the symbols of a program, where a build or a release puts it; else the program.
fs::Path SymbolFileOf(const fs::Path& binary) {
  const fs::Path name = PathOrEmpty(PathToUtf8(binary.filename()) + ".debug");
  for (const fs::Path& place :
       {binary.parent_path() / name, binary.parent_path() / "symbols" / name}) {
    if (fs::IsRegularFile(place)) return place;
  }
  return binary;
}

/// The address that a symbol file has for a frame. A caller's frame holds the address after the
/// call, which may belong to the next line.
std::string AddressOf(const StackFrame& frame, std::uint64_t image_base, bool is_caller) {
  char text[24];
  static_cast<void>(
      std::snprintf(text, sizeof text, "0x%llx",
                    static_cast<unsigned long long>(image_base + frame.rva - (is_caller ? 1 : 0))));
  return text;
}

/// The function without its parameters, which make a line unreadable.
std::string_view NameOf(std::string_view function) {
  int depth = 0;
  for (std::size_t i = function.size(); i-- > 0;) {
    depth += function[i] == ')' ? 1 : function[i] == '(' ? -1 : 0;
    if (function[i] == '(' && depth == 0) {
      return function.substr(i).starts_with("(anonymous") ? function : function.substr(0, i);
    }
  }
  return function;
}

/// A source file of ours from its folder "src" on, wherever the build was.
std::string_view PlaceOf(std::string_view place) {
  const std::size_t source = place.rfind("/src/");
  return source == std::string_view::npos ? place : place.substr(source + 1);
}

/// "function file:line" of a tool's answer, empty when it knows neither. The answer has two lines
/// for each function that was inlined at the address; the last two are the function itself.
std::string SymbolIn(const std::string& output) {
  std::istringstream lines(output);
  std::string function, place, next;
  while (std::getline(lines, next) && !next.empty()) {
    function = next;
    std::getline(lines, place);
  }
  if (function.empty() || function.starts_with("??")) return {};
  std::string symbol(NameOf(function));
  if (!place.starts_with("??")) symbol.append(" ").append(PlaceOf(place));
  return symbol;
}

std::string SymbolAt(const fs::Path& symbols, const std::string& address) {
  const std::string file = PathToUtf8(symbols);
  std::string output;
  if (RunTool("llvm-symbolizer", {"--obj=" + file, address}, &output) &&
      !SymbolIn(output).empty()) {
    return SymbolIn(output);
  }
  output.clear();
  return RunTool("addr2line", {"-f", "-i", "-C", "-e", file, address}, &output) ? SymbolIn(output)
                                                                                : std::string();
}

}  // namespace

bool IsBuildOf(const StackFrame& frame, const fs::Path& binary) {
  BinaryIdentity identity;
  if (!ReadBinaryIdentity(binary, &identity)) return false;
  if (!frame.pdb_guid.empty()) {
    return identity.pdb_guid == frame.pdb_guid && identity.pdb_age == frame.pdb_age;
  }
  return frame.image_timestamp != 0 && identity.image_timestamp == frame.image_timestamp &&
         identity.image_size == frame.image_size;
}

std::string ResolveFrames(const std::string& folder, std::vector<StackFrame>* frames) {
  std::map<std::string, fs::Path> builds;  // by module and build id: each is looked for once
  bool found_build = false;
  bool resolved = false;
  for (StackFrame& frame : *frames) {
    if (frame.module.empty()) continue;
    const auto [build, is_new] = builds.try_emplace(frame.module + " " + frame.pdb_guid);
    if (is_new) build->second = FindBuild(frame, PathOrEmpty(folder));
    BinaryIdentity identity;
    if (!ReadBinaryIdentity(build->second, &identity) || frame.rva >= identity.image_size) continue;
    found_build = true;
    frame.symbol = SymbolAt(SymbolFileOf(build->second),
                            AddressOf(frame, identity.image_base, &frame != &frames->front()));
    resolved |= !frame.symbol.empty();
  }
  if (resolved || frames->empty()) return {};
  return found_build
             ? "The build is in '" + folder +
                   "', but llvm-symbolizer and addr2line are missing or find no symbols there; "
                   "put the .debug file beside the program or into its folder symbols."
             : "No program in '" + folder +
                   "' is the build of a frame; it must hold the release with its symbols.";
}

}  // namespace zul

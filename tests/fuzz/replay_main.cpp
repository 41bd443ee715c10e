// Runs files and the files of folders through a target, where libFuzzer is not linked:
//   fuzz_TARGET PATH...

#include <cstdio>
#include <string>

#include "core/text.h"
#include "tests/fuzz/fuzz_target.h"
#include "tests/support/temp_folder.h"

namespace {

using zul::fs::EntryKind;

int ReplayFile(const zul::fs::Path& path) {
  std::fprintf(stderr, "%s\n", zul::PathToUtf8(path).c_str());  // the last one is the culprit
  zul::fuzz::Run(zul::test::ReadFile(path));
  return 1;
}

// A target that nothing was found in has no folder of findings.
int Replay(const zul::fs::Path& path) {
  std::error_code ec;
  const EntryKind kind = zul::fs::KindOf(path, zul::fs::Links::kFollow, ec);
  if (kind == EntryKind::kNotFound) return 0;
  if (kind != EntryKind::kDirectory) return ReplayFile(path);
  int runs = 0;
  zul::fs::TreeWalker walker(path);
  zul::fs::DirectoryEntry entry;
  while (walker.Next(&entry, ec)) {
    if (entry.kind == EntryKind::kRegular) runs += ReplayFile(entry.path);
  }
  return runs;
}

}  // namespace

int main(int argc, char** argv) {
  int runs = 0;
  for (int i = 1; i < argc; ++i) runs += Replay(argv[i]);
  std::printf("%d inputs replayed\n", runs);
  return runs > 0 ? 0 : 1;  // a corpus that is not there must not pass for one that is clean
}

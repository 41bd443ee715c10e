// Runs a target on each file of some folders, without libFuzzer: fuzz_TARGET FOLDER...

#include <cstdio>

#include "core/text.h"
#include "tests/fuzz/fuzz_target.h"
#include "tests/support/temp_folder.h"

int main(int argc, char** argv) {
  int runs = 0;
  for (int i = 1; i < argc; ++i) {
    for (const auto& [name, contents] : zul::test::FilesBelow(*zul::PathFromUtf8(argv[i]))) {
      // After a failure the last line names the input.
      std::fprintf(stderr, "%s/%s\n", argv[i], name.c_str());
      zul::fuzz::Run(contents);
      ++runs;
    }
  }
  std::printf("%d inputs replayed\n", runs);
  return runs > 0 ? 0 : 1;  // without seeds nothing was tested
}

// The process entry on systems other than Windows.

#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "core/process_environment.h"
#include "inspect/inspect.h"

int main(int argc, char** argv) {
  const std::vector<std::string> arguments(argv + (argc > 0 ? 1 : 0), argv + argc);
  const bool colours = ::isatty(STDOUT_FILENO) == 1 && zul::GetEnvironmentPath("NO_COLOR").empty();
  const zul::InspectOutput output = zul::RunInspect(arguments, colours);
  static_cast<void>(std::fwrite(output.out.data(), 1, output.out.size(), stdout));
  static_cast<void>(std::fwrite(output.err.data(), 1, output.err.size(), stderr));
  return output.status;
}

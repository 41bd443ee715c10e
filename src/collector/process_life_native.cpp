#include "collector/process_life.h"

#include <signal.h>

#include <cerrno>
#include <limits>
#include <sstream>

#include "collector/safe_path.h"

namespace zul {

namespace {

constexpr std::size_t kStatBytesMax = 4096;
constexpr int kFieldsBetweenStateAndStart = 18;

/// State and start time, in ticks since the host's start, from /proc/<pid>/stat (proc(5)). The name
/// of the program stands in brackets before them and may hold anything.
void ReadStat(const std::string& stat, ProcessFacts* facts) {
  const std::size_t name_end = stat.rfind(')');
  if (name_end == std::string::npos) return;
  std::istringstream fields(stat.substr(name_end + 1));
  std::string field;
  fields >> field;
  facts->running = field != "Z" && field != "X";
  for (int i = 0; i < kFieldsBetweenStateAndStart; ++i) fields >> field;
  std::uint64_t start = 0;
  if (fields >> start) facts->creation_time = start;
}

}  // namespace

ProcessFacts QueryProcess(std::uint32_t pid) {
  ProcessFacts facts;
  if (pid > static_cast<std::uint32_t>(std::numeric_limits<pid_t>::max())) return facts;
  if (::kill(static_cast<pid_t>(pid), 0) == -1) {
    if (errno == EPERM) facts.opened = ProcessFacts::Opened::kDenied;
    return facts;
  }
  facts.opened = ProcessFacts::Opened::kYes;
  ReadStat(ReadStart("/proc/" + std::to_string(pid) + "/stat", kStatBytesMax), &facts);
  return facts;
}

}  // namespace zul

#include "collector/process_life.h"

#include <signal.h>

#include <array>
#include <cerrno>
#include <limits>
#include <sstream>

#include "core/file_layer.h"

namespace zul {

namespace {

constexpr int kFieldsBetweenStateAndStart = 18;

/// /proc/<pid>/stat, which the system gives with one read; empty when the process has ended.
std::string ReadStat(std::uint32_t pid) {
  std::error_code ec;
  fs::File file = fs::OpenForRead("/proc/" + std::to_string(pid) + "/stat", ec);
  std::array<char, 4096> stat;
  std::size_t read = 0;
  if (!file.is_open() || !file.Read(stat.data(), stat.size(), &read, ec)) return {};
  return {stat.data(), read};
}

/// Sets state and start time from a stat line (proc(5)). They follow the program's name, which is
/// in parentheses and may itself hold any characters.
void ParseStat(const std::string& stat, ProcessFacts* facts) {
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
  ParseStat(ReadStat(pid), &facts);
  return facts;
}

}  // namespace zul

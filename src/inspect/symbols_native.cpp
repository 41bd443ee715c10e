#include "inspect/symbols.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>

extern char** environ;  // NOLINT(readability-redundant-declaration): not in every unistd.h

namespace zul {

bool RunTool(const std::string& program, const std::vector<std::string>& arguments,
             std::string* output) {
  std::array<int, 2> ends{};
  if (::pipe2(ends.data(), O_CLOEXEC) != 0) return false;
  posix_spawn_file_actions_t actions;
  ::posix_spawn_file_actions_init(&actions);
  ::posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
  ::posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  ::posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
  std::vector<char*> argv{const_cast<char*>(program.c_str())};
  for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  pid_t child = 0;
  const int failed =
      ::posix_spawnp(&child, program.c_str(), &actions, nullptr, argv.data(), environ);
  ::posix_spawn_file_actions_destroy(&actions);
  ::close(ends[1]);
  std::array<char, 4096> buffer{};
  ssize_t read = 0;
  while (failed == 0 && (read = ::read(ends[0], buffer.data(), buffer.size())) > 0) {
    output->append(buffer.data(), static_cast<std::size_t>(read));
  }
  ::close(ends[0]);
  int status = 0;
  return failed == 0 && ::waitpid(child, &status, 0) == child && status == 0;
}

}  // namespace zul

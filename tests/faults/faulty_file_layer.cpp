#include "tests/faults/faulty_file_layer.h"

#include <ctime>
#include <map>
#include <mutex>

#include "core/text.h"
#include "tests/faults/faulty_call.h"

namespace zul::test {

namespace {

struct Recorder {
  std::mutex mutex;  // guards the rest
  Path folder;
  Script script;
  std::vector<FileCall> calls;
  std::map<std::pair<Call, std::string>, unsigned> turns;
} recorder;

/// The text without the digits and dots after `prefix`.
std::string WithoutNumbersAfter(std::string_view prefix, std::string text) {
  const std::size_t at = text.find(prefix);
  if (at == std::string::npos) return text;
  const std::size_t from = at + prefix.size();
  return text.erase(from, text.find_first_not_of("0123456789.", from) - from);
}

/// The name by which `FileCall` knows the file.
std::string NameOf(const Path& path) {
  const Path relative = path.lexically_relative(recorder.folder);
  const bool is_below = !relative.empty() && *relative.begin() != "..";
  std::string text = PathToGenericUtf8(is_below ? relative : path);
  text.resize(std::min(text.size(), text.find(".zul_update_tmp_")));
  for (const char* folder : {".qorva-zip-stage", ".qorva-zip-backup"}) {
    text = WithoutNumbersAfter(folder, std::move(text));
  }
  return text;
}

}  // namespace

void StartScript(const Path& folder, Script script) {
  const std::lock_guard lock(recorder.mutex);
  recorder.folder = folder;
  recorder.script = std::move(script);
  recorder.turns.clear();
}

std::vector<FileCall> StopScript() {
  const std::lock_guard lock(recorder.mutex);
  recorder.script = nullptr;
  return std::exchange(recorder.calls, {});
}

bool HasScript() {
  const std::lock_guard lock(recorder.mutex);
  return recorder.script != nullptr;
}

Verdict Judge(Call call, std::string_view name, const Path& subject) {
  const std::lock_guard lock(recorder.mutex);
  const auto number = static_cast<unsigned>(recorder.calls.size() + 1);
  std::string file = NameOf(subject);
  const unsigned turn = ++recorder.turns[{call, file}];
  recorder.calls.push_back({number, call, name, std::move(file), turn, std::this_thread::get_id()});
  return recorder.script(recorder.calls.back());
}

// NOLINTBEGIN(bugprone-reserved-identifier): the linker's names
extern "C" int __real_nanosleep(const timespec* duration, timespec* rest);
extern "C" int __wrap_nanosleep(const timespec* duration, timespec* rest) {
  return HasScript() ? 0 : __real_nanosleep(duration, rest);
}
// NOLINTEND(bugprone-reserved-identifier)

}  // namespace zul::test

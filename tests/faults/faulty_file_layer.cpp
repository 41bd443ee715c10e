#include "tests/faults/faulty_file_layer.h"

#include <ctime>
#include <mutex>

#include "core/text.h"
#include "tests/faults/faulty_call.h"

namespace zul::test {

namespace {

struct Recorder {
  std::mutex mutex;  // guards the rest
  Script script;
  std::vector<FileCall> calls;
} recorder;

/// The file that a temporary copy will replace; any other path as it is.
Path WithoutTemporarySuffix(const Path& path) {
  const std::string text = PathToUtf8(path);
  return *PathFromUtf8(text.substr(0, text.find(".zul_update_tmp_")));
}

}  // namespace

void StartScript(Script script) {
  const std::lock_guard lock(recorder.mutex);
  recorder.script = std::move(script);
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
  recorder.calls.push_back({number, call, name, WithoutTemporarySuffix(subject)});
  return recorder.script(recorder.calls.back());
}

// NOLINTBEGIN(bugprone-reserved-identifier): the linker's names
extern "C" int __real_nanosleep(const timespec* duration, timespec* rest);
extern "C" int __wrap_nanosleep(const timespec* duration, timespec* rest) {
  return HasScript() ? 0 : __real_nanosleep(duration, rest);
}
// NOLINTEND(bugprone-reserved-identifier)

}  // namespace zul::test

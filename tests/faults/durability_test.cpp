// The order of writes, flushes and changes. After a power cut only what was flushed is certain to
// be on the device.

#include <gtest/gtest.h>

#include <set>

#include "core/text.h"
#include "tests/faults/sample_update.h"

namespace zul::test {
namespace {

using enum Call;

TEST(Durability, EachFileIsFlushedBeforeItIsClosedAndBeforeTheNextChange) {
  const struct {
    Scenario scenario;
    std::size_t files;
  } cases[] = {
      {Scenario::kUpdate, 18},   // 6 extracted, 6 backups, 6 installed
      {Scenario::kRollback, 14}  // 6 backups, 6 installed, 2 only restored
  };
  for (const auto& [scenario, file_count] : cases) {
    const SampleUpdate update(scenario);
    std::set<std::string> made, unflushed;
    StartScript(update.folder(), [&](const FileCall& call) {
      const std::string& file = call.file;
      if (call.call == kCreateNewFile || call.call == kCreateNewFileIn) made.insert(file);
      const bool writes = call.call == kWriteSome || call.call == kTakeTimeAndAttributes;
      if (writes && made.contains(file)) unflushed.insert(file);
      if (call.call == kFlush) unflushed.erase(file);
      EXPECT_FALSE(call.call == kClose && unflushed.contains(file)) << "closed: " << file;

      EXPECT_FALSE(call.call == kRename && !unflushed.empty()) << "before " << file;
      const bool replaces = call.call == kMoveReplacing || call.call == kRemove;
      if (!replaces && call.call != kMoveToNewName) return Verdict();
      const std::string name = NameBelow("app", call).value_or("");
      const std::string backup = "work/rollback_backup/" + name;
      EXPECT_FALSE(unflushed.contains(file) || unflushed.contains(backup)) << "before " << file;
      EXPECT_EQ(made.contains(backup), replaces && SampleUpdate::kOld.contains(name)) << name;
      return Verdict();
    });
    static_cast<void>(SampleUpdate::Run(scenario, update.folder()));
    StopScript();
    EXPECT_EQ(made.size(), file_count);
  }
}

}  // namespace
}  // namespace zul::test

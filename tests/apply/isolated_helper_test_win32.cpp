#include <gtest/gtest.h>

#include "apply/isolated_helper.h"
#include "core/process_environment.h"
#include "core/text.h"
#include "tests/support/trace_reader.h"

namespace zul {
namespace {

using Texts = std::vector<std::string>;

TEST(RelaunchFromTargetTest, HappensOnlyInsideTheTargetFolder) {
  const test::TraceInTempFolder trace;
  const std::string here = PathToUtf8(CurrentExecutablePath(32768).parent_path());
  const struct {
    std::string target_dir;
    std::string error;  ///< empty: the run carries on here
  } cases[] = {
      {"", ""},
      {PathToUtf8(trace.folder().path()), ""},
      {here + "\\missing", ""},
      {here + "\\..", ""},
      {here + "\\.", "Restart executable path is invalid."},
  };
  for (const auto& c : cases) {
    UpdateRequest request;
    request.target_dir = c.target_dir;
    request.restart_exe = here + "\\no application.exe";
    bool relaunched = true;
    std::string error;
    EXPECT_EQ(RelaunchFromTargetIfNeeded(request, relaunched, &error), c.error.empty());
    EXPECT_FALSE(relaunched);
    EXPECT_EQ(error, c.error) << c.target_dir;
  }
  EXPECT_EQ(trace.Events(), Texts{});
}

TEST(LaunchIsolatedHelperTest, SaysWhichHelperDoesNotStart) {
  const test::TraceInTempFolder trace;
  const std::string temp = PathToUtf8(trace.folder() / "temp");
  const test::ScopedEnvironment tmp("TMP", temp);
  const fs::Path updater = trace.folder() / "qorva_updater.exe";
  test::WriteFile(updater, "no program");
  test::WriteFile(trace.folder() / "z.dll", "");
  std::string error;
  EXPECT_FALSE(LaunchIsolatedHelper(updater, {}, &error));
  std::error_code ec;
  const auto folders = fs::ListDirectory(trace.folder() / "temp", ec);
  ASSERT_EQ(folders.size(), 1u);
  const std::string folder = PathToUtf8(folders[0].path);
  EXPECT_EQ(error, "Cannot launch isolated updater helper process: helper='" + folder +
                       "\\zul_updater.exe', runtime_dir='" + folder + "'.");
  EXPECT_EQ(trace.Events(),
            Texts{"launch_isolated_updater_helper copied_runtime_dlls=1 installed_helper=" +
                  PathToUtf8(updater) + " isolated_helper=" + folder +
                  "\\zul_updater.exe runtime_dir=" + folder});
}

}  // namespace
}  // namespace zul

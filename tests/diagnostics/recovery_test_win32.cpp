// Evidence that another program holds open.

#include <windows.h>

#include "core/handle_win32.h"
#include "tests/diagnostics/started_diagnostics.h"

namespace zul {
namespace {

using HeldEvidence = test::StartedDiagnostics;

TEST_F(HeldEvidence, IsLoggedWhenTheSystemRefusesToReadIt) {
  const fs::Path file = SessionStateDirectory(crash_) / "active_1_a.json";
  test::WriteFile(file, "{}");
  const UniqueFileHandle holder(::CreateFileW(file.c_str(), GENERIC_READ, FILE_SHARE_DELETE,
                                              nullptr, OPEN_EXISTING, 0, nullptr));
  ASSERT_TRUE(holder);
  StartDiagnosticsSession();
  EXPECT_TRUE(LogHas("Diagnostics session recovery failed: "));
  EXPECT_TRUE(test::Exists(file));
}

}  // namespace
}  // namespace zul

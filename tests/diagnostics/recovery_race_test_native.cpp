// Four processes that recover one crash folder at the same moment.

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <map>

#include "diagnostics/session_recovery.h"
#include "tests/diagnostics/left_evidence.h"
#include "tests/diagnostics/started_diagnostics.h"

namespace zul {
namespace {

class RecoveryRace : public test::StartedDiagnostics {};

TEST_F(RecoveryRace, MakesOneReportOfEachPieceOfEvidence) {
  constexpr int kEach = 20;  // of 32 sessions that one pass takes
  for (int i = 10; i < 10 + kEach; ++i) {
    const std::string number = std::to_string(i);
    nlohmann::json session = test::LeftSession();
    session["session_id"] = "session_" + number;
    test::WriteFile(SessionStateDirectory(crash_) / ("active_1_" + number + ".json"),
                    session.dump());
    test::LeaveCompactSession(crash_, "process_" + number, {{"finalized", true}});
    test::WriteFile(crash_ / ("qorva_crash_" + number + ".dmp"), "MDMP");
  }
  int gate[2];
  ASSERT_EQ(::pipe(gate), 0);
  for (int process = 0; process < 4; ++process) {
    if (::fork() != 0) continue;
    ::close(gate[1]);
    char released;
    if (::read(gate[0], &released, 1) != 0) ::_exit(1);  // all go when the parent closes its end
    RecoverCompactEvidence(crash_);
    RecoverOrphanDumps(crash_);
    RecoverSessions(crash_);
    ::_exit(0);
  }
  ::close(gate[0]);
  ::close(gate[1]);
  for (int process = 0; process < 4; ++process) {
    int status = -1;
    ASSERT_NE(::wait(&status), -1);
    EXPECT_EQ(status, 0);
  }
  std::map<std::string, int> reports;
  std::error_code ec;
  for (const fs::DirectoryEntry& file : fs::ListDirectory(PendingReportsDirectory(crash_), ec)) {
    const nlohmann::json report = ReadJson(file.path);
    std::string subject = report["client_report_id"];
    if (report["details"].contains("previous_session_id")) {
      subject = report["details"]["previous_session_id"];
    } else if (report["kind"] == "crash") {
      subject = "dump";
    }
    ++reports[subject];
  }
  EXPECT_EQ(reports.size(), 2u * kEach + 1);
  for (const auto& [subject, count] : reports) {
    EXPECT_EQ(count, subject == "dump" ? kEach : 1) << subject;
  }
  EXPECT_EQ(test::ListTree(CompactDirectory(crash_)), "");
  EXPECT_EQ(test::ListTree(SessionStateDirectory(crash_)), "");
}

}  // namespace
}  // namespace zul

// The session's memory of created and deleted work ids, on a clock the test
// moves: repeated requests, expiry by age, the size limit.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include "session_harness.h"

namespace {

std::string HistoryConfig(unsigned int nKeepSecond)
{
    return "work_history_keep_second = " + std::to_string(nKeepSecond) +
           "\ntask_max_concurrent = 5000\nheartbeat_second = 100000\n";
}

TEST(SessionHistory, RepeatsAnswerWithoutEffectAndExpireByAgeAtSweepsMoreThan179SecondsApart)
{
    SessionHarness session(HistoryConfig(100));
    session.Start();
    EXPECT_EQ(session.Create(3), 0);
    session.AdvanceClock(150);  // older than the keeping time, but no sweep yet
    EXPECT_EQ(session.Create(3), 0);
    session.AdvanceClock(40);  // 190 s since the last sweep
    EXPECT_EQ(session.Create(3), 323);

    EXPECT_EQ(session.Create(1), 0);
    EXPECT_EQ(session.Create(1), 0);  // remembered: answered, nothing created
    // Past the keeping time, at the next sweep: the id is forgotten while the
    // work waits unstarted in the manager, so a create now finds it there.
    session.AdvanceClock(200);
    EXPECT_EQ(session.Create(1), 323);

    EXPECT_EQ(session.Create(2), 0);
    EXPECT_EQ(session.Delete(2), 0);
    EXPECT_EQ(session.Delete(2), 0);  // remembered
    session.AdvanceClock(200);
    EXPECT_EQ(session.Delete(2), 300);  // forgotten, and the work is gone
}

TEST(SessionHistory, AnOversizedMapLosesItsLowestIdsFirst)
{
    SessionHarness session(HistoryConfig(100000));
    session.Start();
    for (unsigned int n = 1; n <= 1005; ++n) ASSERT_EQ(session.Create(n), 0) << n;
    session.AdvanceClock(181);
    EXPECT_EQ(session.Create(5), 323);  // forgotten; the work itself still waits
    EXPECT_EQ(session.Create(6), 0);    // remembered
    // Exactly 1000 fresh entries: all kept, the lowest id included.
    session.AdvanceClock(181);
    EXPECT_EQ(session.Create(6), 0);
}

TEST(SessionBuffer, ALargeReplyGrowsTheBlockAndTheShrinkGivesItBack)
{
    SessionHarness session("heartbeat_second = 100000\nasn_buffer_auto_adjust_second = 100\n");
    session.Start();
    ASSERT_EQ(session.Create(1, "head -c 1000000 /dev/zero", 0, 0, 1000000), 0);
    ASSERT_EQ(session.Start(1), 0);
    RspWorkCmdQuery result;
    ASSERT_TRUE(session.Result(result, 1));
    EXPECT_EQ(result.stdOut.octetLen, 1000000u);

    session.AdvanceClock(101);
    std::string strLog = session.ReadLog();
    size_t nPos = strLog.find("CProcessCommon::DealAutoAdjustAsnBufSize(need adjust asn buffer to default, now size: ");
    ASSERT_NE(nPos, std::string::npos);
    EXPECT_GT(atoi(strLog.c_str() + nPos + 86), 1000000);
    session.AdvanceClock(101);  // once: the next shrink finds the default size
    EXPECT_NE(session.ReadLog().find("DealAutoAdjustAsnBufSize(not need to adjust asn buffer, now size: 524288)"),
              std::string::npos);
}

} // namespace

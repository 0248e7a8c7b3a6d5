// The heartbeat's timing on a clock the test moves: one at the session's first
// pass, one 2 seconds after each connect, then one each period, whichever of
// the session's first pass and the link's first connect comes first.
#include <gtest/gtest.h>

#include "session_harness.h"

namespace {

// A connect before the session's first pass sets the first heartbeat; the
// default period of 50 seconds then.
TEST(SessionHeartbeat, OneAtTheFirstPassOrAtTheConnectThenTwoSecondsAfterTheConnectThenEachPeriod)
{
    const struct {
        bool bConnectFirst;
        const char* szConfig;
        time_t tPeriod;
    } rows[] = {{false, "heartbeat_second = 100\n", 100}, {true, "", 50}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.bConnectFirst);
        SessionHarness session(row.szConfig);
        if (row.bConnectFirst) session.LinkConnected();
        session.Start();
        ReqWorkAgentHeartbeat heartbeat;
        if (!row.bConnectFirst) {
            ASSERT_TRUE(session.Next(heartbeat));
            EXPECT_EQ(heartbeat.agentId.value, 77);
            session.LinkConnected();
        }
        // Waits for a heartbeat that must not come: the real time that passes
        // is far below the margins the clock moves leave.
        EXPECT_FALSE(session.Next(heartbeat, 300));
        session.AdvanceClock(2);
        ASSERT_TRUE(session.Next(heartbeat));
        session.AdvanceClock(row.tPeriod - 10);
        EXPECT_FALSE(session.Next(heartbeat, 300));
        session.AdvanceClock(10);
        ASSERT_TRUE(session.Next(heartbeat));
    }
}

} // namespace

// The heartbeat's timing on a clock the test moves: one at the session's first
// pass, one 2 seconds after each connect, then one each period, whichever of
// the session's first pass and the link's first connect comes first.
#include <gtest/gtest.h>

#include "session_harness.h"

namespace {

// The waits for a heartbeat that must not come; seconds of real time that pass
// meanwhile are far below the margins the clock moves leave.
const int NONE_WAIT_MS = 300;

const char* HEARTBEAT_CONFIG = "heartbeat_second = 100\n";

TEST(SessionHeartbeat, OneAtTheFirstPassThenTwoSecondsAfterTheConnectThenEachPeriod)
{
    SessionHarness session(HEARTBEAT_CONFIG);
    session.Start();
    ReqWorkAgentHeartbeat heartbeat;
    ASSERT_TRUE(session.Next(heartbeat));
    EXPECT_EQ(heartbeat.agentId.value, 77);

    session.LinkConnected();
    EXPECT_FALSE(session.Next(heartbeat, NONE_WAIT_MS));
    session.AdvanceClock(2);
    ASSERT_TRUE(session.Next(heartbeat));
    session.AdvanceClock(90);
    EXPECT_FALSE(session.Next(heartbeat, NONE_WAIT_MS));
    session.AdvanceClock(10);
    ASSERT_TRUE(session.Next(heartbeat));
}

// The link may connect before the session thread runs its first pass: the
// connect's schedule then stands, and no heartbeat leaves before it. The one
// after comes a whole period later, so that the second heartbeat the server
// sees lies a period and 2 seconds after the connect. The default period of 50
// seconds, since here the connect comes before the session reads its keys.
TEST(SessionHeartbeat, AConnectBeforeTheFirstPassSetsTheFirstHeartbeat)
{
    SessionHarness session("");
    session.LinkConnected();
    session.Start();
    ReqWorkAgentHeartbeat heartbeat;
    EXPECT_FALSE(session.Next(heartbeat, NONE_WAIT_MS));
    session.AdvanceClock(2);
    ASSERT_TRUE(session.Next(heartbeat));
    session.AdvanceClock(40);
    EXPECT_FALSE(session.Next(heartbeat, NONE_WAIT_MS));
    session.AdvanceClock(10);
    ASSERT_TRUE(session.Next(heartbeat));
}

} // namespace

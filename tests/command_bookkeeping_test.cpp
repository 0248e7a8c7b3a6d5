// The command manager's bookkeeping, through the session run in-process on a
// clock the test moves: result codes, the limit on works, the timeout, a
// delete while running, repeated requests and the quiet delete, the expiry of
// works and the repeats of results.
#include <gtest/gtest.h>

#include "session_harness.h"

namespace {

std::string Text(const AsnOcts& octs) { return std::string(octs.octs, octs.octetLen); }

const char* const QUIET = "heartbeat_second = 100000\n";

TEST(CommandBookkeeping, ResultCodes)
{
    SessionHarness session(std::string(QUIET) + "task_max_concurrent = 2\n");
    session.Start();
    RspWorkCmdQuery rsp;
    ASSERT_TRUE(session.Query(rsp, 999));
    EXPECT_EQ(rsp.ret, 300);
    EXPECT_EQ(rsp.status, 4);
    EXPECT_EQ(Text(rsp.stdOut), "");
    EXPECT_EQ(session.Start(999), 300);
    EXPECT_EQ(session.Delete(999), 300);
    EXPECT_EQ(session.Start(999, 2), 309);  // any action but 1, even for an unknown id

    // Not begun and running works count against the limit; finished ones don't.
    ASSERT_EQ(session.Create(10, "sleep 30"), 0);
    ASSERT_EQ(session.Create(11), 0);
    EXPECT_EQ(session.Create(12), 302);
    ASSERT_EQ(session.Start(10), 0);
    EXPECT_EQ(session.Create(12), 302);
    ASSERT_EQ(session.Start(11), 0);
    ASSERT_TRUE(session.Result(rsp, 11));
    EXPECT_EQ(session.Create(12), 0);

    // Timeout: killed, reported with 324 and the text alone as stderr.
    ASSERT_EQ(session.Create(13, "echo partial >&2; exec sleep 30", 0, 10), 302);  // 10 and 12 are still counted
    ASSERT_EQ(session.Delete(12), 0);
    ASSERT_EQ(session.Create(13, "echo partial >&2; exec sleep 30", 0, 10), 0);
    ASSERT_EQ(session.Start(13), 0);
    EXPECT_FALSE(session.Result(rsp, 13, 300));
    session.AdvanceClock(10);
    ASSERT_TRUE(session.Result(rsp, 13));
    EXPECT_EQ(rsp.ret, 324);
    EXPECT_EQ(rsp.status, 2);
    EXPECT_EQ(rsp.exitCode, 0);
    EXPECT_EQ(Text(rsp.stdErr), "the work is timeout\n");

    // Deleted while running: the delete answers 0, a query before the next expiry pass shows 327.
    EXPECT_EQ(session.Delete(10), 0);
    ASSERT_TRUE(session.Query(rsp, 10));
    EXPECT_EQ(rsp.ret, 327);
    EXPECT_EQ(rsp.status, 3);
    EXPECT_EQ(Text(rsp.stdErr), "the work was delete by the user\n");
    EXPECT_EQ(session.Delete(10), 0);  // the session remembers the delete
}

TEST(CommandBookkeeping, RepeatedRequestsAndTheQuietDelete)
{
    SessionHarness session(QUIET);
    session.Start();
    ASSERT_EQ(session.Create(20, "echo once"), 0);
    ASSERT_EQ(session.Create(20, "echo twice"), 0);  // answered as a success, nothing created
    RspWorkCmdQuery rsp;
    EXPECT_EQ(session.Start(20), 0);
    ASSERT_TRUE(session.Result(rsp, 20));
    EXPECT_EQ(Text(rsp.stdOut), "once\n");
    EXPECT_EQ(session.Start(20), 0);  // a repeated start changes nothing
    EXPECT_FALSE(session.Result(rsp, 20, 300));
    EXPECT_EQ(session.Delete(20), 0);
    EXPECT_EQ(session.Delete(20), 0);

    // Flag 0x40: no answer to the delete, and it is not remembered.
    ASSERT_EQ(session.Create(21, "true", 64), 0);
    EXPECT_EQ(session.Delete(21, 500), -1);
    EXPECT_EQ(session.Delete(21), 300);
}

TEST(CommandBookkeeping, ExpiryAndTheRepeatsOfResults)
{
    // Periods of 10 seconds that the clock moves through, far above the real
    // seconds that pass meanwhile.
    SessionHarness session(std::string(QUIET) +
                           "task_auto_delete_test_second = 1\n"
                           "task_not_begin_keep_second_before_auto_delete = 20\n"
                           "task_finish_send_result_dis_second_before_auto_delete = 10\n"
                           "task_finish_keep_second_before_auto_delete = 40\n");
    session.Start();
    // Not begun: gone silently after its keeping time; its command is masked in the log.
    ASSERT_EQ(session.Create(40, "echo x | chpasswd"), 0);
    EXPECT_NE(session.ReadLog().find("cmd: ******)"), std::string::npos);
    EXPECT_EQ(session.ReadLog().find("chpasswd"), std::string::npos);
    RspWorkCmdQuery rsp;
    session.AdvanceClock(10);
    ASSERT_TRUE(session.Query(rsp, 40));
    EXPECT_EQ(rsp.ret, 0);
    session.AdvanceClock(11);
    ASSERT_TRUE(agent_test::WaitUntil([&] { return session.Query(rsp, 40) && rsp.ret == 300; }, 3000));

    // Finished: repeated each period, a last time at the end of its keeping
    // time, then gone. A delete stops the repeats of another.
    ASSERT_EQ(session.Create(41, "echo repeat"), 0);
    ASSERT_EQ(session.Create(42), 0);
    ASSERT_EQ(session.Start(41), 0);
    ASSERT_EQ(session.Start(42), 0);
    ASSERT_TRUE(session.Result(rsp, 41));
    ASSERT_TRUE(session.Result(rsp, 42));
    ASSERT_EQ(session.Delete(42), 0);
    for (int n = 1; n <= 4; ++n) {
        session.AdvanceClock(10);
        ASSERT_TRUE(session.Result(rsp, 41)) << n;
        EXPECT_EQ(Text(rsp.stdOut), "repeat\n");
    }
    EXPECT_FALSE(session.Result(rsp, 42, 0));
    ASSERT_TRUE(agent_test::WaitUntil(
        [&] { return session.ReadLog().find("auto delete finish work, work id: 41") != std::string::npos; }, 3000));
    session.AdvanceClock(10);
    EXPECT_FALSE(session.Result(rsp, 41, 300));
    ASSERT_TRUE(session.Query(rsp, 41));
    EXPECT_EQ(rsp.ret, 300);
}

} // namespace

// The session's answers to command requests: each goes back on the route and
// with the append of the request it answers, whatever came in before it,
// while a work's own report keeps the route of its create.
#include <gtest/gtest.h>

#include "session_harness.h"

namespace {

struct Server {
    int nIp;
    int nId;
};
const Server SERVER_A{0x0A000001, 3};
const Server SERVER_B{0x0A000002, 4};

template <class T>
void Address(T& req, unsigned int nWorkId, const Server& server)
{
    req.workId = static_cast<int>(nWorkId);
    req.routeSrcServerIp = server.nIp;
    req.routeSrcServerId = server.nId;
}

// The next reply of type T: its ret, and that it went to the server and carried the append.
template <class T>
int NextRetTo(SessionHarness& session, const Server& server, int nAppend)
{
    T rsp;
    int nGotAppend = -1;
    if (!session.Next(rsp, 3000, &nGotAppend)) return -1;
    EXPECT_EQ(rsp.routeDstServerIp.value, server.nIp);
    EXPECT_EQ(rsp.routeDstServerId.value, server.nId);
    EXPECT_EQ(rsp.routeSrcAgentId.value, 77);
    EXPECT_EQ(nGotAppend, nAppend);
    return rsp.ret.value;
}

TEST(SessionReply, EachAnswerTakesTheRouteOfItsOwnRequest)
{
    SessionHarness session("heartbeat_second = 100000\n");
    session.Start();
    ReqWorkCmdCreate create;
    Address(create, 1, SERVER_A);
    create.cmd = "echo out";
    session.Send(create, 11);
    EXPECT_EQ(NextRetTo<RspWorkCmdCreate>(session, SERVER_A, 11), 0);
    Address(create, 1, SERVER_B);
    session.Send(create, 12);  // answered from the history
    EXPECT_EQ(NextRetTo<RspWorkCmdCreate>(session, SERVER_B, 12), 0);

    ReqWorkCmdSetAction start;
    Address(start, 1, SERVER_B);
    start.action = 2;
    session.Send(start, 13);
    EXPECT_EQ(NextRetTo<RspWorkCmdSetAction>(session, SERVER_B, 13), 309);
    Address(start, 2, SERVER_A);
    start.action = 1;
    session.Send(start, 14);
    EXPECT_EQ(NextRetTo<RspWorkCmdSetAction>(session, SERVER_A, 14), 300);

    ReqWorkCmdQuery query;
    Address(query, 2, SERVER_B);
    session.Send(query, 15);
    RspWorkCmdQuery unknown;
    int nAppend = -1;
    ASSERT_TRUE(session.Next(unknown, 3000, &nAppend));
    EXPECT_EQ(unknown.ret.value, 300);
    EXPECT_EQ(unknown.status.value, 4);
    EXPECT_EQ(unknown.routeDstServerIp.value, SERVER_B.nIp);
    EXPECT_EQ(nAppend, 15);

    // The work's result goes to the server that created it, with the append of its start.
    Address(start, 1, SERVER_B);
    session.Send(start, 16);
    EXPECT_EQ(NextRetTo<RspWorkCmdSetAction>(session, SERVER_B, 16), 0);
    EXPECT_EQ(NextRetTo<RspWorkCmdQuery>(session, SERVER_A, 16), 0);
    // A query of a known work is answered the same way, with the query's append.
    Address(query, 1, SERVER_B);
    session.Send(query, 17);
    EXPECT_EQ(NextRetTo<RspWorkCmdQuery>(session, SERVER_A, 17), 0);

    ReqWorkCmdDelete del;
    Address(del, 1, SERVER_B);
    session.Send(del, 18);
    EXPECT_EQ(NextRetTo<RspWorkCmdDelete>(session, SERVER_B, 18), 0);
    Address(del, 3, SERVER_A);
    session.Send(del, 19);
    EXPECT_EQ(NextRetTo<RspWorkCmdDelete>(session, SERVER_A, 19), 300);
}

} // namespace

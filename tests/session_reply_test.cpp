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
const Server A{0x0A000001, 3};
const Server B{0x0A000002, 4};

// The next reply of type T: its ret, and that it went to the server and
// carried the append; a copy of it in pOut when given.
template <class T>
int NextRetTo(SessionHarness& session, const Server& server, int nAppend, T* pOut = nullptr)
{
    T rsp;
    int nGotAppend = -1;
    if (!session.Next(rsp, 3000, &nGotAppend)) return -1;
    EXPECT_EQ(rsp.routeDstServerIp.value, server.nIp);
    EXPECT_EQ(rsp.routeDstServerId.value, server.nId);
    EXPECT_EQ(rsp.routeSrcAgentId.value, 77);
    EXPECT_EQ(nGotAppend, nAppend);
    if (pOut != nullptr) *pOut = rsp;
    return rsp.ret.value;
}

// The request about the work from one server with the append, and the ret of
// its reply, which must go to the other with the same append.
template <class TRsp, class TReq>
int Round(SessionHarness& session, TReq&& req, unsigned int nWorkId, const Server& from, int nAppend, const Server& to,
          TRsp* pOut = nullptr)
{
    req.workId = static_cast<int>(nWorkId);
    req.routeSrcServerIp = from.nIp;
    req.routeSrcServerId = from.nId;
    session.Send(req, nAppend);
    return NextRetTo<TRsp>(session, to, nAppend, pOut);
}

TEST(SessionReply, EachAnswerTakesTheRouteOfItsOwnRequest)
{
    SessionHarness session("heartbeat_second = 100000\n");
    session.Start();
    ReqWorkCmdCreate create;
    create.cmd = "echo out";
    EXPECT_EQ(Round<RspWorkCmdCreate>(session, create, 1, A, 11, A), 0);
    EXPECT_EQ(Round<RspWorkCmdCreate>(session, create, 1, B, 12, B), 0);  // answered from the history
    ReqWorkCmdSetAction start;
    start.action = 2;
    EXPECT_EQ(Round<RspWorkCmdSetAction>(session, start, 1, B, 13, B), 309);
    start.action = 1;
    EXPECT_EQ(Round<RspWorkCmdSetAction>(session, start, 2, A, 14, A), 300);
    RspWorkCmdQuery unknown;
    EXPECT_EQ(Round<RspWorkCmdQuery>(session, ReqWorkCmdQuery(), 2, B, 15, B, &unknown), 300);
    EXPECT_EQ(unknown.status.value, 4);

    // The work's result goes to the server that created it, with the append of its start.
    EXPECT_EQ(Round<RspWorkCmdSetAction>(session, start, 1, B, 16, B), 0);
    EXPECT_EQ(NextRetTo<RspWorkCmdQuery>(session, A, 16), 0);
    // A query of a known work is answered the same way, with the query's append.
    EXPECT_EQ(Round<RspWorkCmdQuery>(session, ReqWorkCmdQuery(), 1, B, 17, A), 0);
    EXPECT_EQ(Round<RspWorkCmdDelete>(session, ReqWorkCmdDelete(), 1, B, 18, B), 0);
    EXPECT_EQ(Round<RspWorkCmdDelete>(session, ReqWorkCmdDelete(), 3, A, 19, A), 300);
}

} // namespace

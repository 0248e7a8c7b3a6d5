// The server session of the real agent against a test work server: the
// heartbeat and its timing, agent info, dispatch of what the agent does not
// serve, the watch on the server's answers, moves between servers and the
// exit notice.
#include <gtest/gtest.h>
#include <arpa/inet.h>
#include <signal.h>
#include <sys/stat.h>

#include "agent_e2e.h"
#include "loop_harness.h"
#include "tcp_peer.h"
#include "util.h"

using namespace agent_test;

namespace {

// 127.0.0.1 as the agent id: the address as inet_pton leaves it, read as one integer.
const unsigned int AGENT_ID_LOOPBACK = brel_lib::IpStringToInt("127.0.0.1");

class AgentSession : public AgentEndToEnd {
protected:
    void SetUp() override
    {
        AgentEndToEnd::SetUp();
        if (!IsSkipped()) Tree().Config()["heartbeat_second"] = "3";
    }
    // A heartbeat every second whose answer is checked every 1 + 2 x 1 = 3 s; two misses move, the third restarts.
    pid_t StartWatched()
    {
        Tree().Config()["heartbeat_second"] = "1";
        Tree().Config()["server_heartbeat_respond_second"] = "1";
        Tree().Config()["server_heartbeat_failed_times_to_exit"] = "2";
        Tree().WriteConfig();
        return Tree().StartForeground();
    }
    // Orders the agent to a new server (address 127.0.0.1).
    void OrderNewServer(unsigned short nPort, unsigned short nSlavePort, int nAppend)
    {
        ReqWorkAgentConnectNewServer order;
        order.newServerIp = static_cast<int>(AGENT_ID_LOOPBACK);
        order.newServerPort = nPort;
        if (nSlavePort != 0) {
            order.newServerSlaveIp = static_cast<int>(AGENT_ID_LOOPBACK);
            order.newServerSlavePort = nSlavePort;
        }
        ASSERT_TRUE(Server().Send(order, nAppend));
    }
};

TEST_F(AgentSession, FirstHeartbeatIsByteExactAReconnectBringsTheNextAndTheExitNoticeComesLast)
{
    // A period far beyond the waits below: a heartbeat soon after a connect comes from
    // the connect. The timing itself is session_heartbeat_test's, on a clock it moves.
    Tree().Config()["heartbeat_second"] = "30";
    Tree().WriteConfig();
    pid_t pid = Tree().StartForeground();
    TestWorkServer::Received first;
    ASSERT_TRUE(Server().WaitFor(Zik::reqWorkAgentHeartbeatCid, 10000, &first));
    // version 4, append 0, agent id 127.0.0.1 as bytes 7F 00 00 01 read as one little-endian integer.
    std::vector<unsigned char> expected = {0x30, 0x12, 0x02, 0x01, 0x04, 0x02, 0x01, 0x00, 0xBF, 0x82,
                                           0x2C, 0x08, 0x30, 0x06, 0x02, 0x04, 0x01, 0x00, 0x00, 0x7F};
    EXPECT_EQ(first.bytes, expected);
    EXPECT_EQ(first.nConnection, 1);

    Server().DropConnection();
    ASSERT_TRUE(Server().WaitConnections(2, 10000));
    int64_t lReconnect = Server().ConnectTimeMs(2);
    TestWorkServer::Received got;
    for (size_t n = 2; got.nConnection != 2; ++n) {
        ASSERT_TRUE(Server().WaitFor(Zik::reqWorkAgentHeartbeatCid, 15000, &got, n));
    }
    EXPECT_LT(got.lTimeMs - lReconnect, 15000);
    EXPECT_EQ(got.bytes, expected);

    Stop(pid);
    TestWorkServer::Received notice;
    ASSERT_TRUE(Server().WaitFor(Zik::reqWorkAgentExitCid, 2000, &notice));
    EXPECT_EQ(notice.nAppend, 0);
    EXPECT_NE(Tree().ReadLog().find("CProcessCommon::Run(send to server agent exit is ok)"), std::string::npos);
}

TEST_F(AgentSession, BadPacketsChangeNothingAndAgentInfoAnswersAfterThem)
{
    pid_t pid = StartAgent();
    ReqJobCreateList jobs;  // of the catalogue, but not served here
    jobs.Append()->author = "job";
    ASSERT_TRUE(Server().Send(jobs, 9));
    EXPECT_TRUE(Tree().WaitForLog(
        "CProcessCommon::Run(we recevie a data, but we don't know it, the choiceid: 37)", 3000));
    // Framed, but not a packet of the catalogue.
    ASSERT_TRUE(Server().SendRaw({0x30, 0x03, 0x02, 0x01, 0x05}));
    EXPECT_TRUE(Tree().WaitForLog("CProcessCommon::DealReq(parse from buffer is error)", 3000));
    EXPECT_EQ(Server().Connections(), 1);

    // Framed packets of random bytes, and now and then bytes that break the
    // framing: the link reconnects (several may share one connection).
    unsigned int nSeed = 12345;
    auto next = [&] {
        nSeed = nSeed * 1103515245u + 12345u;
        return (nSeed >> 16) & 0xff;
    };
    for (int i = 0; i < 3000; ++i) {
        std::vector<unsigned char> packet{static_cast<unsigned char>(i % 500 == 499 ? 0x31 : 0x30)};
        unsigned int nLen = next() % 120;
        packet.push_back(static_cast<unsigned char>(nLen));
        for (unsigned int n = 0; n < nLen; ++n) packet.push_back(static_cast<unsigned char>(next()));
        if (!Server().SendRaw(packet)) {
            ASSERT_TRUE(WaitUntil([&] { return Server().SendRaw({0x30, 0x00, 0x30, 0x00}); }, 5000));
        }
    }
    ASSERT_TRUE(Server().WaitConnections(2, 10000));

    // A request may still meet a connection that the last garbage condemned: ask until answered.
    ReqWorkAgentInfo req;
    req.fill = 1;
    TestWorkServer::Received got;
    ASSERT_TRUE(WaitUntil(
        [&] {
            Server().Send(req, 55);
            return Server().WaitFor(Zik::rspWorkAgentInfoCid, 500, &got);
        },
        10000));
    EXPECT_EQ(got.nAppend, 0);
    EXPECT_EQ(got.nVersion, 4);
    RspWorkAgentInfo info;
    ASSERT_TRUE(DecodeBody(got, info));
    ASSERT_NE(info.agentInfo.get(), nullptr);
    EXPECT_EQ(info.agentInfo->version, 117440551);
    EXPECT_EQ(static_cast<unsigned int>(info.agentInfo->agentId.value), AGENT_ID_LOOPBACK);
    EXPECT_LE(std::abs(info.agentInfo->startTime - static_cast<int>(time(nullptr))), 30);
    EXPECT_TRUE(Tree().IsAlive(pid));
    Stop(pid);
}

TEST_F(AgentSession, SilentServerMakesTheAgentMoveThenRestart)
{
    TestWorkServer slave;
    Tree().Config()["server_slave_ip"] = "127.0.0.1";
    Tree().Config()["server_slave_port"] = std::to_string(slave.Port());
    pid_t pid = StartWatched();
    ASSERT_TRUE(Server().WaitConnections(1, 5000));
    // First check: next server; second check: back to the first; third: restart.
    ASSERT_TRUE(slave.WaitConnections(1, 6000));
    ASSERT_TRUE(Server().WaitConnections(2, 6000));
    EXPECT_EQ(Tree().WaitExit(pid, 8000), 1);
    std::string strLog = Tree().ReadLog();
    EXPECT_EQ(CountOf(strLog, "server is not respond in 3sec, we reconnect it"), 2);
    EXPECT_NE(strLog.find("Error  ("), std::string::npos);
    EXPECT_NE(strLog.find("CProcessCommon::DealHeartbeatTimeout(server is not respond in 9sec, we will restart)"),
              std::string::npos);
    EXPECT_EQ(ReadFile(Tree().Path("log/restart.txt")), "restarted\n");
    EXPECT_EQ(strLog.find("we end"), std::string::npos);
}

TEST_F(AgentSession, OneAnswerResetsTheCount)
{
    pid_t pid = StartWatched();
    ASSERT_TRUE(Tree().WaitForLog("we reconnect it", 6000));
    // Answer one heartbeat: the next check finds an answer and the count is 0 again.
    Server().SetAnswerHeartbeats(true);
    ASSERT_TRUE(Tree().WaitForLog("CProcessCommon::DealHeartbeatTimeout(server is respond in we want sec)", 8000));
    Server().SetAnswerHeartbeats(false);
    // Two more silent checks move the agent; only the third restarts it.
    EXPECT_EQ(Tree().WaitExit(pid, 15000), 1);
    std::string strLog = Tree().ReadLog();
    size_t nRespond = strLog.find("server is respond in we want sec");
    ASSERT_NE(nRespond, std::string::npos);
    EXPECT_EQ(CountOf(strLog.substr(nRespond), "we reconnect it"), 2);
}

TEST_F(AgentSession, ConnectNewServerMovesTheAgentAndRewritesTheFile)
{
    TestWorkServer newServer;
    pid_t pid = StartAgent();
    OrderNewServer(newServer.Port(), 4321, 77);
    ASSERT_TRUE(newServer.WaitFor(Zik::reqWorkAgentHeartbeatCid, 5000));
    std::string strConfig = ReadFile(Tree().Path("etc/config"));
    for (std::string strLine : {std::string("server_ip = 127.0.0.1"), "server_port = " + std::to_string(newServer.Port()),
                                std::string("server_slave_ip = 127.0.0.1"), std::string("server_slave_port = 4321")})
        EXPECT_NE(strConfig.find(strLine + "\n"), std::string::npos) << strLine;
    EXPECT_TRUE(Tree().WaitForLog("CProcessCommon::DealConnectToNewServer(change the config success)", 2000));
    EXPECT_EQ(Server().Count(Zik::rspWorkAgentConnectNewServerCid), 0);  // success sends no reply
    Stop(pid);
}

TEST_F(AgentSession, FailedRewriteGoesBackToTheOldServerWith310)
{
    TestWorkServer newServer;
    pid_t pid = StartAgent();
    // sed can't edit a directory: the rewrite fails.
    std::string strConfig = Tree().Path("etc/config");
    ASSERT_EQ(rename(strConfig.c_str(), (strConfig + ".saved").c_str()), 0);
    ASSERT_EQ(mkdir(strConfig.c_str(), 0755), 0);
    OrderNewServer(newServer.Port(), 0, 78);
    // The reply may leave on the new link if the link moved before the way back was decided.
    TestWorkServer::Received reply;
    ASSERT_TRUE(WaitUntil([&] { return Server().Count(Zik::rspWorkAgentConnectNewServerCid) +
                                           newServer.Count(Zik::rspWorkAgentConnectNewServerCid) > 0; },
                          12000));
    if (!Server().WaitFor(Zik::rspWorkAgentConnectNewServerCid, 0, &reply)) {
        ASSERT_TRUE(newServer.WaitFor(Zik::rspWorkAgentConnectNewServerCid, 0, &reply));
    }
    EXPECT_EQ(reply.nAppend, 78);
    RspWorkAgentConnectNewServer rsp;
    ASSERT_TRUE(DecodeBody(reply, rsp));
    EXPECT_EQ(rsp.ret, 310);
    EXPECT_EQ(static_cast<unsigned int>(rsp.agentId.value), AGENT_ID_LOOPBACK);
    EXPECT_TRUE(Tree().WaitForLog("slave server ip error", 1000));
    // The agent ends on the old server: its heartbeats arrive there again.
    size_t nBefore = static_cast<size_t>(Server().Count(Zik::reqWorkAgentHeartbeatCid));
    EXPECT_TRUE(Server().WaitFor(Zik::reqWorkAgentHeartbeatCid, 8000, nullptr, nBefore + 1));
    Stop(pid);
}

TEST_F(AgentSession, NeedGetNewWsAsksWithTheFirstTwoHeartbeatsOnly)
{
    Tree().Config()["heartbeat_second"] = "1";
    Tree().Config()["need_get_new_ws"] = "1";
    Tree().WriteConfig();
    pid_t pid = Tree().StartForeground();
    ASSERT_TRUE(Server().WaitFor(Zik::reqWorkAgentHeartbeatCid, 5000, nullptr, 5));
    EXPECT_EQ(Server().Count(Zik::reqWorkAgentGetNewWsCid), 2);
    TestWorkServer::Received got;
    ASSERT_TRUE(Server().WaitFor(Zik::reqWorkAgentGetNewWsCid, 100, &got));
    EXPECT_EQ(got.nAppend, 0);

    RspWorkAgentGetNewWs stay;  // address 0: the agent stays
    ASSERT_TRUE(Server().Send(stay, 3));
    EXPECT_TRUE(Tree().WaitForLog("CProcessCommon::RspGetNewWs(not need connect to new server)", 3000));
    EXPECT_NE(ReadFile(Tree().Path("etc/config")).find("need_get_new_ws = 0\n"), std::string::npos);
    Stop(pid);
}

TEST_F(AgentSession, ExitWithTheLinkDownDoesNotWait)
{
    Tree().Config()["server_port"] = std::to_string(RefusedPort());
    Tree().WriteConfig();
    pid_t pid = Tree().StartForeground();
    ASSERT_TRUE(Tree().WaitForLog("connect the server is failed", 5000));
    // The line names the path that waits for nothing; a time bound would only measure load.
    Stop(pid);
    EXPECT_NE(Tree().ReadLog().find("CProcessCommon::Run(send to server agent exit is failed because network was not "
                                    "connect now)"),
              std::string::npos);
}

TEST_F(AgentSession, ExitWithAStalledLinkGivesUpAfterOneSecond)
{
    // A server that never reads: large results fill the buffers and the exit notice can't leave.
    TcpPeer stalled;
    Tree().Config()["server_port"] = std::to_string(stalled.Port());
    Tree().WriteConfig();
    pid_t pid = Tree().StartForeground();
    ASSERT_TRUE(stalled.Accept(5000));
    for (int i = 1; i <= 6; ++i) {
        ReqWorkCmdCreate create;
        create.workId = i;
        create.bufSize = 8000000;
        create.cmd = "head -c 8000000 /dev/zero";
        ReqWorkCmdSetAction start;
        start.workId = i;
        start.action = 1;
        ASSERT_TRUE(stalled.Write(EncodeMessage(create, 1)));
        ASSERT_TRUE(stalled.Write(EncodeMessage(start, 1)));
    }
    ASSERT_TRUE(Tree().WaitForLog("work is normal finish, work id: 6", 10000));
    SleepMs(500);
    int64_t lStart = SteadyMs();
    kill(pid, SIGINT);
    EXPECT_EQ(Tree().WaitExit(pid, 10000), 0);
    int64_t lElapsed = SteadyMs() - lStart;
    EXPECT_GE(lElapsed, 900);
    EXPECT_LT(lElapsed, 8000);
    EXPECT_NE(Tree().ReadLog().find("CProcessCommon::Run(send to server agent exit is failed in 1s)"), std::string::npos);
    EXPECT_NE(Tree().ReadLog().find("we end"), std::string::npos);
}

TEST_F(AgentSession, ReloadAppliesANewAgentIdAndUnknownPacketsAreDumpedToStandardOutput)
{
    Tree().Config()["log_level"] = "OBJDBG";
    pid_t pid = StartAgent();
    ReqTestSpeedGet carried;
    carried.getSize = 4242;
    ASSERT_TRUE(Server().Send(carried, 1));
    ASSERT_TRUE(Tree().WaitForLog("the choiceid: 74)", 3000));
    // The dump goes to standard output only, whatever the log file is.
    ASSERT_TRUE(WaitUntil([&] { return Tree().ReadStdout().find("getSize 4242") != std::string::npos; }, 2000));
    EXPECT_NE(Tree().ReadStdout().find("ObjDbg ("), std::string::npos);
    EXPECT_EQ(Tree().ReadLog().find("getSize 4242"), std::string::npos);

    Tree().Config()["agent_id"] = "4.3.2.1";
    Tree().WriteConfig();
    kill(pid, SIGUSR1);
    ASSERT_TRUE(Tree().WaitForLog("main(receive signusr1, we will reload cfg)", 3000));
    ReqWorkAgentInfo info;
    RspWorkAgentInfo rsp;
    auto newId = [](const RspWorkAgentInfo& m) {
        return m.agentInfo.get() != nullptr &&
               static_cast<unsigned int>(m.agentInfo->agentId.value) == brel_lib::IpStringToInt("4.3.2.1");
    };
    ASSERT_TRUE(WaitUntil([&] { Server().Send(info, 1); return Server().WaitMessage(rsp, newId, 200); }, 5000));
    Stop(pid);
}

TEST_F(AgentSession, PublicKeyVersionZeroStopsStartAndReload)
{
    Tree().Config()["public_key_version"] = "0";
    EXPECT_EQ(RunToExit(), 1);
    EXPECT_NE(Tree().ReadLog().find("Error  ("), std::string::npos);
    EXPECT_NE(Tree().ReadLog().find("CProcessCommon::LoadCfg(public key version error)"), std::string::npos);

    Tree().Config()["public_key_version"] = "3";
    pid_t pid = StartAgent();
    Tree().Config()["public_key_version"] = "0";
    Tree().WriteConfig();
    Stop(pid, SIGUSR1, 1);
}

} // namespace

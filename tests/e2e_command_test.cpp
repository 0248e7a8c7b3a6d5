// Command works through the real agent: create, start, results and their
// codes, output capture, expiry and repeats, the dump, and su.
#include <gtest/gtest.h>
#include <pwd.h>
#include <signal.h>

#include <deque>

#include "agent_e2e.h"
#include "proc_tree.h"
#include "util.h"

using namespace agent_test;

namespace {

const int SERVER_IP = 0x0A0B0C0D;
const int SERVER_ID = 42;

class AgentCommand : public AgentEndToEnd {
protected:
    void SetUp() override
    {
        AgentEndToEnd::SetUp();
        if (IsSkipped()) return;
        Tree().Config()["heartbeat_second"] = "5";
        Server().SetAnswerHeartbeats(true);
    }

    // Sends the request routed from the server and waits for the reply of the work; false on timeout.
    template <class TReq, class TRsp>
    bool Ask(TReq& req, unsigned int nWorkId, int nAppend, TRsp& rsp, int nTimeoutMs = 5000, int* pAppend = nullptr)
    {
        req.workId = static_cast<int>(nWorkId);
        req.routeDstAgentId = 1;
        req.routeSrcServerIp = SERVER_IP;
        req.routeSrcServerId = SERVER_ID;
        m_nMark = Server().Packets().size();
        Server().Send(req, nAppend);
        return Server().WaitMessage(rsp, OfWork(nWorkId), nTimeoutMs, m_nMark, pAppend);
    }

    int Create(unsigned int nWorkId, const std::string& strCmd, int nFlag = 0, int nTimeout = 0, int nBufSize = 0,
               const std::string& strUser = "")
    {
        ReqWorkCmdCreate req;
        req.flag = nFlag;
        req.timeout = nTimeout;
        req.bufSize = nBufSize;
        req.execUser = strUser.c_str();
        req.cmd = strCmd.c_str();
        RspWorkCmdCreate rsp;
        if (!Ask(req, nWorkId, 11, rsp)) return -1;
        EXPECT_EQ(rsp.routeDstServerIp, SERVER_IP);
        EXPECT_EQ(rsp.routeDstServerId, SERVER_ID);
        EXPECT_EQ(static_cast<unsigned int>(rsp.routeSrcAgentId.value), brel_lib::IpStringToInt("127.0.0.1"));
        return rsp.ret;
    }

    int Start(unsigned int nWorkId, int nAppend = 12)
    {
        ReqWorkCmdSetAction req;
        req.action = 1;
        RspWorkCmdSetAction rsp;
        return Ask(req, nWorkId, nAppend, rsp) ? rsp.ret.value : -1;
    }

    bool Query(RspWorkCmdQuery& rsp, unsigned int nWorkId, int nAppend = 13)
    {
        ReqWorkCmdQuery req;
        int nGot = 0;
        bool bOk = Ask(req, nWorkId, nAppend, rsp, 5000, &nGot);
        EXPECT_EQ(nGot, nAppend);
        return bOk;
    }

    // -1 when no answer came within the time.
    int Delete(unsigned int nWorkId)
    {
        ReqWorkCmdDelete req;
        RspWorkCmdDelete rsp;
        return Ask(req, nWorkId, 14, rsp, 3000) ? rsp.ret.value : -1;
    }

    // The unasked result: status 2 or 3 for the work, after the mark.
    bool Result(RspWorkCmdQuery& rsp, unsigned int nWorkId, int* pAppend = nullptr)
    {
        auto done = [nWorkId](const RspWorkCmdQuery& m) { return OfWork(nWorkId)(m) && m.status >= 2; };
        return Server().WaitMessage(rsp, done, 8000, m_nMark, pAppend);
    }

    // Create and start; the result of the run (kept till the test's end: records can't be copied).
    const RspWorkCmdQuery& Run(unsigned int nWorkId, const std::string& strCmd, int nFlag = 0, int nTimeout = 0,
                               int nBufSize = 0, const std::string& strUser = "")
    {
        RspWorkCmdQuery& rsp = m_runs.emplace_back();
        EXPECT_EQ(Create(nWorkId, strCmd, nFlag, nTimeout, nBufSize, strUser), 0);
        EXPECT_EQ(Start(nWorkId), 0);
        EXPECT_TRUE(Result(rsp, nWorkId));
        return rsp;
    }

    size_t m_nMark = 0;
    std::deque<RspWorkCmdQuery> m_runs;
};

std::string Text(const AsnOcts& octs) { return std::string(octs.octs, octs.octetLen); }

TEST_F(AgentCommand, CreateStartAndResultInDaemonMode)
{
    pid_t pid = StartAgent(true);
    ASSERT_GT(pid, 0);
    ASSERT_EQ(Create(1, "echo out; echo err >&2; exit 3"), 0);
    ASSERT_EQ(Start(1, 12), 0);
    RspWorkCmdQuery result;
    int nAppend = 0;
    ASSERT_TRUE(Result(result, 1, &nAppend));
    EXPECT_EQ(nAppend, 12);  // the start was the last request that touched it
    EXPECT_EQ(result.ret, 0);
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.exitCode, 3);
    EXPECT_EQ(Text(result.stdOut), "out\n");
    EXPECT_EQ(Text(result.stdErr), "err\n");
    EXPECT_EQ(result.routeDstServerIp, SERVER_IP);
    EXPECT_LE(std::abs(result.beginTime - static_cast<int>(time(nullptr))), 30);
    EXPECT_GE(result.endTime, result.beginTime);
    EXPECT_EQ(ReadFile(Tree().Path("log/last_out")), "out\n");
    EXPECT_EQ(ReadFile(Tree().Path("log/last_err")), "err\n");

    // A later query carries its own append, and the reports after it too.
    RspWorkCmdQuery again;
    ASSERT_TRUE(Query(again, 1, 21));
    EXPECT_EQ(again.status, 2);
    EXPECT_EQ(again.exitCode, 3);

    // Signals and a failed exec, still in daemon mode. The daemon ignores
    // SIGTERM; its commands do not.
    const RspWorkCmdQuery& killed = Run(2, "kill -TERM $$");
    EXPECT_EQ(killed.ret, 0);
    EXPECT_EQ(killed.exitCode, 15);
    EXPECT_EQ(Text(Run(3, "printf abc").stdOut), "abc");  // output still in the pipe at the exit
    Stop(pid);
}

TEST_F(AgentCommand, DaemonCommandsStartWithDefaultSignalsMaskAndUmask)
{
    pid_t pid = StartAgent(true);
    ASSERT_GT(pid, 0);
    EXPECT_EQ(Text(Run(1, "grep -E '^Sig(Ign|Blk)' /proc/self/status; umask").stdOut),
              "SigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n0022\n");
    // What inherited dispositions broke: a pipe's writer ends quietly, a background job can be stopped.
    const RspWorkCmdQuery& pipe = Run(2, "yes | head -1");
    EXPECT_EQ(Text(pipe.stdOut), "y\n");
    EXPECT_EQ(Text(pipe.stdErr), "");
    EXPECT_EQ(Text(Run(3, "sleep 100 & kill $!; wait $!; echo $?").stdOut), "143\n");
    // Files the commands make are not world-writable; the daemon keeps its own umask.
    std::string strFile = Tree().Path("log/made_by_command");
    EXPECT_EQ(Text(Run(4, "echo x > " + strFile + "; stat -c %a " + strFile).stdOut), "644\n");
    EXPECT_NE(ReadFile("/proc/" + std::to_string(pid) + "/status").find("Umask:\t0000\n"), std::string::npos);
}

// How the tree is ended is the command manager's test (cmd_execute_test); here
// the session's part: the timeout's code in the result, the delete's answer.
TEST_F(AgentCommand, TimeoutAndDeleteEndTheirWorks)
{
    pid_t pid = StartAgent(true);
    ASSERT_GT(pid, 0);
    EXPECT_EQ(Run(1, "sleep 1000", 0, 2).ret, 324);
    ASSERT_EQ(Create(2, "sh -c 'sleep 1000; :'"), 0);
    ASSERT_EQ(Start(2), 0);
    std::vector<ProcInfo> vecTree;  // sh and its sleep, which the end of sh alone would leave
    ASSERT_TRUE(WaitUntil([&] { return (vecTree = Descendants(pid)).size() >= 2; }, 5000));
    EXPECT_EQ(Delete(2), 0);
    EXPECT_TRUE(WaitUntil([&] { return StillRunning(vecTree).empty(); }, 5000));
    for (const ProcInfo& info : StillRunning(vecTree)) kill(info.pid, SIGKILL);
}

TEST_F(AgentCommand, FailedExecReportsSignalSix)
{
    // su made unusable in a mount namespace of the agent's own.
    Tree().SetLaunchPrefix({"unshare", "-m", "sh", "-c", "mount --bind /dev/null /usr/bin/su && exec \"$0\" \"$@\""});
    pid_t pid = StartAgent(true);
    if (pid <= 0 || !Tree().IsAlive(pid)) GTEST_SKIP() << "no mount namespace here";
    const RspWorkCmdQuery& result = Run(1, "true", 0, 0, 0, "nobody");
    EXPECT_EQ(result.ret, 0);
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.exitCode, 6);
    EXPECT_TRUE(Tree().WaitForLog("execvp function returns, so we abort", 2000));
}

TEST_F(AgentCommand, QueryWhileRunningShowsTheOutputSoFar)
{
    StartAgent(true);
    ASSERT_EQ(Create(5, "echo first; sleep 3; echo second"), 0);
    ASSERT_EQ(Start(5), 0);
    RspWorkCmdQuery rsp;
    ASSERT_TRUE(WaitUntil([&] { return Query(rsp, 5) && Text(rsp.stdOut) == "first\n"; }, 3000));
    EXPECT_EQ(rsp.status, 1);
    EXPECT_EQ(rsp.ret, 0);
    EXPECT_EQ(ReadFile(Tree().Path("log/last_out")), "");  // only finished works write it
}

TEST_F(AgentCommand, OutputCapture)
{
    StartAgent();
    // Exactly the first bufSize bytes; the rest is drained and the command isn't held.
    const RspWorkCmdQuery& big = Run(30, "head -c 300000 /dev/zero | tr '\\0' a; echo end >&2", 0, 0, 10);
    EXPECT_EQ(Text(big.stdOut), "aaaaaaaaaa");
    EXPECT_EQ(Text(big.stdErr), "end\n");
    EXPECT_EQ(big.ret, 0);
    // Flags 2 and 4 keep nothing, although the pipes are read.
    const RspWorkCmdQuery& none = Run(31, "head -c 100000 /dev/zero; echo err >&2", 6);
    EXPECT_EQ(none.stdOut.octetLen, 0u);
    EXPECT_EQ(none.stdErr.octetLen, 0u);
    EXPECT_EQ(none.exitCode, 0);
    // A background child that holds the pipe does not hold the work.
    int64_t lStart = SteadyMs();
    const RspWorkCmdQuery& bg = Run(32, "sleep 20 & echo done");
    EXPECT_EQ(Text(bg.stdOut), "done\n");
    EXPECT_LT(SteadyMs() - lStart, 5000);
    // Output is raw bytes, zero bytes included.
    EXPECT_EQ(Text(Run(33, "printf 'a\\000b'").stdOut), std::string("a\0b", 3));
}

TEST_F(AgentCommand, ReloadWithPrintAgentInfoWritesTheDump)
{
    StartAgent();
    // A reload with print_agent_info appends the dump.
    ASSERT_EQ(Create(43, "echo in the dump"), 0);
    Tree().Config()["print_agent_info"] = "1";
    Tree().WriteConfig();
    std::string strPid = ReadFile(Tree().Path("log/agent.pid"));
    kill(static_cast<pid_t>(atoi(strPid.c_str())), SIGUSR1);
    ASSERT_TRUE(WaitUntil([&] { return ReadFile(Tree().Path("log/cmd_info")).find("strCmd: echo in the dump") != std::string::npos; },
                          3000));
    std::string strDump = ReadFile(Tree().Path("log/cmd_info"));
    EXPECT_NE(strDump.find("===============================[Start Print Cmd Execute Info][Now Time: "), std::string::npos);
    EXPECT_NE(strDump.find("m_mapWorkNotBegin.size: 1\n"), std::string::npos);
    EXPECT_NE(strDump.find("bNeedWait: false\n"), std::string::npos);
}

TEST_F(AgentCommand, OtherUsersRunThroughSu)
{
    const char* szUser = "agenttestuser";
    std::string strAdd = std::string("useradd -M -s /bin/sh ") + szUser + " 2>/dev/null";
    if (getpwnam(szUser) == nullptr && system(strAdd.c_str()) != 0) GTEST_SKIP() << "cannot create a user here";
    StartAgent();
    const RspWorkCmdQuery& rsp = Run(50, "id -un", 0, 0, 0, szUser);
    EXPECT_EQ(Text(rsp.stdOut), std::string(szUser) + "\n");
    EXPECT_EQ(rsp.exitCode, 0);
    EXPECT_EQ(Text(Run(51, "id -un", 0, 0, 0, "root").stdOut), "root\n");
    EXPECT_EQ(Text(Run(52, "id -un").stdOut), "root\n");
    std::string strDel = std::string("userdel ") + szUser + " 2>/dev/null";
    EXPECT_EQ(system(strDel.c_str()), 0);
}

} // namespace

// Command works through the real agent: create, start, results and their
// codes, output capture, expiry and repeats, the dump, and su.
#include <gtest/gtest.h>
#include <pwd.h>
#include <signal.h>

#include <functional>

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

    // Waits for a message of type T that the predicate accepts, among the
    // packets that arrived after index nFrom; false on timeout.
    template <class T>
    bool WaitMessage(T& out, const std::function<bool(const T&)>& accept, int nTimeoutMs, size_t nFrom = 0,
                     int* pAppend = nullptr)
    {
        return WaitUntil(
            [&] {
                std::vector<TestWorkServer::Received> packets = Server().Packets();
                for (size_t i = nFrom; i < packets.size(); ++i) {
                    if (packets[i].nChoiceId != ZikChoiceOf<T>::value) continue;
                    T msg;
                    if (DecodeBody(packets[i], msg) && accept(msg)) {
                        out = msg;
                        if (pAppend != nullptr) *pAppend = packets[i].nAppend;
                        return true;
                    }
                }
                return false;
            },
            nTimeoutMs);
    }

    template <class T>
    bool Reply(T& out, unsigned int nWorkId, int nTimeoutMs = 5000, int* pAppend = nullptr)
    {
        return WaitMessage<T>(out, [&](const T& m) { return static_cast<unsigned int>(m.workId.value) == nWorkId; },
                              nTimeoutMs, m_nMark, pAppend);
    }

    void Mark() { m_nMark = Server().Packets().size(); }

    template <class T>
    void Route(T& req)
    {
        req.routeDstAgentId = 1;
        req.routeSrcServerIp = SERVER_IP;
        req.routeSrcServerId = SERVER_ID;
    }

    int Create(unsigned int nWorkId, const std::string& strCmd, int nFlag = 0, int nTimeout = 0, int nBufSize = 0,
               const std::string& strUser = "", int nAppend = 11)
    {
        ReqWorkCmdCreate req;
        req.workId = static_cast<int>(nWorkId);
        req.flag = nFlag;
        req.timeout = nTimeout;
        req.bufSize = nBufSize;
        req.execUser = strUser.c_str();
        req.cmd = strCmd.c_str();
        Route(req);
        Mark();
        Server().Send(req, nAppend);
        RspWorkCmdCreate rsp;
        if (!Reply(rsp, nWorkId)) return -1;
        EXPECT_EQ(rsp.routeDstServerIp, SERVER_IP);
        EXPECT_EQ(rsp.routeDstServerId, SERVER_ID);
        EXPECT_EQ(static_cast<unsigned int>(rsp.routeSrcAgentId.value), brel_lib::IpStringToInt("127.0.0.1"));
        return rsp.ret;
    }

    int Start(unsigned int nWorkId, int nAppend = 12, int nAction = 1)
    {
        ReqWorkCmdSetAction req;
        req.workId = static_cast<int>(nWorkId);
        req.action = nAction;
        Route(req);
        Mark();
        Server().Send(req, nAppend);
        RspWorkCmdSetAction rsp;
        return Reply(rsp, nWorkId) ? rsp.ret.value : -1;
    }

    bool Query(RspWorkCmdQuery& rsp, unsigned int nWorkId, int nAppend = 13)
    {
        ReqWorkCmdQuery req;
        req.workId = static_cast<int>(nWorkId);
        Route(req);
        Mark();
        Server().Send(req, nAppend);
        int nGot = 0;
        bool bOk = Reply(rsp, nWorkId, 5000, &nGot);
        EXPECT_EQ(nGot, nAppend);
        return bOk;
    }

    // -1 when no answer came within the time.
    int Delete(unsigned int nWorkId, int nTimeoutMs = 3000)
    {
        ReqWorkCmdDelete req;
        req.workId = static_cast<int>(nWorkId);
        Route(req);
        Mark();
        Server().Send(req, 14);
        RspWorkCmdDelete rsp;
        return Reply(rsp, nWorkId, nTimeoutMs) ? rsp.ret.value : -1;
    }

    // The unasked result: status 2 or 3 for the work, after the mark.
    bool Result(RspWorkCmdQuery& rsp, unsigned int nWorkId, int nTimeoutMs = 8000, int* pAppend = nullptr)
    {
        return WaitMessage<RspWorkCmdQuery>(
            rsp,
            [&](const RspWorkCmdQuery& m) {
                return static_cast<unsigned int>(m.workId.value) == nWorkId && m.status >= 2;
            },
            nTimeoutMs, m_nMark, pAppend);
    }

    // Create and start; the result of the run.
    void Run(RspWorkCmdQuery& rsp, unsigned int nWorkId, const std::string& strCmd, int nFlag = 0, int nTimeout = 0,
             int nBufSize = 0, const std::string& strUser = "")
    {
        EXPECT_EQ(Create(nWorkId, strCmd, nFlag, nTimeout, nBufSize, strUser), 0);
        EXPECT_EQ(Start(nWorkId), 0);
        EXPECT_TRUE(Result(rsp, nWorkId));
    }

    size_t m_nMark = 0;
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
    ASSERT_TRUE(Result(result, 1, 8000, &nAppend));
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
    RspWorkCmdQuery killed;
    Run(killed, 2, "kill -TERM $$");
    EXPECT_EQ(killed.ret, 0);
    EXPECT_EQ(killed.exitCode, 15);
    RspWorkCmdQuery fast;
    Run(fast, 3, "printf abc");  // output still in the pipe at the exit
    EXPECT_EQ(Text(fast.stdOut), "abc");
    Stop(pid);
}

TEST_F(AgentCommand, DaemonCommandsStartWithDefaultSignalsMaskAndUmask)
{
    pid_t pid = StartAgent(true);
    ASSERT_GT(pid, 0);
    RspWorkCmdQuery status;
    Run(status, 1, "grep -E '^Sig(Ign|Blk)' /proc/self/status; umask");
    EXPECT_EQ(Text(status.stdOut), "SigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n0022\n");
    // What inherited dispositions broke: a pipe's writer ends quietly, a background job can be stopped.
    RspWorkCmdQuery pipe;
    Run(pipe, 2, "yes | head -1");
    EXPECT_EQ(Text(pipe.stdOut), "y\n");
    EXPECT_EQ(Text(pipe.stdErr), "");
    RspWorkCmdQuery job;
    Run(job, 3, "sleep 100 & kill $!; wait $!; echo $?");
    EXPECT_EQ(Text(job.stdOut), "143\n");
    // Files the commands make are not world-writable; the daemon keeps its own umask.
    RspWorkCmdQuery file;
    std::string strFile = Tree().Path("log/made_by_command");
    Run(file, 4, "echo x > " + strFile + "; stat -c %a " + strFile);
    EXPECT_EQ(Text(file.stdOut), "644\n");
    EXPECT_NE(ReadFile("/proc/" + std::to_string(pid) + "/status").find("Umask:\t0000\n"), std::string::npos);
}

// How the tree is ended is the command manager's test (cmd_execute_test); here
// the session's part: the timeout's code in the result, the delete's answer.
TEST_F(AgentCommand, TimeoutAndDeleteEndTheirWorks)
{
    pid_t pid = StartAgent(true);
    ASSERT_GT(pid, 0);
    RspWorkCmdQuery rsp;
    Run(rsp, 1, "sleep 1000", 0, 2);
    EXPECT_EQ(rsp.ret, 324);
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
    RspWorkCmdQuery result;
    Run(result, 1, "true", 0, 0, 0, "nobody");
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
    RspWorkCmdQuery big;
    Run(big, 30, "head -c 300000 /dev/zero | tr '\\0' a; echo end >&2", 0, 0, 10);
    EXPECT_EQ(Text(big.stdOut), "aaaaaaaaaa");
    EXPECT_EQ(Text(big.stdErr), "end\n");
    EXPECT_EQ(big.ret, 0);
    // Flags 2 and 4 keep nothing, although the pipes are read.
    RspWorkCmdQuery none;
    Run(none, 31, "head -c 100000 /dev/zero; echo err >&2", 6);
    EXPECT_EQ(none.stdOut.octetLen, 0u);
    EXPECT_EQ(none.stdErr.octetLen, 0u);
    EXPECT_EQ(none.exitCode, 0);
    // A background child that holds the pipe does not hold the work.
    int64_t lStart = SteadyMs();
    RspWorkCmdQuery bg;
    Run(bg, 32, "sleep 20 & echo done");
    EXPECT_EQ(Text(bg.stdOut), "done\n");
    EXPECT_LT(SteadyMs() - lStart, 5000);
    // Output is raw bytes, zero bytes included.
    RspWorkCmdQuery raw;
    Run(raw, 33, "printf 'a\\000b'");
    EXPECT_EQ(Text(raw.stdOut), std::string("a\0b", 3));
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
    RspWorkCmdQuery rsp;
    Run(rsp, 50, "id -un", 0, 0, 0, szUser);
    EXPECT_EQ(Text(rsp.stdOut), std::string(szUser) + "\n");
    EXPECT_EQ(rsp.exitCode, 0);
    RspWorkCmdQuery root;
    Run(root, 51, "id -un", 0, 0, 0, "root");
    EXPECT_EQ(Text(root.stdOut), "root\n");
    RspWorkCmdQuery empty;
    Run(empty, 52, "id -un");
    EXPECT_EQ(Text(empty.stdOut), "root\n");
    std::string strDel = std::string("userdel ") + szUser + " 2>/dev/null";
    EXPECT_EQ(system(strDel.c_str()), 0);
}

} // namespace

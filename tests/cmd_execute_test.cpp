// The command manager in-process, with a reply sink and the child seam: the
// end of whole process trees (cgroups, or process groups where the seam hides
// them), the reaped child's end event, users su would read as options, the cap
// on capture buffers.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <condition_variable>
#include <map>
#include <mutex>
#include <set>

#include "cmd_execute/cmd_execute.h"
#include "cmd_execute/cmd_execute_launch.h"
#include "install_tree.h"
#include "log.h"
#include "network/stream_framing.h"
#include "proc_tree.h"
#include "test_work_server.h"

using namespace agent_test;

namespace {

// What the manager reported, the last report kept by work id.
class RecordingSink : public CSessionReply {
public:
    struct Report {
        unsigned int nStatus = 0;
        int nErrno = 0, nExitCode = 0;
        pid_t nPid = 0;
        std::string strOut, strErr;
    };

    void SendCmdToServerQueryOk(const CommonWork& work) override
    {
        Report report{work.nStatus, work.nErrno, work.nExitCode, work.nPid, "", ""};
        if (work.pStdOut != nullptr) report.strOut.assign(work.pStdOut, work.nUsedOutSize);
        if (work.pStdErr != nullptr) report.strErr.assign(work.pStdErr, work.nUsedErrSize);
        std::lock_guard<std::mutex> lock(m_mutex);
        m_mapLast[work.nWorkId] = report;
        m_cond.notify_all();
    }

    // The last report of the work with a status of at least nStatus.
    bool Wait(unsigned int nWorkId, unsigned int nStatus, Report& out, int nTimeoutMs = 10000)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        auto it = m_mapLast.end();
        bool bOk = m_cond.wait_for(lock, std::chrono::milliseconds(nTimeoutMs), [&] {
            return (it = m_mapLast.find(nWorkId)) != m_mapLast.end() && it->second.nStatus >= nStatus;
        });
        if (bOk) out = it->second;
        return bOk;
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_cond;
    std::map<unsigned int, Report> m_mapLast;
};

std::string Names(const std::vector<ProcInfo>& vec)
{
    std::string str;
    for (const ProcInfo& info : vec) str += std::to_string(info.pid) + " '" + info.strCmdline + "' ";
    return str;
}

// Hides the cgroup mount, so that works get process groups of their own.
class NoCgroupOps : public CCmdChildOps {
public:
    bool FindCgroupBase(std::string&) override { return false; }
};

// The child ends at the top of a round, after its end event joined the set in
// an earlier one, and is reaped there before that event can be read.
class ReapAtRoundTopOps : public CCmdChildOps {
public:
    pid_t Wait(pid_t pid, int* pStatus) override
    {
        if (++m_mapCalls[pid] == 1) return 0;  // seen running; its pidfd joins the set in this round
        kill(pid, SIGKILL);
        return waitpid(pid, pStatus, 0);
    }

private:
    std::map<pid_t, int> m_mapCalls;  // the manager thread's alone
};

class CmdManagerTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        std::string strWhy;
        if (!CanRunEndToEnd(strWhy)) GTEST_SKIP() << strWhy;
        brel_lib::LogFile(m_strDir + "/agent");
        brel_lib::LogLevel(brel_lib::LOG_LEVEL_DEBUG);
    }

    void TearDown() override
    {
        if (m_bStarted) m_manager.Stop();
        for (const ProcInfo& info : StillRunning(m_vecLeftovers)) kill(info.pid, SIGKILL);
        brel_lib::LogFile("");
    }

    void Start(const std::string& strConfig = "", CCmdChildOps* pOps = nullptr)
    {
        WriteFile(m_strDir + "/config", strConfig);
        m_manager.SetCfgFile(m_strDir + "/config");
        m_manager.SetProcessCommon(&m_sink);
        if (pOps != nullptr) m_manager.SetChildOps(pOps);
        ASSERT_EQ(m_manager.Start(), 0);
        m_bStarted = true;
    }

    int Launch(unsigned int nWorkId, const std::string& strCmd, int nTimeout = 0, const std::string& strUser = "",
               unsigned int nBufSize = 0)
    {
        CommonWork work;
        work.strCmd = strCmd;
        work.strExecUser = strUser;
        work.nTimeoutSecond = nTimeout;
        work.nBufOutSize = work.nBufErrSize = nBufSize;
        int ret = m_manager.AddNewWork(nWorkId, work);
        if (ret != 0) return ret;
        return m_manager.SetWorkAction(nWorkId, 1, 0);
    }

    // The work's finished report; false on timeout.
    bool Finished(unsigned int nWorkId, RecordingSink::Report& report)
    {
        return m_sink.Wait(nWorkId, WORK_FINISHED, report);
    }

    // The work's processes once one of them runs strMarker; empty on timeout.
    std::vector<ProcInfo> TreeWhenRunning(unsigned int nWorkId, const std::string& strMarker)
    {
        RecordingSink::Report report;
        m_manager.Query(nWorkId, 0);
        if (!m_sink.Wait(nWorkId, WORK_RUNNING, report, 3000)) return {};
        std::vector<ProcInfo> vecTree;
        WaitUntil(
            [&] {
                vecTree = Descendants(report.nPid);
                for (const ProcInfo& info : vecTree) {
                    if (info.strCmdline == strMarker) return true;
                }
                return false;
            },
            5000);
        ProcInfo child;
        if (ReadProcInfo(report.nPid, child)) vecTree.push_back(child);
        m_vecLeftovers.insert(m_vecLeftovers.end(), vecTree.begin(), vecTree.end());
        return vecTree;
    }

    // The recorded processes still running after a bounded wait for them to go.
    std::vector<ProcInfo> Survivors(const std::vector<ProcInfo>& vecTree)
    {
        WaitUntil([&] { return StillRunning(vecTree).empty(); }, 5000);
        return StillRunning(vecTree);
    }

    // A `sleep 1000` under su to the user, which puts it in a session of its
    // own, times out: nothing of its tree, nothing of that user, runs on. Then
    // a delete ends a shell whose sleep is not its last command, sleep and all.
    void ExpectTimeoutAndDeleteEndTheWholeTree(const std::string& strUser, bool bOwnGroups)
    {
        ASSERT_EQ(Launch(1, "sleep 1000", 2, strUser), 0);
        // Taken before the kill unless su is slower than the time limit.
        std::vector<ProcInfo> vecSu = TreeWhenRunning(1, "sleep 1000");
        ASSERT_TRUE(Finished(1, m_report));
        EXPECT_EQ(m_report.nErrno, RET_WORK_TIMEOUT);
        EXPECT_EQ(m_report.strErr, "the work is timeout\n");
        EXPECT_TRUE(Survivors(vecSu).empty()) << Names(Survivors(vecSu));
        WaitUntil([&] { return RunningAs(strUser).empty(); }, 5000);
        std::vector<ProcInfo> vecUser = RunningAs(strUser);
        m_vecLeftovers.insert(m_vecLeftovers.end(), vecUser.begin(), vecUser.end());
        EXPECT_TRUE(vecUser.empty()) << Names(vecUser);

        ASSERT_EQ(Launch(2, "sh -c 'sleep 1000; :'", 100), 0);
        std::vector<ProcInfo> vecSh = TreeWhenRunning(2, "sleep 1000");
        ASSERT_GE(vecSh.size(), 2u) << Names(vecSh);
        // In process groups, the work's child leads its own, away from the agent's.
        if (bOwnGroups) {
            for (const ProcInfo& info : vecSh) EXPECT_NE(info.pgid, getpgrp());
        }
        unsigned int nFlag = 0;
        ASSERT_EQ(m_manager.DeleteWork(nFlag, 2), 0);
        EXPECT_TRUE(Survivors(vecSh).empty()) << Names(Survivors(vecSh));
    }

    TempDir m_dir{"cmd_manager_test_"};
    std::string m_strDir = m_dir.Root();
    RecordingSink m_sink;
    RecordingSink::Report m_report;
    NoCgroupOps m_opsNoCgroup;  // seams outlive the manager's thread
    ReapAtRoundTopOps m_opsReapAtRoundTop;
    CCmdExecuteManager m_manager;
    bool m_bStarted = false;
    std::vector<ProcInfo> m_vecLeftovers;  // killed by the test at its end, whatever the agent did
};

bool HaveCgroups()
{
    std::string strDir;
    return FindOwnCgroup2Dir(strDir);
}

TEST_F(CmdManagerTest, TimeoutAndDeleteEndTheWholeTreeInACgroup)
{
    if (!HaveCgroups()) GTEST_SKIP() << "no writable cgroup2 mount here";
    TestUser user("cmdtreecg");
    ASSERT_TRUE(user.Ok());
    Start();
    ExpectTimeoutAndDeleteEndTheWholeTree(user.Name(), false);
}

TEST_F(CmdManagerTest, TimeoutAndDeleteEndTheWholeTreeInProcessGroups)
{
    TestUser user("cmdtreepg");
    ASSERT_TRUE(user.Ok());
    Start("", &m_opsNoCgroup);
    EXPECT_NE(ReadFile(m_strDir + "/agent.log").find("works run in process groups of their own"), std::string::npos);
    ExpectTimeoutAndDeleteEndTheWholeTree(user.Name(), true);
}

TEST_F(CmdManagerTest, KeyOffKillsTheChildAlone)
{
    Start("task_kill_process_tree = 0\n");
    ASSERT_EQ(Launch(1, "sh -c 'sleep 1000; :'", 1), 0);
    std::vector<ProcInfo> vecTree = TreeWhenRunning(1, "sleep 1000");
    ASSERT_GE(vecTree.size(), 2u) << Names(vecTree);
    ASSERT_TRUE(Finished(1, m_report));
    EXPECT_EQ(m_report.nErrno, RET_WORK_TIMEOUT);
    // Only the child was killed: its grandchild, the sleep, runs on (the test ends it).
    std::vector<ProcInfo> vecLeft = StillRunning(vecTree);
    ASSERT_FALSE(vecLeft.empty());
    bool bSleep = false;
    for (const ProcInfo& info : vecLeft) bSleep = bSleep || info.strCmdline == "sleep 1000";
    EXPECT_TRUE(bSleep) << Names(vecLeft);
    // Nor does the child get a group of its own.
    EXPECT_EQ(vecTree.back().pgid, getpgrp());
}

// The pool of cgroups: one whose work ended by itself is handed out again, one
// that was killed never is (the kernel may kill a child cloned into it at
// birth), and the stop removes them all with this agent's own cgroup.
TEST(CmdProcessTree, KilledCgroupsAreNotReusedAndTheStopRemovesThemAll)
{
    std::string strWhy;
    if (!CanRunEndToEnd(strWhy)) GTEST_SKIP() << strWhy;
    if (!HaveCgroups()) GTEST_SKIP() << "no writable cgroup2 mount here";
    CCmdChildOps ops;
    CCmdProcessTree tree;
    tree.Prepare(ops);
    ASSERT_TRUE(tree.UsesCgroups());
    auto runChild = [&](CmdWorkTree& work, bool bKill) {
        CmdLaunchPlan plan;
        plan.fdCgroup = work.fdCgroup;
        pid_t pid = ForkForPlan(plan);
        if (pid == 0) {
            if (!plan.bMadeInCgroup) {
                int fd = openat(plan.fdCgroup, "cgroup.procs", O_WRONLY);
                (void)!write(fd, "0", 1);
            }
            if (bKill) pause();
            _exit(0);
        }
        ASSERT_GT(pid, 0);
        if (bKill) tree.Kill(pid, work);
        int nStatus = 0;
        ASSERT_EQ(waitpid(pid, &nStatus, 0), pid);
        EXPECT_EQ(WIFSIGNALED(nStatus) ? WTERMSIG(nStatus) : 0, bKill ? SIGKILL : 0);
        tree.Release(work);
    };
    CmdWorkTree ended = tree.Take();
    int nEnded = ended.nSlot;
    runChild(ended, false);
    CmdWorkTree killed = tree.Take();
    int nKilled = killed.nSlot;
    runChild(killed, true);
    tree.Refill();
    std::set<int> setHanded;
    for (int i = 0; i < 12; ++i) setHanded.insert(tree.Take().nSlot);
    EXPECT_EQ(setHanded.count(nEnded), 1u);
    EXPECT_EQ(setHanded.count(nKilled), 0u);
    std::string strDir;
    ASSERT_TRUE(FindOwnCgroup2Dir(strDir));
    std::string strOwn = strDir + "/agent_works." + std::to_string(getpid());
    struct stat st;
    EXPECT_EQ(stat(strOwn.c_str(), &st), 0);
    tree.Cleanup();
    EXPECT_NE(stat(strOwn.c_str(), &st), 0);
}

int OpenPidFds()
{
    int n = 0;
    for (int fd = 0; fd < 4096; ++fd) {
        char szLink[64], szTarget[64];
        snprintf(szLink, sizeof(szLink), "/proc/self/fd/%d", fd);
        ssize_t nLen = readlink(szLink, szTarget, sizeof(szTarget) - 1);
        if (nLen <= 0) continue;
        szTarget[nLen] = 0;
        if (strcmp(szTarget, "anon_inode:[pidfd]") == 0) ++n;
    }
    return n;
}

TEST_F(CmdManagerTest, ChildReapedAtTheTopOfARoundGivesUpItsEndEvent)
{
    Start("", &m_opsReapAtRoundTop);
    ASSERT_EQ(Launch(1, "exec sleep 1000"), 0);
    ASSERT_TRUE(Finished(1, m_report));
    EXPECT_EQ(m_report.nExitCode, SIGKILL);
    // Left open in the level-triggered set, it would wake the supervisor at every round.
    EXPECT_EQ(OpenPidFds(), 0);
}

TEST_F(CmdManagerTest, AUserThatBeginsWithADashNeverReachesSu)
{
    Start();
    std::string strMark = m_strDir + "/ran";
    ASSERT_EQ(Launch(1, "touch " + strMark, 0, "-c"), 0);
    ASSERT_TRUE(Finished(1, m_report));
    EXPECT_EQ(m_report.nErrno, 0);
    EXPECT_EQ(m_report.nExitCode, 1);
    // su writes nothing to standard output: when it exits before the supervisor's
    // round, that pipe's bare hang-up ends the capture of both streams, so its
    // message may be lost.
    if (!m_report.strErr.empty()) {
        EXPECT_EQ(m_report.strErr,
                  "su: user -c does not exist or the user entry does not contain all the required fields\n");
    }
    struct stat st;
    EXPECT_NE(stat(strMark.c_str(), &st), 0);  // nothing ran, as root or anyone
}

TEST_F(CmdManagerTest, CaptureBuffersAreCappedSoThatAFullResultFitsOnePacket)
{
    Start();
    ASSERT_EQ(Launch(1, "printf out; printf err >&2", 0, "", 0xFFFFFFF0u), 0);
    ASSERT_TRUE(Finished(1, m_report));
    EXPECT_EQ(m_report.strOut, "out");
    EXPECT_NE(ReadFile(m_strDir + "/agent.log").find("buf size is above the limit, we use the limit"), std::string::npos);

    // Both streams full at the cap, every other field at its widest: within the framing limit.
    RspWorkCmdQuery rsp;
    std::string strFull(CMD_RESULT_BUF_MAX, 'x');
    rsp.ret = rsp.workId = rsp.status = rsp.beginTime = rsp.endTime = rsp.exitCode = -1;
    rsp.routeDstServerIp = rsp.routeDstServerId = rsp.routeSrcAgentId = -1;
    rsp.stdOut.ReSet(strFull.data(), strFull.size());
    rsp.stdErr.ReSet(strFull.data(), strFull.size());
    std::vector<unsigned char> bytes = EncodeMessage(rsp, -1);
    ASSERT_FALSE(bytes.empty());
    EXPECT_LE(bytes.size(), brel_lib::MAX_LEN);
    EXPECT_EQ(brel_lib::asn_packet_complete(bytes.data(), static_cast<unsigned int>(bytes.size())),
              static_cast<int>(bytes.size()));
}

} // namespace

// Command works: the table of works in their three stages, their launch as a
// child under /bin/sh (through su for users other than root; the child's side
// is cmd_execute_launch), and the thread that captures their output, finds
// their end, kills the ones that run too long with every process they started
// (cmd_execute_tree), repeats their results and expires them.
#pragma once

#include <sys/types.h>
#include <time.h>

#include <atomic>
#include <map>
#include <string>
#include <vector>

#include "cmd_execute/cmd_execute_tree.h"
#include "common/session_reply.h"
#include "common/work_codes.h"
#include "thread.h"

// One command work. Owned by the manager's maps; guarded by its lock.
struct CommonWork {
    int nAppend = 0;  // envelope value of the last request that touched the work
    unsigned int nSrcServerIp = 0;
    unsigned int nSrcServerId = 0;
    int nErrno = 0;
    unsigned int nWorkId = 0;
    unsigned int nStatus = 0;
    pid_t nPid = 0;
    int nPidFd = -1;  // readable once the child has ended; -1 where the kernel has none
    int nFdOut[2] = {-1, -1};
    int nFdErr[2] = {-1, -1};
    time_t nCreateTime = 0;
    time_t nBeginTime = 0;
    time_t nEndTime = 0;
    int nExitCode = 0;
    bool bNeedWait = false;  // killed by the agent; only the reaping is left
    unsigned int nNowReportResultCount = 0;
    unsigned int nFlag = 0;
    int nTimeoutSecond = 0;
    unsigned int nBufOutSize = 0;
    unsigned int nBufErrSize = 0;
    std::string strExecUser;
    std::string strCmd;
    char* pStdOut = nullptr;
    char* pStdErr = nullptr;
    unsigned int nUsedOutSize = 0;
    unsigned int nUsedErrSize = 0;
    CmdWorkTree workTree;  // where its processes are kept, so that a kill ends them all
};

// Bits of nFlag.
enum { WORK_FLAG_QUIET = 1, WORK_FLAG_NO_STDOUT = 2, WORK_FLAG_NO_STDERR = 4, WORK_FLAG_NO_DELETE_REPLY = 64 };

class CCmdExecuteManager : public brel_lib::CThread {
public:
    CCmdExecuteManager();
    ~CCmdExecuteManager() override;

    // Before Start.
    void SetCfgFile(const std::string& strCfgFile) { m_strCfgFile = strCfgFile; }
    // Where the works' results are reported; not owned.
    void SetProcessCommon(CSessionReply* pSink) { m_pProcessCommon = pSink; }
    // Tests swap the reaping of children and the finding of cgroups; not owned.
    void SetChildOps(CCmdChildOps* pOps) { m_pChildOps = pOps; }

    int Start() override;
    int Stop() override { return CThread::Stop(); }
    // Main thread, at a reload.
    void ReloadCfg();

    // Session thread. The requests return 0 or a RET_ code, which the session
    // answers; a found work's query is answered through SendCmdToServerQueryOk.
    // nAppend is the envelope value of the request, kept for the work's reports.
    int AddNewWork(unsigned int nWorkId, const CommonWork& commonWork);
    int SetWorkAction(unsigned int nWorkId, unsigned int nAction, int nAppend);
    int Query(unsigned int nWorkId, int nAppend);
    int DeleteWork(unsigned int& nFlag, unsigned int nWorkId);
    // Works in all three stages.
    unsigned int GetNowWorkSize();
    // Works by stage: not begun, running, finished.
    void CountWorks(unsigned int nByStage[3]);

    void Run() override;
    // Any thread: the supervisor looks at its flag, its new works and its deadlines now.
    void WakeUp() override;

private:
    typedef std::map<unsigned int, CommonWork*> WorkMap;

    void LoadCfg();
    int AllocateBuffers(CommonWork& work);
    int LaunchChild(CommonWork& work);
    int FailLaunch(CommonWork& work, int nRet);
    CommonWork* GetWork(unsigned int nWorkId);
    void FreeCommonWork(CommonWork* pWork);
    static void FreePipeAndMemory(CommonWork& work);
    static void CloseSelfPipe(int epfd, CommonWork& work);
    // The child was reaped: its end event and its cgroup are given up.
    void ForgetChild(int epfd, CommonWork& work);
    void KillWork(CommonWork& work);
    void FreeAllRes();

    // The supervising thread's steps.
    void UpdateEpollFd(int epfd);
    // True when a child has ended and waits to be reaped.
    bool DealEvents(int epfd, const struct epoll_event* pEvents, int nEvents);
    int ReadDataFromFd(int epfd, int& fd, char* pBuf, unsigned int& nBufUsedSize, unsigned int nBufSize);
    void ReadPipes(int epfd, CommonWork& work);
    void DealProcessFinish(int epfd);
    void DealChildEnded(int epfd, CommonWork& work, int nStatus, time_t tNow);
    void DealChildAlive(int epfd, CommonWork& work, time_t tNow);
    void AutoDeleteWork();
    void PrintAgentInfo();
    static void SetErrText(CommonWork& work, const char* szText, unsigned int nLen);

    // Set before Start.
    std::string m_strCfgFile;
    CSessionReply* m_pProcessCommon = nullptr;
    CCmdChildOps* m_pChildOps;

    // Lock order: m_lock before the session's lock, never the reverse.
    // m_lock guards the maps, every record, m_vecNewWorkId, the counters and tempbuf.
    brel_lib::CLock m_lock;
    WorkMap m_mapWorkNotBegin;
    WorkMap m_mapWorkRunning;
    WorkMap m_mapWorkFinish;
    std::vector<unsigned int> m_vecNewWorkId;
    // Raised when a work starts, so that an idle supervisor, which waits
    // longer between rounds, takes the new pipes at once.
    brel_lib::CEvent m_eventNewWork;
    unsigned int m_nWorkSysFailedCount = 0;
    unsigned int m_nWorkUserFailedCount = 0;
    time_t m_timeLastTaskEnd = 0;
    char m_szTempBuf[8192];
    // Its own lock, taken inside m_lock; Refill runs on the manager thread outside m_lock.
    CCmdProcessTree m_processTree;

    // Counted by the session thread outside the lock.
    std::atomic<unsigned long long> m_lWorkAllCount{0};

    // Settings: written at start and reload by the main thread, read by the others.
    std::atomic<unsigned int> m_nWorkMaxConcurrent{50};
    std::atomic<int> m_nWorkDefaultTimeoutSecond{60};
    std::atomic<int> m_nFinishKeepSecondBeforeAutoDelete{7200};
    std::atomic<int> m_nNotBeginKeepSecondBeforeAutoDelete{300};
    std::atomic<int> m_nAutoDeleteTestSecond{60};
    std::atomic<int> m_nFinishSendResultDisSecondBeforeAutoDelete{300};
    std::atomic<unsigned int> m_nWorkDefaultResultSize{16384};
    std::atomic<bool> m_bPrintAgentInfo{false};
    std::atomic<bool> m_bKillProcessTree{true};
};

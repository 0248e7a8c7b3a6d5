#include "cmd_execute/cmd_execute.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "cmd_execute/cmd_execute_launch.h"
#include "common/agent_clock.h"
#include "common/agent_globals.h"
#include "ini_file.h"
#include "log.h"
#include "process.h"
#include "util.h"

using namespace brel_lib;

namespace {

const unsigned int CMD_MANAGER_STACK_SIZE = 0x100000;
const int ROUND_MILLISECOND = 20;
const int EVENTS_PER_ROUND = 20;
const char* const FILE_CMD_INFO = "../log/cmd_info";
// Data words in the epoll set: a work id alone for its pipes, with a mark
// beyond 32 bits for its child's end, and the wake-up event.
const uint64_t CHILD_END_MARK = 1ULL << 32;
const uint64_t WAKE_EVENT_ID = 2ULL << 32;

// A descriptor that turns readable when the child ends, so that its result
// leaves at once instead of at a later round; -1 where the kernel has none.
int OpenPidFd(pid_t pid)
{
#ifdef SYS_pidfd_open
    return static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
#else
    (void)pid;
    return -1;
#endif
}

// Texts that go to the server as a work's standard error; their wording is
// part of the protocol's visible result.
const char g_pszTimeout[] = "the work is timeout\n";
const unsigned int g_nTimeoutLen = sizeof(g_pszTimeout) - 1;
const char g_pszWaitforError[] = "wait the the work is error\n";
const unsigned int g_nWaitforErrorLen = sizeof(g_pszWaitforError) - 1;
const char g_pszDeleted[] = "the work was delete by the user\n";
const unsigned int g_nDeletedLen = sizeof(g_pszDeleted) - 1;
const char pszErr[] = "read std out/err from pipe is error\n";
const unsigned int nErrStringSize = sizeof(pszErr) - 1;

bool IsQuiet(const CommonWork& work) { return (work.nFlag & WORK_FLAG_QUIET) != 0; }

std::string TimeText(time_t t) { return ConvertUnixTimeToStr(static_cast<long>(t)); }

// A delete of a work whose child has not been reaped, with the child and its time limit.
void LogDeleteOfRunning(const char* szText, const CommonWork& work)
{
    if (IsQuiet(work)) return;
    Log(LOG_LEVEL_INFO, szText, work.nWorkId, static_cast<int>(work.nPid), static_cast<unsigned int>(work.nTimeoutSecond),
        work.nAppend);
}

CCmdChildOps g_childOps;  // the real waitpid and cgroup mount

} // namespace

CCmdExecuteManager::CCmdExecuteManager() : CThread(CMD_MANAGER_STACK_SIZE), m_pChildOps(&g_childOps)
{
    int ret = m_eventNewWork.Init();
    if (ret != 0) {
        Log(LOG_LEVEL_ERROR, "CCmdExecuteManager::CCmdExecuteManager(event init is error, ret: %d)", ret);
        ExitProcess(1);
    }
}

CCmdExecuteManager::~CCmdExecuteManager() { CThread::Stop(); }

// ---- configuration -----------------------------------------------------------------

int CCmdExecuteManager::Start()
{
    Log(LOG_LEVEL_INFO, "CCmdExecuteManager::Start");
    LoadCfg();
    m_bPrintAgentInfo = false;  // a dump is asked for by a reload only
    // The daemon ignores SIGCHLD; waitpid must see the children.
    SetSignal(SIGCHLD, SIG_DFL);
    if (m_bKillProcessTree) m_processTree.Prepare(*m_pChildOps);
    return CThread::Start();
}

void CCmdExecuteManager::ReloadCfg()
{
    Log(LOG_LEVEL_INFO, "CCmdExecuteManager::ReloadCfg");
    LoadCfg();
    WakeUp();  // a dump may be asked for, the expiry period may have changed
}

void CCmdExecuteManager::WakeUp() { m_eventNewWork.SetEvent(); }

void CCmdExecuteManager::LoadCfg()
{
    CIniFile ini;
    if (ini.Load(m_strCfgFile) != 0) return;
    auto value = [&](const char* szKey) { return StringToInt(ini.GetIni(szKey, "")); };
    auto positiveOr = [&](const char* szKey, int nFallback) {
        int n = value(szKey);
        return n < 1 ? nFallback : n;
    };
    unsigned int nMax = static_cast<unsigned int>(value("task_max_concurrent"));
    m_nWorkMaxConcurrent = nMax == 0 ? 50 : nMax;
    m_nWorkDefaultTimeoutSecond = positiveOr("task_default_timeout_second", 60);
    m_nFinishKeepSecondBeforeAutoDelete = positiveOr("task_finish_keep_second_before_auto_delete", 7200);
    m_nNotBeginKeepSecondBeforeAutoDelete = positiveOr("task_not_begin_keep_second_before_auto_delete", 300);
    m_nAutoDeleteTestSecond = positiveOr("task_auto_delete_test_second", 60);
    m_nFinishSendResultDisSecondBeforeAutoDelete = positiveOr("task_finish_send_result_dis_second_before_auto_delete", 300);
    unsigned int nSize = static_cast<unsigned int>(value("task_default_result_size"));
    m_nWorkDefaultResultSize = nSize == 0 ? 16384 : nSize;
    m_bPrintAgentInfo = value("print_agent_info") != 0;
    // On unless set to 0: a timeout or a delete ends the work's whole tree, not its child alone.
    m_bKillProcessTree = StringToInt(ini.GetIni("task_kill_process_tree", "1")) != 0;
}

// ---- the table ----------------------------------------------------------------------

CommonWork* CCmdExecuteManager::GetWork(unsigned int nWorkId)
{
    for (WorkMap* pMap : {&m_mapWorkRunning, &m_mapWorkFinish, &m_mapWorkNotBegin}) {
        auto it = pMap->find(nWorkId);
        if (it != pMap->end()) return it->second;
    }
    return nullptr;
}

int CCmdExecuteManager::AddNewWork(unsigned int nWorkId, const CommonWork& commonWork)
{
    ++m_lWorkAllCount;
    CAutoLock lock(m_lock);
    unsigned int nConcurrent = static_cast<unsigned int>(m_mapWorkNotBegin.size() + m_mapWorkRunning.size());
    if (nConcurrent >= m_nWorkMaxConcurrent) {
        Log(LOG_LEVEL_WARNING,
            "CCmdExecuteManager::AddNewWork(we receive a new work, but it need wait for concurrent, now concurrent "
            "size: %u, work id: %u, append: %d)",
            nConcurrent, nWorkId, commonWork.nAppend);
        return RET_CONCURRENT_LIMIT;
    }
    int nMap = 1;
    for (WorkMap* pMap : {&m_mapWorkNotBegin, &m_mapWorkRunning, &m_mapWorkFinish}) {
        if (pMap->count(nWorkId) != 0) {
            Log(LOG_LEVEL_WARNING, "CCmdExecuteManager::AddNewWork(work id is exist %d, work id: %u, append: %d)", nMap,
                nWorkId, commonWork.nAppend);
            return RET_WORK_ID_EXISTS;
        }
        ++nMap;
    }
    CommonWork* pWork = new (std::nothrow) CommonWork;
    if (pWork == nullptr) {
        Log(LOG_LEVEL_ERROR, "CCmdExecuteManager::AddNewWork(new work is error, work id: %u, append: %d)", nWorkId,
            commonWork.nAppend);
        return RET_WORK_NOT_ALLOCATED;
    }
    pWork->nWorkId = nWorkId;
    pWork->nCreateTime = AgentTime();
    pWork->nAppend = commonWork.nAppend;
    pWork->nSrcServerIp = commonWork.nSrcServerIp;
    pWork->nSrcServerId = commonWork.nSrcServerId;
    pWork->nFlag = commonWork.nFlag;
    pWork->nTimeoutSecond = commonWork.nTimeoutSecond;
    pWork->nBufOutSize = commonWork.nBufOutSize;
    pWork->nBufErrSize = commonWork.nBufErrSize;
    pWork->strExecUser = commonWork.strExecUser;
    pWork->strCmd = commonWork.strCmd;
    m_mapWorkNotBegin[nWorkId] = pWork;
    if (!IsQuiet(*pWork)) {
        // Passwords given to chpasswd stay out of the log.
        bool bMask = pWork->strCmd.find("chpasswd") != std::string::npos;
        Log(LOG_LEVEL_INFO,
            "CCmdExecuteManager::AddNewWork(add work is ok, work id: %u, append: %d, user: %s, timeout: %u, cmd: %s)",
            nWorkId, pWork->nAppend, pWork->strExecUser.c_str(), static_cast<unsigned int>(pWork->nTimeoutSecond),
            bMask ? "******" : pWork->strCmd.c_str());
    }
    return 0;
}

int CCmdExecuteManager::Query(unsigned int nWorkId, int nAppend)
{
    CAutoLock lock(m_lock);
    CommonWork* pWork = GetWork(nWorkId);
    if (pWork == nullptr) return RET_NO_SUCH_WORK;
    pWork->nAppend = nAppend;
    m_pProcessCommon->SendCmdToServerQueryOk(*pWork);
    return 0;
}

int CCmdExecuteManager::DeleteWork(unsigned int& nFlag, unsigned int nWorkId)
{
    CAutoLock lock(m_lock);
    struct {
        WorkMap* pMap;
        const char* szText;
    } gone[] = {{&m_mapWorkFinish, "CCmdExecuteManager::DeleteWork(delete finish work, work id: %u, append: %d)"},
                {&m_mapWorkNotBegin, "CCmdExecuteManager::DeleteWork(delete not begin work, work id: %u, append: %d)"}};
    for (auto& stage : gone) {
        auto it = stage.pMap->find(nWorkId);
        if (it == stage.pMap->end()) continue;
        CommonWork* pWork = it->second;
        nFlag = pWork->nFlag;
        if (!IsQuiet(*pWork)) Log(LOG_LEVEL_DEBUG, stage.szText, nWorkId, pWork->nAppend);
        stage.pMap->erase(it);
        FreeCommonWork(pWork);
        m_timeLastTaskEnd = g_timeNow;
        return 0;
    }
    auto it = m_mapWorkRunning.find(nWorkId);
    if (it == m_mapWorkRunning.end()) return RET_NO_SUCH_WORK;
    CommonWork& work = *it->second;
    nFlag = work.nFlag;
    if (work.nStatus == WORK_RUNNING) {
        LogDeleteOfRunning("CCmdExecuteManager::DeleteWork(delete running work, and we will wait it, work id: %u, "
                           "pid: %d, timeout: %u, append: %d)",
                           work);
        CloseSelfPipe(-1, work);
        if (work.nBufErrSize >= g_nDeletedLen && work.pStdErr != nullptr) {
            memcpy(work.pStdErr, g_pszDeleted, g_nDeletedLen);
            if (work.nBufErrSize > g_nDeletedLen) work.pStdErr[g_nDeletedLen] = 0;
            work.nUsedErrSize = g_nDeletedLen;
        }
        work.nErrno = RET_DELETED_WHILE_RUNNING;
        work.nExitCode = 0;
        work.nEndTime = AgentTime();
        work.nStatus = WORK_DELETED;
        work.bNeedWait = true;
        ++m_nWorkSysFailedCount;
        KillWork(work);
        return 0;
    }
    if (work.nStatus == WORK_FINISHED) {
        LogDeleteOfRunning("CCmdExecuteManager::DeleteWork(delete running but killed work, and we will wait it "
                           "again, work id: %u, pid: %d, timeout: %u, append: %d)",
                           work);
        work.nStatus = WORK_DELETED;
        return 0;
    }
    return RET_NO_SUCH_WORK;
}

unsigned int CCmdExecuteManager::GetNowWorkSize()
{
    CAutoLock lock(m_lock);
    return static_cast<unsigned int>(m_mapWorkNotBegin.size() + m_mapWorkRunning.size() + m_mapWorkFinish.size());
}

void CCmdExecuteManager::CountWorks(unsigned int nByStage[3])
{
    CAutoLock lock(m_lock);
    nByStage[WORK_NOT_BEGIN] = static_cast<unsigned int>(m_mapWorkNotBegin.size());
    nByStage[WORK_RUNNING] = static_cast<unsigned int>(m_mapWorkRunning.size());
    nByStage[WORK_FINISHED] = static_cast<unsigned int>(m_mapWorkFinish.size());
}

void CCmdExecuteManager::FreeCommonWork(CommonWork* pWork)
{
    FreePipeAndMemory(*pWork);
    delete pWork;
}

void CCmdExecuteManager::FreePipeAndMemory(CommonWork& work)
{
    for (int* pFd : {&work.nFdOut[0], &work.nFdOut[1], &work.nFdErr[0], &work.nFdErr[1], &work.nPidFd}) {
        if (*pFd != -1) close(*pFd);
        *pFd = -1;
    }
    free(work.pStdOut);
    free(work.pStdErr);
    work.pStdOut = work.pStdErr = nullptr;
    work.nBufOutSize = work.nBufErrSize = 0;
}

void CCmdExecuteManager::CloseSelfPipe(int epfd, CommonWork& work)
{
    for (int* pFd : {&work.nFdOut[0], &work.nFdErr[0]}) {
        if (*pFd == -1) continue;
        if (epfd != -1) epoll_ctl(epfd, EPOLL_CTL_DEL, *pFd, nullptr);
        close(*pFd);
        *pFd = -1;
    }
}

void CCmdExecuteManager::FreeAllRes()
{
    CAutoLock lock(m_lock);
    // Children still running are neither waited for nor killed: they lose their pipes.
    for (WorkMap* pMap : {&m_mapWorkNotBegin, &m_mapWorkRunning, &m_mapWorkFinish}) {
        for (auto& pair : *pMap) FreeCommonWork(pair.second);
        pMap->clear();
    }
    m_vecNewWorkId.clear();
}

// ---- launching ----------------------------------------------------------------------

// Its log lines, and those of the launch, name it SetWorkActionPrivate, as the
// agent's logs always have.
int CCmdExecuteManager::SetWorkAction(unsigned int nWorkId, unsigned int nAction, int nAppend)
{
    CAutoLock lock(m_lock);
    if (nAction != 1) return RET_BAD_ACTION;
    // A repeated start of a started work is a success and changes nothing.
    if (m_mapWorkRunning.count(nWorkId) != 0 || m_mapWorkFinish.count(nWorkId) != 0) return 0;
    auto it = m_mapWorkNotBegin.find(nWorkId);
    if (it == m_mapWorkNotBegin.end()) return RET_NO_SUCH_WORK;
    CommonWork& work = *it->second;
    work.nAppend = nAppend;
    if (work.strExecUser.empty()) work.strExecUser = "root";

    int ret = AllocateBuffers(work);
    if (ret == 0) ret = LaunchChild(work);
    if (ret != 0) return FailLaunch(work, ret);

    if (work.nTimeoutSecond == 0) work.nTimeoutSecond = m_nWorkDefaultTimeoutSecond;
    work.nBeginTime = AgentTime();
    work.nStatus = WORK_RUNNING;
    m_mapWorkNotBegin.erase(it);
    m_mapWorkRunning[nWorkId] = &work;
    m_vecNewWorkId.push_back(nWorkId);  // the supervising thread watches its pipes from its next round
    m_eventNewWork.SetEvent();
    if (!IsQuiet(work)) {
        Log(LOG_LEVEL_INFO,
            "CCmdExecuteManager::SetWorkActionPrivate(task was forked, work id: %u, pid: %d, append: %d, fdOut: %d, "
            "fdErr: %d)",
            nWorkId, static_cast<int>(work.nPid), nAppend, work.nFdOut[0], work.nFdErr[0]);
    }
    return 0;
}

int CCmdExecuteManager::AllocateBuffers(CommonWork& work)
{
    struct {
        unsigned int nFlagBit;
        unsigned int& nSize;
        char*& pBuf;
        const char* szText;
    } buffers[] = {
        {WORK_FLAG_NO_STDOUT, work.nBufOutSize, work.pStdOut,
         "CCmdExecuteManager::SetWorkActionPrivate(malloc out buf is error, work id: %u, buf size: %u, append: %d)"},
        {WORK_FLAG_NO_STDERR, work.nBufErrSize, work.pStdErr,
         "CCmdExecuteManager::SetWorkActionPrivate(malloc err buf is error, work id: %u, buf size: %u, append: %d)"},
    };
    for (auto& buffer : buffers) {
        if (work.nFlag & buffer.nFlagBit) {
            buffer.nSize = 0;
            buffer.pBuf = nullptr;
            continue;
        }
        if (buffer.nSize == 0) buffer.nSize = m_nWorkDefaultResultSize;
        if (buffer.nSize > CMD_RESULT_BUF_MAX) {
            // Larger, a result with both streams full would not fit one packet.
            Log(LOG_LEVEL_INFO,
                "CCmdExecuteManager::SetWorkActionPrivate(buf size is above the limit, we use the limit, work id: %u, "
                "buf size: %u, limit: %u, append: %d)",
                work.nWorkId, buffer.nSize, CMD_RESULT_BUF_MAX, work.nAppend);
            buffer.nSize = CMD_RESULT_BUF_MAX;
        }
        buffer.pBuf = static_cast<char*>(malloc(buffer.nSize));
        if (buffer.pBuf == nullptr) {
            Log(LOG_LEVEL_ERROR, buffer.szText, work.nWorkId, buffer.nSize, work.nAppend);
            return RET_BUFFER_FAILED;
        }
    }
    return 0;
}

int CCmdExecuteManager::LaunchChild(CommonWork& work)
{
    // Close-on-exec, so that no other child of the agent inherits a work's
    // pipes; the child's dup2 onto 1 and 2 makes copies without the flag.
    struct {
        int* pFds;
        const char* szText;
    } streams[] = {
        {work.nFdOut,
         "CCmdExecuteManager::SetWorkActionPrivate(create pipe 1 is error, work id: %u, errno: %d, append: %d)"},
        {work.nFdErr,
         "CCmdExecuteManager::SetWorkActionPrivate(create pipe 2 is error, work id: %u, errno: %d, append: %d)"},
    };
    for (auto& stream : streams) {
        if (pipe2(stream.pFds, O_CLOEXEC) != 0) {
            Log(LOG_LEVEL_ERROR, stream.szText, work.nWorkId, errno, work.nAppend);
            stream.pFds[0] = stream.pFds[1] = -1;
            return RET_PIPE_FAILED;
        }
    }
    CmdWorkTree tree;
    if (m_bKillProcessTree) tree = m_processTree.Take();
    // Everything the child needs is made now: after the fork it may not allocate.
    CmdLaunchPlan plan;
    PlanLaunch(plan, work, tree, LogFilePath());
    if (!plan.strRefusal.empty()) {
        Log(LOG_LEVEL_WARNING,
            "CCmdExecuteManager::SetWorkActionPrivate(exec user begins with '-', su is not run, work id: %u, user: %s, "
            "append: %d)",
            work.nWorkId, work.strExecUser.c_str(), work.nAppend);
    }
    pid_t pid = ForkForPlan(plan);
    if (pid < 0) {
        Log(LOG_LEVEL_ERROR, "CCmdExecuteManager::SetWorkActionPrivate(fork is error, work id: %u, errno: %d, append: %d)",
            work.nWorkId, errno, work.nAppend);
        m_processTree.Release(tree);
        return RET_FORK_FAILED;
    }
    if (pid == 0) ExecPlannedChild(plan);
    // Also here, so that a kill that comes before the child ran finds the group.
    if (tree.bOwnGroup) setpgid(pid, pid);
    work.workTree = tree;
    work.nPid = pid;
    work.nPidFd = OpenPidFd(pid);
    if (work.nPidFd >= 0) fcntl(work.nPidFd, F_SETFD, FD_CLOEXEC);
    close(work.nFdOut[1]);
    close(work.nFdErr[1]);
    work.nFdOut[1] = work.nFdErr[1] = -1;
    for (int fd : {work.nFdOut[0], work.nFdErr[0]}) {
        int nFlags = fcntl(fd, F_GETFL, 0);
        if (nFlags >= 0) fcntl(fd, F_SETFL, nFlags | O_NONBLOCK);
    }
    return 0;
}

void CCmdExecuteManager::KillWork(CommonWork& work)
{
    // With the tree kept together, its cgroup or its groups go; otherwise the child alone.
    m_processTree.Kill(work.nPid, work.workTree);
}

void CCmdExecuteManager::ForgetChild(int epfd, CommonWork& work)
{
    // A reaped child's pidfd stays readable: left in the level-triggered set it
    // would wake every round until the work is gone.
    if (work.nPidFd != -1) {
        if (epfd != -1) epoll_ctl(epfd, EPOLL_CTL_DEL, work.nPidFd, nullptr);
        close(work.nPidFd);
        work.nPidFd = -1;
    }
    m_processTree.Release(work.workTree);
}

int CCmdExecuteManager::FailLaunch(CommonWork& work, int nRet)
{
    // The work stays not begun, and a later start tries again with default sizes.
    FreePipeAndMemory(work);
    work.nErrno = nRet;
    ++m_nWorkSysFailedCount;
    return nRet;
}

// ---- the supervising thread --------------------------------------------------------

void CCmdExecuteManager::Run()
{
    int epfd = epoll_create1(EPOLL_CLOEXEC);
    if (epfd < 0) {
        int nErr = errno;
        Log(LOG_LEVEL_ERROR, "CCmdExecuteManager::Run(epoll_create is error, errno: %d)", nErr);
        ExitProcess(nErr);
    }
    epoll_event evWake{};
    evWake.events = EPOLLIN;
    evWake.data.u64 = WAKE_EVENT_ID;
    if (epoll_ctl(epfd, EPOLL_CTL_ADD, m_eventNewWork.GetReadableFd(), &evWake) != 0) {
        int nErr = errno;
        Log(LOG_LEVEL_ERROR, "CCmdExecuteManager::Run(epoll_ctl add event is error, errno: %d)", nErr);
        ExitProcess(nErr);
    }
    time_t tPre = AgentTime();
    bool bIdle = true;
    WatchAgentClock(this);
    while (m_nContinueRun != 0) {
        // Cgroups for the next launches are made here, not on the start path.
        if (m_bKillProcessTree) m_processTree.Prepare(*m_pChildOps);
        m_processTree.Refill();
        time_t tNow = AgentTime();
        {
            CAutoLock lock(m_lock);
            DealProcessFinish(epfd);
            if (tPre > tNow) tPre = tNow;  // the clock went back
            if (tNow - tPre >= m_nAutoDeleteTestSecond) {
                tPre = tNow;
                AutoDeleteWork();
            }
            UpdateEpollFd(epfd);
            bIdle = m_mapWorkRunning.empty();
        }
        if (m_bPrintAgentInfo.exchange(false)) PrintAgentInfo();
        epoll_event events[EVENTS_PER_ROUND];
        // With no work running nothing needs the short round: the wait lasts until
        // the next expiry pass, and a new work, a reload, a stop or a moved clock wakes it.
        int nWait = bIdle ? MilliSecondsUntilAgentTime(tPre + m_nAutoDeleteTestSecond) : ROUND_MILLISECOND;
        int n = epoll_wait(epfd, events, EVENTS_PER_ROUND, nWait);
        if (n == 0) continue;
        if (n < 0) {
            if (errno == EINTR) continue;
            int nErr = errno;
            Log(LOG_LEVEL_ERROR, "CCmdExecuteManager::Run(epoll_wait is error, errno: %d)", nErr);
            ExitProcess(nErr);
        }
        CAutoLock lock(m_lock);
        if (DealEvents(epfd, events, n)) DealProcessFinish(epfd);
    }
    UnwatchAgentClock(this);
    close(epfd);
    FreeAllRes();
    m_processTree.Cleanup();
}

void CCmdExecuteManager::UpdateEpollFd(int epfd)
{
    for (unsigned int nWorkId : m_vecNewWorkId) {
        auto it = m_mapWorkRunning.find(nWorkId);
        if (it == m_mapWorkRunning.end() || it->second->nStatus != WORK_RUNNING) continue;
        CommonWork& work = *it->second;
        struct {
            int fd;
            const char* szText;
        } pipes[] = {{work.nFdOut[0], "CCmdExecuteManager::UpdateEpollFd(epoll_ctl add out fd is ok, fd: %d, work id: %u)"},
                     {work.nFdErr[0], "CCmdExecuteManager::UpdateEpollFd(epoll_ctl add err fd is ok, fd: %d, work id: %u)"}};
        if (work.nPidFd != -1) {
            epoll_event ev{};
            ev.events = EPOLLIN;
            ev.data.u64 = CHILD_END_MARK | nWorkId;
            if (epoll_ctl(epfd, EPOLL_CTL_ADD, work.nPidFd, &ev) != 0) {
                close(work.nPidFd);  // the rounds find the end all the same
                work.nPidFd = -1;
            }
        }
        for (auto& pipe : pipes) {
            if (pipe.fd == -1) continue;
            epoll_event ev{};
            ev.events = EPOLLIN;  // level-triggered: a pipe not drained in one go is reported again
            ev.data.u64 = nWorkId;
            if (epoll_ctl(epfd, EPOLL_CTL_ADD, pipe.fd, &ev) != 0) {
                int nErr = errno;
                Log(LOG_LEVEL_ERROR, "CCmdExecuteManager::UpdateEpollFd(epoll_ctl add fd is error, errno: %d, fd: %d, work id: %u)",
                    nErr, pipe.fd, nWorkId);
                ExitProcess(nErr);
            }
            Log(LOG_LEVEL_DEBUG, pipe.szText, pipe.fd, nWorkId);
        }
    }
    m_vecNewWorkId.clear();
}

bool CCmdExecuteManager::DealEvents(int epfd, const epoll_event* pEvents, int nEvents)
{
    bool bChildEnded = false;
    for (int i = 0; i < nEvents; ++i) {
        unsigned int nWorkId = static_cast<unsigned int>(pEvents[i].data.u64);
        uint32_t nEvent = pEvents[i].events;
        if (pEvents[i].data.u64 == WAKE_EVENT_ID) {
            m_eventNewWork.ClearEvent();  // the new pipes are taken at the top of the next round
            continue;
        }
        if (pEvents[i].data.u64 & CHILD_END_MARK) {
            auto itEnded = m_mapWorkRunning.find(nWorkId);
            if (itEnded != m_mapWorkRunning.end() && itEnded->second->nPidFd != -1) {
                epoll_ctl(epfd, EPOLL_CTL_DEL, itEnded->second->nPidFd, nullptr);
                close(itEnded->second->nPidFd);
                itEnded->second->nPidFd = -1;
            }
            bChildEnded = true;
            continue;
        }
        auto it = m_mapWorkRunning.find(nWorkId);
        if (it != m_mapWorkRunning.end()) {
            CommonWork& work = *it->second;
            if (nEvent & EPOLLIN) {
                Log(LOG_LEVEL_DEBUG, "CCmdExecuteManager::Run(EPOLLIN, work id: %u, out fd: %d, err fd: %d)", nWorkId,
                    work.nFdOut[0], work.nFdErr[0]);
                ReadPipes(epfd, work);  // both pipes, for an event on either
            } else {
                Log(LOG_LEVEL_LOWEST,
                    "CCmdExecuteManager::Run(epoll test fd is err, work id: %u, out fd: %d, err fd: %d, event: %u)",
                    nWorkId, work.nFdOut[0], work.nFdErr[0], nEvent);
                CloseSelfPipe(epfd, work);
            }
            continue;
        }
        int fdOut = -1, fdErr = -1;
        auto itFinish = m_mapWorkFinish.find(nWorkId);
        if (itFinish != m_mapWorkFinish.end()) {
            fdOut = itFinish->second->nFdOut[0];
            fdErr = itFinish->second->nFdErr[0];
            if (fdOut != -1) epoll_ctl(epfd, EPOLL_CTL_DEL, fdOut, nullptr);
            if (fdErr != -1) epoll_ctl(epfd, EPOLL_CTL_DEL, fdErr, nullptr);
        }
        Log(LOG_LEVEL_WARNING,
            "CCmdExecuteManager::Run(can not found work id in m_mapWorkRunning, work id: %u, out fd: %d, err fd: %d, "
            "event: %u)",
            nWorkId, fdOut, fdErr, nEvent);
    }
    return bChildEnded;
}

int CCmdExecuteManager::ReadDataFromFd(int epfd, int& fd, char* pBuf, unsigned int& nBufUsedSize, unsigned int nBufSize)
{
    ssize_t n = 0;
    while (nBufUsedSize < nBufSize) {
        n = read(fd, pBuf + nBufUsedSize, nBufSize - nBufUsedSize);
        if (n <= 0) break;
        nBufUsedSize += static_cast<unsigned int>(n);
    }
    // Beyond the capacity: read and drop, so that the child never blocks on a full pipe.
    while (nBufUsedSize == nBufSize) {
        n = read(fd, m_szTempBuf, sizeof(m_szTempBuf));
        if (n <= 0) break;
    }
    if (n < 0 && (errno == EINTR || errno == EAGAIN)) return 0;
    if (n < 0) {
        Log(LOG_LEVEL_WARNING, "CCmdExecuteManager::ReadDataFromFd(read pipe is error, fd: %d, errno: %d)", fd, errno);
        nBufUsedSize = nBufSize < nErrStringSize ? nBufSize : nErrStringSize;
        if (nBufUsedSize != 0) memcpy(pBuf, pszErr, nBufUsedSize);
    }
    if (epfd != -1) epoll_ctl(epfd, EPOLL_CTL_DEL, fd, nullptr);
    close(fd);
    fd = -1;
    return -1;
}

void CCmdExecuteManager::ReadPipes(int epfd, CommonWork& work)
{
    if (work.nFdOut[0] != -1) ReadDataFromFd(epfd, work.nFdOut[0], work.pStdOut, work.nUsedOutSize, work.nBufOutSize);
    if (work.nFdErr[0] != -1) ReadDataFromFd(epfd, work.nFdErr[0], work.pStdErr, work.nUsedErrSize, work.nBufErrSize);
}

void CCmdExecuteManager::SetErrText(CommonWork& work, const char* szText, unsigned int nLen)
{
    // The text replaces what was captured, cut to the buffer's capacity.
    work.nUsedErrSize = work.nBufErrSize < nLen ? work.nBufErrSize : nLen;
    if (work.nUsedErrSize != 0) memcpy(work.pStdErr, szText, work.nUsedErrSize);
}

void CCmdExecuteManager::DealProcessFinish(int epfd)
{
    time_t tNow = AgentTime();
    for (auto it = m_mapWorkRunning.begin(); it != m_mapWorkRunning.end();) {
        CommonWork& work = *it->second;
        int nStatus = 0;
        pid_t ret = m_pChildOps->Wait(work.nPid, &nStatus);
        int nWaitErr = errno;
        if (ret < 0 && nWaitErr == EINTR) {
            Sleep(50);
            continue;  // the same work again
        }
        if (ret == 0) {
            DealChildAlive(epfd, work, tNow);
            ++it;
            continue;
        }
        ForgetChild(epfd, work);
        if (ret < 0) {
            Log(LOG_LEVEL_ERROR,
                "CCmdExecuteManager::DealProcessFinish(waitpid is error, work id: %u, pid: %d, errno: %d, we clear this "
                "work)",
                work.nWorkId, static_cast<int>(work.nPid), nWaitErr);
            SetErrText(work, g_pszWaitforError, g_nWaitforErrorLen);
            work.nErrno = RET_WAITPID_FAILED;
            work.nExitCode = 0;
            work.nEndTime = tNow;
            work.nStatus = WORK_FINISHED;
            CloseSelfPipe(epfd, work);
            m_pProcessCommon->SendCmdToServerQueryOk(work);
            ++m_nWorkSysFailedCount;
        } else {
            DealChildEnded(epfd, work, nStatus, tNow);
        }
        m_mapWorkFinish[it->first] = &work;
        it = m_mapWorkRunning.erase(it);
    }
}

void CCmdExecuteManager::DealChildAlive(int epfd, CommonWork& work, time_t tNow)
{
    if (work.bNeedWait) {
        Log(LOG_LEVEL_WARNING,
            "CCmdExecuteManager::DealProcessFinish(the kill signal is send to process, but it is not exit now, we wait "
            "it again, work id: %u, pid: %d)",
            work.nWorkId, static_cast<int>(work.nPid));
        return;
    }
    if (tNow - work.nBeginTime < work.nTimeoutSecond) return;
    Log(LOG_LEVEL_WARNING,
        "CCmdExecuteManager::DealProcessFinish(work is timeout, we kill it, and wait it, work id: %u, pid: %d, timeout: "
        "%u)",
        work.nWorkId, static_cast<int>(work.nPid), static_cast<unsigned int>(work.nTimeoutSecond));
    KillWork(work);
    CloseSelfPipe(epfd, work);
    SetErrText(work, g_pszTimeout, g_nTimeoutLen);
    work.nErrno = RET_WORK_TIMEOUT;
    work.nExitCode = 0;
    work.nEndTime = tNow;
    work.nStatus = WORK_FINISHED;
    work.bNeedWait = true;
    m_pProcessCommon->SendCmdToServerQueryOk(work);
    ++m_nWorkSysFailedCount;
}

void CCmdExecuteManager::DealChildEnded(int epfd, CommonWork& work, int nStatus, time_t tNow)
{
    int nSeconds = static_cast<int>(tNow - work.nBeginTime);
    if (work.bNeedWait) {
        // Killed by a timeout or a delete: reported already (or answered by the delete).
        work.nEndTime = tNow;
        Log(LOG_LEVEL_WARNING, "CCmdExecuteManager::DealProcessFinish(work was killed ok, work id: %u, pid: %d, time: %ds)",
            work.nWorkId, static_cast<int>(work.nPid), nSeconds);
        CloseSelfPipe(epfd, work);
        return;
    }
    ReadPipes(epfd, work);  // output still in the pipes of a child that exited at once
    CloseSelfPipe(epfd, work);
    work.nEndTime = tNow;
    work.nStatus = WORK_FINISHED;
    int nLow = nStatus & 0x7f;
    if (nLow == 0) {
        work.nExitCode = (nStatus >> 8) & 0xff;
        if (!IsQuiet(work)) {
            Log(LOG_LEVEL_INFO,
                "CCmdExecuteManager::DealProcessFinish(work is normal finish, work id: %u, pid: %d, nExitCode: %d, time: "
                "%ds)",
                work.nWorkId, static_cast<int>(work.nPid), work.nExitCode, nSeconds);
        }
        if (work.nExitCode != 0) ++m_nWorkUserFailedCount;
    } else if (nLow == 0x7f) {
        Log(LOG_LEVEL_WARNING,
            "CCmdExecuteManager::DealProcessFinish(the work is end, but we do not know what happened, work id: %u, pid: "
            "%d, status: %d, time: %ds)",
            work.nWorkId, static_cast<int>(work.nPid), nStatus, nSeconds);
        work.nErrno = RET_UNEXPLAINED_END;
        work.nExitCode = 0;
        ++m_nWorkSysFailedCount;
    } else {
        work.nExitCode = nLow;
        if (!IsQuiet(work)) {
            Log(LOG_LEVEL_WARNING,
                "CCmdExecuteManager::DealProcessFinish(work was killed by signal, work id: %u, pid: %d, signal no: %d, "
                "time: %ds)",
                work.nWorkId, static_cast<int>(work.nPid), nLow, nSeconds);
        }
        ++m_nWorkUserFailedCount;
    }
    m_pProcessCommon->SendCmdToServerQueryOk(work);
}

void CCmdExecuteManager::AutoDeleteWork()
{
    time_t tNow = AgentTime();
    const int nPeriod = m_nFinishSendResultDisSecondBeforeAutoDelete;
    for (auto it = m_mapWorkFinish.begin(); it != m_mapWorkFinish.end();) {
        CommonWork& work = *it->second;
        if (work.nStatus == WORK_DELETED) {
            FreeCommonWork(&work);
            it = m_mapWorkFinish.erase(it);
            m_timeLastTaskEnd = tNow;
            continue;
        }
        // A result is repeated each period: there is no acknowledgement, only a delete stops it.
        long lDis = static_cast<long>(tNow - work.nEndTime);
        long lTemp = lDis / nPeriod;
        bool bReported = false;
        if (lTemp != static_cast<long>(work.nNowReportResultCount)) {
            m_pProcessCommon->SendCmdToServerQueryOk(work);
            work.nNowReportResultCount = static_cast<unsigned int>(lTemp);
            bReported = true;
        }
        if (lDis < m_nFinishKeepSecondBeforeAutoDelete) {
            ++it;
            continue;
        }
        Log(LOG_LEVEL_INFO,
            "CCmdExecuteManager::AutoDeleteWork(auto delete finish work, work id: %u, create time: %s, begin time: %s, "
            "end time: %s)",
            work.nWorkId, TimeText(work.nCreateTime).c_str(), TimeText(work.nBeginTime).c_str(),
            TimeText(work.nEndTime).c_str());
        if (!bReported) m_pProcessCommon->SendCmdToServerQueryOk(work);
        FreeCommonWork(&work);
        it = m_mapWorkFinish.erase(it);
        m_timeLastTaskEnd = tNow;
    }
    for (auto it = m_mapWorkNotBegin.begin(); it != m_mapWorkNotBegin.end();) {
        CommonWork& work = *it->second;
        if (tNow - work.nCreateTime < m_nNotBeginKeepSecondBeforeAutoDelete) {
            ++it;
            continue;
        }
        Log(LOG_LEVEL_INFO, "CCmdExecuteManager::AutoDeleteWork(auto delete not begin work, work id: %u, create time: %s)",
            work.nWorkId, TimeText(work.nCreateTime).c_str());
        FreeCommonWork(&work);
        it = m_mapWorkNotBegin.erase(it);
        m_timeLastTaskEnd = tNow;
    }
}

void CCmdExecuteManager::PrintAgentInfo()
{
    CAutoLock lock(m_lock);
    FILE* pFile = fopen(FILE_CMD_INFO, "a");
    if (pFile == nullptr) {
        Log(LOG_LEVEL_WARNING, "CCmdExecuteManager::PrintAgentInfo(need print agent info, but open file '%s' is error, errno: %d)",
            FILE_CMD_INFO, errno);
        return;
    }
    // Bars of 31 and 29 signs, as the dump has always been laid out.
    const char* szBar = "===============================";
    const char* szEnd = "=============================";
    fprintf(pFile, "%s[Start Print Cmd Execute Info][Now Time: %s]%s\n", szBar, TimeText(g_timeNow).c_str(), szEnd);
    fprintf(pFile, "agent start time: %s\n\n\n", TimeText(g_nStartTime).c_str());
    auto printWorks = [&](const WorkMap& works) {
        int nCount = 0;
        for (const auto& pair : works) {
            const CommonWork& w = *pair.second;
            fprintf(pFile, "+++++++++++++++++++++<A Work: %d>++++++++++++++++++++++\n", ++nCount);
            fprintf(pFile, "nAppend: %u\nnSrcServerIp: %u\nnSrcServerId: %u\nnErrno: %d\nnWorkId: %u\nnStatus: %u\n",
                    static_cast<unsigned int>(w.nAppend), w.nSrcServerIp, w.nSrcServerId, w.nErrno, w.nWorkId, w.nStatus);
            fprintf(pFile, "nPid: %u\nnFdOut[0]: %d\nnFdErr[0]: %d\n", static_cast<unsigned int>(w.nPid), w.nFdOut[0],
                    w.nFdErr[0]);
            fprintf(pFile, "nCreateTime: %s\nnBeginTime: %s\nnEndTime: %s\n", TimeText(w.nCreateTime).c_str(),
                    TimeText(w.nBeginTime).c_str(), TimeText(w.nEndTime).c_str());
            fprintf(pFile, "nExitCode: %d\nbNeedWait: %s\nnNowReportResultCount: %u\nnFlag: %u\nnTimeoutSecond: %d\n",
                    w.nExitCode, w.bNeedWait ? "true" : "false", w.nNowReportResultCount, w.nFlag, w.nTimeoutSecond);
            fprintf(pFile, "nBufOutSize: %u\nnBufErrSize: %u\nstrExecUser: %s\nstrCmd: %s\nnUsedOutSize: %u\nnUsedErrSize: %u\n",
                    w.nBufOutSize, w.nBufErrSize, w.strExecUser.c_str(), w.strCmd.substr(0, 100).c_str(),
                    w.nUsedOutSize, w.nUsedErrSize);
        }
    };
    fprintf(pFile, "%s[Start] All Running Task[Start] %s\n", szBar, szEnd);
    fprintf(pFile, "last cmd task end time: %s\n", TimeText(m_timeLastTaskEnd).c_str());
    fprintf(pFile, "all work num: %llu\n", m_lWorkAllCount.load());
    fprintf(pFile, "sys failed work num: %u\n", m_nWorkSysFailedCount);
    fprintf(pFile, "user failed work num: %u\n", m_nWorkUserFailedCount);
    fprintf(pFile, "m_mapWorkRunning.size: %u\n", static_cast<unsigned int>(m_mapWorkRunning.size()));
    printWorks(m_mapWorkRunning);
    fprintf(pFile, "%s[End] All Running Task [End] %s\n\n\n", szBar, szEnd);
    fprintf(pFile, "%s[Start] All Finish Task [Start] %s\n", szBar, szEnd);
    fprintf(pFile, "m_mapWorkFinish.size: %u\n", static_cast<unsigned int>(m_mapWorkFinish.size()));
    printWorks(m_mapWorkFinish);
    fprintf(pFile, "%s[End] All Finish Task [End] %s\n\n\n", szBar, szEnd);
    fprintf(pFile, "%s[Start] All Not Begin Task [Start] %s\n", szBar, szEnd);
    fprintf(pFile, "m_mapWorkNotBegin.size: %u\n", static_cast<unsigned int>(m_mapWorkNotBegin.size()));
    printWorks(m_mapWorkNotBegin);
    fprintf(pFile, "%s[End] All Not Begin Task [End] %s\n\n\n\n\n\n\n\n\n", szBar, szEnd);
    fclose(pFile);
}

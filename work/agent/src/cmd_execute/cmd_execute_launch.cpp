#include "cmd_execute/cmd_execute_launch.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <linux/sched.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "cmd_execute/cmd_execute.h"
#include "cmd_execute/cmd_execute_tree.h"
#include "log.h"
#include "util.h"

using namespace brel_lib;

// ThreadSanitizer must see the fork to keep its own state usable in the child.
#if defined(__SANITIZE_THREAD__)
#define CMD_FORK_ONLY 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define CMD_FORK_ONLY 1
#endif
#endif

namespace {

// One log line assembled on the stack from prepared parts and numbers.
class CChildLine {
public:
    void Add(const std::string& str) { Add(str.data(), str.size()); }
    void Add(const char* p, size_t n)
    {
        if (n > sizeof(m_szLine) - 1 - m_nLen) n = sizeof(m_szLine) - 1 - m_nLen;
        memcpy(m_szLine + m_nLen, p, n);
        m_nLen += n;
    }
    // Decimal, left-aligned in at least nWidth places.
    void AddNumber(long lValue, size_t nWidth = 0)
    {
        char szDigits[24];
        size_t n = 0;
        bool bNegative = lValue < 0;
        unsigned long lAbs = bNegative ? 0UL - static_cast<unsigned long>(lValue) : static_cast<unsigned long>(lValue);
        do {
            szDigits[sizeof(szDigits) - 1 - n++] = static_cast<char>('0' + lAbs % 10);
            lAbs /= 10;
        } while (lAbs != 0);
        if (bNegative) szDigits[sizeof(szDigits) - 1 - n++] = '-';
        Add(szDigits + sizeof(szDigits) - n, n);
        for (; n < nWidth; ++n) Add(" ", 1);
    }
    // The line with its end to the log sink, as the log writes it.
    void WriteToLog(const CmdLaunchPlan& plan)
    {
        m_szLine[m_nLen++] = '\n';
        if (plan.strLogPath.empty()) {
            (void)!write(1, m_szLine, m_nLen);
            return;
        }
        int fd = open(plan.strLogPath.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
        if (fd < 0) return;
        (void)!write(fd, m_szLine, m_nLen);
        close(fd);
    }
    // Level, time and, in a log file, the thread id, as every log line starts.
    void AddPrefix(const CmdLaunchPlan& plan)
    {
        Add(plan.strLinePrefix);
        if (!plan.strLogPath.empty()) {
            Add("(tid:", 5);
            AddNumber(getpid(), 6);
            Add(")", 1);
        }
        Add(":", 1);
    }

private:
    char m_szLine[1024];
    size_t m_nLen = 0;
};

// Dispositions, mask and umask as a shell started by init would have them,
// not the daemon's ignored signals and umask 0.
void ResetProcessState()
{
    struct sigaction sa;
    memset(&sa, 0, sizeof(sa));
    sa.sa_handler = SIG_DFL;
    sigemptyset(&sa.sa_mask);
    for (int nSig = 1; nSig < NSIG; ++nSig) {
        if (nSig != SIGKILL && nSig != SIGSTOP) sigaction(nSig, &sa, nullptr);
    }
    sigset_t setEmpty;
    sigemptyset(&setEmpty);
    sigprocmask(SIG_SETMASK, &setEmpty, nullptr);
    umask(022);
}

} // namespace

std::string UnknownUserText(const std::string& strUser)
{
    return "su: user " + strUser + " does not exist or the user entry does not contain all the required fields\n";
}

void PlanLaunch(CmdLaunchPlan& plan, CommonWork& work, const CmdWorkTree& tree, const std::string& strLogPath)
{
    plan.fdOut[0] = work.nFdOut[0];
    plan.fdOut[1] = work.nFdOut[1];
    plan.fdErr[0] = work.nFdErr[0];
    plan.fdErr[1] = work.nFdErr[1];
    plan.fdCgroup = tree.fdCgroup;
    plan.bOwnGroup = tree.bOwnGroup;
    char* szCmd = const_cast<char*>(work.strCmd.c_str());
    if (work.strExecUser == "root") {
        plan.szFile = "/bin/sh";
        char* argv[] = {const_cast<char*>("/bin/sh"), const_cast<char*>("-c"), szCmd, nullptr};
        memcpy(plan.argv, argv, sizeof(argv));
    } else {
        // su changes the user; the command goes to the shell as one string.
        plan.szFile = "su";
        char* argv[] = {const_cast<char*>("su"), const_cast<char*>(work.strExecUser.c_str()),
                        const_cast<char*>("/bin/sh"), const_cast<char*>("-c"), szCmd, nullptr};
        memcpy(plan.argv, argv, sizeof(argv));
        // su would read a name that begins with '-' as an option (-c runs the command as root).
        if (work.strExecUser[0] == '-') plan.strRefusal = UnknownUserText(work.strExecUser);
    }
    plan.bLog = g_nLogLevel.load(std::memory_order_relaxed) <= LOG_LEVEL_ERROR;
    if (!plan.bLog) return;
    plan.strLogPath = strLogPath;
    char szPrefix[128];
    snprintf(szPrefix, sizeof(szPrefix), "%-7s(%s)", g_szLogType[LOG_LEVEL_ERROR], GetNowDateTimeMSecond().c_str());
    plan.strLinePrefix = szPrefix;
    char szText[512];
    snprintf(szText, sizeof(szText),
             "CCmdExecuteManager::SetWorkActionPrivate(open /dev/null is error, close all fd is failed, but we continue, "
             "work id: %u, errno: ",
             work.nWorkId);
    plan.strNullFailHead = szText;
    snprintf(szText, sizeof(szText), ", append: %d)", work.nAppend);
    plan.strNullFailTail = szText;
    snprintf(szText, sizeof(szText),
             "CCmdExecuteManager::SetWorkActionPrivate(execvp function returns, so we abort, work id: %u, append: %d)",
             work.nWorkId, work.nAppend);
    plan.strExecFail = szText;
}

void ExecPlannedChild(const CmdLaunchPlan& plan)
{
    ResetProcessState();
    // Into the work's cgroup or a group of its own before anything can start
    // a process, so that the whole tree is found at a kill.
    if (plan.fdCgroup != -1 && !plan.bMadeInCgroup) {
        int fd = openat(plan.fdCgroup, "cgroup.procs", O_WRONLY | O_CLOEXEC);
        if (fd >= 0) {
            (void)!write(fd, "0", 1);
            close(fd);
        }
    }
    if (plan.bOwnGroup) setpgid(0, 0);
    // The first free descriptor bounds this sweep; the pipe ends stay.
    int nBound = open("/dev/null", O_RDONLY);
    if (nBound < 0) {
        int nErr = errno;
        if (plan.bLog) {
            CChildLine line;
            line.AddPrefix(plan);
            line.Add(plan.strNullFailHead);
            line.AddNumber(nErr);
            line.Add(plan.strNullFailTail);
            line.WriteToLog(plan);
        }
        nBound = 0;
    }
    for (int fd = 1; fd <= nBound; ++fd) {
        if (fd != plan.fdOut[0] && fd != plan.fdOut[1] && fd != plan.fdErr[0] && fd != plan.fdErr[1]) close(fd);
    }
    close(plan.fdOut[0]);
    close(plan.fdErr[0]);
    dup2(plan.fdOut[1], 1);
    dup2(plan.fdErr[1], 2);
    if (!plan.strRefusal.empty()) {
        (void)!write(2, plan.strRefusal.data(), plan.strRefusal.size());
        _exit(1);
    }
    execvp(plan.szFile, plan.argv);
    if (plan.bLog) {
        CChildLine line;
        line.AddPrefix(plan);
        line.Add(plan.strExecFail);
        line.WriteToLog(plan);
    }
    // The parent sees a child killed by signal 6; dispositions are the defaults
    // already. Not abort(): after a bare clone3 the thread data it reads is the parent's.
    kill(getpid(), SIGABRT);
    _exit(127);
}

pid_t ForkForPlan(CmdLaunchPlan& plan)
{
#if defined(CLONE_INTO_CGROUP) && defined(SYS_clone3) && !defined(CMD_FORK_ONLY)
    if (plan.fdCgroup != -1) {
        struct clone_args args;
        memset(&args, 0, sizeof(args));
        args.flags = CLONE_INTO_CGROUP;
        args.exit_signal = SIGCHLD;
        args.cgroup = static_cast<unsigned long long>(plan.fdCgroup);
        plan.bMadeInCgroup = true;
        long lPid = syscall(SYS_clone3, &args, sizeof(args));
        if (lPid >= 0) return static_cast<pid_t>(lPid);
        plan.bMadeInCgroup = false;  // an older kernel: fork, and the child moves itself
    }
#else
    (void)plan;  // the child enters its cgroup itself
#endif
    return fork();
}

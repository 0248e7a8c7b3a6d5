#include "process.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

namespace brel_lib {

void GoDaemon()
{
    pid_t pid = fork();
    if (pid < 0) {
        perror("GoDaemon fork");
        exit(errno);
    }
    if (pid > 0) {
        printf("GoDaemon parent exit\n");
        exit(0);
    }
    if (setsid() < 0) {
        perror("GoDaemon setsid");
        exit(errno);
    }
    for (int fd = 0; fd < 30; ++fd) close(fd);
    int fd = open("/dev/null", O_RDWR);  // becomes descriptor 0
    if (fd >= 0) {
        dup2(fd, 1);
        dup2(fd, 2);
    }
    umask(0);
}

namespace {
const int g_normalSignals[] = {SIGINT, SIGHUP, SIGTTOU, SIGTTIN, SIGCHLD, SIGTERM};

int SetNormalSignals(void (*pHandler)(int))
{
    int nFirst = 0;
    for (int nSigNo : g_normalSignals) {
        int ret = SetSignal(nSigNo, pHandler);
        if (nFirst == 0) nFirst = ret;
    }
    return nFirst;
}
} // namespace

int SetNormalSignalIgn() { return SetNormalSignals(SIG_IGN); }
int SetNormalSignalDfl() { return SetNormalSignals(SIG_DFL); }

int SetSignal(int nSigNo, void (*pHandler)(int))
{
    struct sigaction act;
    memset(&act, 0, sizeof(act));
    act.sa_handler = pHandler;
    sigemptyset(&act.sa_mask);
    act.sa_flags = 0;  // no SA_RESTART: a blocking call of the main thread may see EINTR
    return sigaction(nSigNo, &act, nullptr) == 0 ? 0 : errno;
}

int lock_reg(int fd, int cmd, int type, long offset, int whence, long len)
{
    struct flock lock;
    memset(&lock, 0, sizeof(lock));
    lock.l_type = static_cast<short>(type);
    lock.l_start = offset;
    lock.l_whence = static_cast<short>(whence);
    lock.l_len = len;
    return fcntl(fd, cmd, &lock);
}

void ExitProcess(int nStatus)
{
    fflush(nullptr);
    _exit(nStatus);
}

void err_sys(const char* szText)
{
    printf("%s\n", szText);
    fflush(stdout);
    exit(-2);
}

int CheckSelfRunning(const std::string& strPath)
{
    int fd = open(strPath.c_str(), O_WRONLY | O_CREAT, 0644);
    if (fd < 0) err_sys("open file error");
    if (lock_reg(fd, F_SETLK, F_WRLCK, 0, SEEK_SET, 0) < 0) {
        if (errno == EACCES || errno == EAGAIN) return 0;
        err_sys("write_lock error");
    }
    // Truncated only once the lock is ours, so a second start leaves the file alone.
    if (ftruncate(fd, 0) < 0) err_sys("ftruncate error");
    std::string strPid = std::to_string(getpid()) + "\n";
    if (write(fd, strPid.data(), strPid.size()) != static_cast<ssize_t>(strPid.size())) err_sys("write error");
    int nFlags = fcntl(fd, F_GETFD, 0);
    if (nFlags < 0) err_sys("fcntl F_GETFD error");
    if (fcntl(fd, F_SETFD, nFlags | FD_CLOEXEC) < 0) err_sys("fcntl F_SETFD error");
    return -1;  // the descriptor stays open: the lock lasts as long as it
}

} // namespace brel_lib

#include "thread.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include "util.h"

namespace brel_lib {

// ---- CThread ---------------------------------------------------------------

CThread::CThread(unsigned int nStackSize)
    : m_nContinueRun(0), m_hThread(0), m_nStackSize(nStackSize), m_fdWake(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC))
{
}

CThread::~CThread()
{
    CThread::Stop();
    if (m_fdWake >= 0) close(m_fdWake);
}

int CThread::Start()
{
    m_nContinueRun = 1;
    CAutoLock lock(m_lockHandle);
    if (m_hThread != 0) return 0;
    if (m_nStackSize == 0) return pthread_create(&m_hThread, nullptr, brel_lib_thread, this);

    pthread_attr_t attr;
    int ret = pthread_attr_init(&attr);
    if (ret != 0) return ret;
    ret = pthread_attr_setstacksize(&attr, m_nStackSize);
    if (ret == 0) ret = pthread_create(&m_hThread, &attr, brel_lib_thread, this);
    if (ret != 0) {
        m_hThread = 0;
        pthread_attr_destroy(&attr);
        return ret;
    }
    return pthread_attr_destroy(&attr);
}

int CThread::Stop()
{
    m_nContinueRun = 0;
    WakeUp();
    pthread_t hThread;
    {
        CAutoLock lock(m_lockHandle);
        hThread = m_hThread;
        m_hThread = 0;
    }
    return hThread == 0 ? 0 : pthread_join(hThread, nullptr);
}

void CThread::WakeUp()
{
    if (m_fdWake < 0) return;
    uint64_t lOne = 1;
    // A full counter (never reached) would mean a wake-up is pending already.
    while (write(m_fdWake, &lOne, sizeof(lOne)) < 0 && errno == EINTR) {
    }
}

void CThread::TakeWakeUp()
{
    if (m_fdWake < 0) return;
    uint64_t lCount = 0;
    while (read(m_fdWake, &lCount, sizeof(lCount)) < 0 && errno == EINTR) {
    }
}

void CThread::WaitWakeUp(unsigned int nMilliSecond)
{
    if (m_fdWake < 0) {
        Sleep(nMilliSecond);
        return;
    }
    pollfd pfd{m_fdWake, POLLIN, 0};
    if (poll(&pfd, 1, static_cast<int>(nMilliSecond)) > 0) TakeWakeUp();
}

int MilliSecondsUntil(time_t tDeadline, long long lNowMilliSecond, int nMaxMilliSecond)
{
    // Far deadlines (a "never") are compared in seconds first: in milliseconds they would overflow.
    if (static_cast<long long>(tDeadline) - lNowMilliSecond / 1000 > nMaxMilliSecond / 1000 + 1) return nMaxMilliSecond;
    long long lWait = static_cast<long long>(tDeadline) * 1000 - lNowMilliSecond;
    if (lWait < 0) return 0;
    return lWait > nMaxMilliSecond ? nMaxMilliSecond : static_cast<int>(lWait);
}

int MilliSecondsUntil(time_t tDeadline, int nMaxMilliSecond)
{
    return MilliSecondsUntil(tDeadline, static_cast<long long>(GetNowMilliSecond()), nMaxMilliSecond);
}

pthread_t CThread::GetThreadID()
{
    CAutoLock lock(m_lockHandle);
    return m_hThread;
}

void* brel_lib_thread(void* pArg)
{
    CThread* pThread = static_cast<CThread*>(pArg);
    pThread->Run();
    // A thread that ends by itself looks like one that never started. Nobody
    // will join it then, so it detaches itself; if Stop has already taken the
    // handle, Stop joins it instead.
    CAutoLock lock(pThread->m_lockHandle);
    if (pThread->m_hThread != 0 && pthread_equal(pThread->m_hThread, pthread_self())) {
        pthread_detach(pthread_self());
        pThread->m_hThread = 0;
        pThread->m_nContinueRun = 0;
    }
    return nullptr;
}

// ---- CEvent ----------------------------------------------------------------

namespace {
int SetNonBlockCloExec(int fd)
{
    int nFlags = fcntl(fd, F_GETFL, 0);
    if (nFlags < 0 || fcntl(fd, F_SETFL, nFlags | O_NONBLOCK) < 0) return errno;
    if (fcntl(fd, F_SETFD, FD_CLOEXEC) < 0) return errno;
    return 0;
}
} // namespace

int CEvent::Init()
{
    if (m_bCreateOk) return 0;
    m_fdRead = m_fdWrite = m_fdEp = -1;
    int fds[2];
    if (pipe(fds) != 0) return -1;
    int ret = SetNonBlockCloExec(fds[0]);
    if (ret == 0) ret = SetNonBlockCloExec(fds[1]);
    int fdEp = -1;
    if (ret == 0) {
        fdEp = epoll_create1(EPOLL_CLOEXEC);
        if (fdEp < 0) ret = errno;
    }
    if (ret == 0) {
        epoll_event ev{};
        ev.events = EPOLLIN;
        ev.data.fd = fds[0];
        if (epoll_ctl(fdEp, EPOLL_CTL_ADD, fds[0], &ev) != 0) ret = errno;
    }
    if (ret != 0) {
        close(fds[0]);
        close(fds[1]);
        if (fdEp >= 0) close(fdEp);
        return ret;
    }
    m_fdRead = fds[0];
    m_fdWrite = fds[1];
    m_fdEp = fdEp;
    m_bCreateOk = true;
    return 0;
}

void CEvent::UnInit()
{
    if (!m_bCreateOk) return;
    m_bCreateOk = false;
    close(m_fdRead);
    close(m_fdWrite);
    close(m_fdEp);
    m_fdRead = m_fdWrite = m_fdEp = -1;
}

int CEvent::SetEvent()
{
    const char cByte = 0;
    while (write(m_fdWrite, &cByte, 1) != 1) {
        if (errno == EINTR) continue;
        // A full pipe means the event is signalled already, which is all that was asked.
        return errno == EAGAIN ? 0 : errno;
    }
    return 0;
}

int CEvent::SelectPipe(unsigned int nTimeoutMilliSecond)
{
    uint64_t lStart = GetNowMilliSecond();
    int nRemain = static_cast<int>(nTimeoutMilliSecond);  // 0xFFFFFFFF becomes -1: no end
    while (true) {
        epoll_event ev{};
        int n = epoll_wait(m_fdEp, &ev, 1, nRemain);
        if (n == 0) return 0;
        if (n > 0) return (ev.events & ~static_cast<uint32_t>(EPOLLIN)) != 0 ? -4 : 1;
        if (errno != EINTR) return -3;
        uint64_t lNow = GetNowMilliSecond();
        if (lStart > lNow) lStart = lNow;  // the clock went back
        int nElapsed = static_cast<int>(lNow - lStart);
        // Signed on purpose: an endless wait that a signal interrupts returns as timed out.
        if (nElapsed >= nRemain) return 0;
        nRemain -= nElapsed;
        lStart = lNow;
    }
}

int CEvent::WaitForSingleObject(unsigned int nTimeoutMilliSecond)
{
    int ret = SelectPipe(nTimeoutMilliSecond);
    if (ret < 1) return ret;
    ClearEvent();
    return 1;
}

void CEvent::ClearEvent()
{
    // The bytes are never looked at; a stack buffer keeps threads apart.
    char g_szBuffer[512];
    while (true) {
        ssize_t n = read(m_fdRead, g_szBuffer, sizeof(g_szBuffer));
        if (n < 0 && errno == EINTR) continue;
        if (n != static_cast<ssize_t>(sizeof(g_szBuffer))) return;
    }
}

} // namespace brel_lib

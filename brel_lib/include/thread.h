// Worker threads with a cooperative stop flag, and a pipe-based wake-up event
// that can sit in an epoll set next to sockets.
#pragma once

#include <pthread.h>

#include <time.h>

#include <atomic>

#include "log.h"

namespace brel_lib {

// Base of every long-running object: Run() loops while m_nContinueRun is 1.
// Run waits for events and for its next deadline, not in fixed rounds: a stop,
// or anything else that changes what Run waits for, wakes it through WakeUp.
class CThread {
public:
    CThread() : CThread(0) {}
    explicit CThread(unsigned int nStackSize);
    virtual ~CThread();
    CThread(const CThread&) = delete;
    CThread& operator=(const CThread&) = delete;

    // Sets the run flag and starts a thread unless one runs; 0 or pthread error.
    virtual int Start();
    // Clears the run flag, wakes Run and joins; 0 or the join's result. Any thread but its own.
    virtual int Stop();
    virtual void Run() = 0;
    pthread_t GetThreadID();
    // Any thread: makes Run look at its run flag and its deadlines now. A wake-up
    // is kept until Run takes it, so none is lost between a look and a wait. The
    // base signals WakeFd; a Run that waits elsewhere (a queue) wakes that too.
    virtual void WakeUp();

protected:
    // Written by any thread, polled by Run; handed to blocking calls so they give up early.
    std::atomic<unsigned int> m_nContinueRun;

    // Readable from a WakeUp until TakeWakeUp; for a Run that waits in epoll. -1 when
    // the kernel gave no descriptor: the waits then end at their time-outs alone.
    int WakeFd() const { return m_fdWake; }
    void TakeWakeUp();
    // Waits until a WakeUp (taken) or the time is up: a retry sleep that a stop cuts short.
    void WaitWakeUp(unsigned int nMilliSecond);

private:
    friend void* brel_lib_thread(void* pArg);

    // Guards m_hThread between Start, Stop and the thread's own end.
    CLock m_lockHandle;
    pthread_t m_hThread;  // 0 when no thread runs
    unsigned int m_nStackSize;
    int m_fdWake;  // an eventfd, written by any thread, read by Run
};

// Milliseconds from lNowMilliSecond until the second tDeadline of the same clock
// begins, for a wait that ends when a timer of whole seconds comes due: 0 when
// it has, at most nMaxMilliSecond, so that a clock set forward is seen in time.
int MilliSecondsUntil(time_t tDeadline, long long lNowMilliSecond, int nMaxMilliSecond);
// The same on the system clock.
int MilliSecondsUntil(time_t tDeadline, int nMaxMilliSecond);
// The longest wait for a deadline: a clock set forward is seen at least this often.
const int DEADLINE_WAIT_MAX_MILLISECOND = 60000;

void* brel_lib_thread(void* pArg);

// Signalled exactly while its pipe holds a byte; counts nothing. SetEvent may
// be called from any thread, the waits and ClearEvent by the consuming thread.
class CEvent {
public:
    CEvent() = default;
    ~CEvent() { UnInit(); }
    CEvent(const CEvent&) = delete;
    CEvent& operator=(const CEvent&) = delete;

    int Init();
    void UnInit();
    int SetEvent();
    // 1 signalled (and drained), 0 timed out, negative as SelectPipe.
    int WaitForSingleObject(unsigned int nTimeoutMilliSecond);
    // 1 signalled, 0 timed out, -3 epoll_wait failed, -4 an event other than readable.
    // 0xFFFFFFFF waits for ever.
    int SelectPipe(unsigned int nTimeoutMilliSecond);
    int GetReadableFd() const { return m_fdRead; }
    void ClearEvent();

private:
    bool m_bCreateOk = false;
    int m_fdRead = -1;
    int m_fdWrite = -1;
    int m_fdEp = -1;
};

} // namespace brel_lib

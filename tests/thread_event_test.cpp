// Threads that start, stop and wait for wake-ups, and the pipe event behind the waits.
#include "thread.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "util.h"

using namespace brel_lib;

namespace {

class CountingThread : public CThread {
public:
    explicit CountingThread(unsigned int nStack = 0, int nRounds = -1) : CThread(nStack), m_nRounds(nRounds) {}
    ~CountingThread() override { Stop(); }
    void Run() override
    {
        ++m_nRuns;
        for (int i = 0; m_nContinueRun && (m_nRounds < 0 || i < m_nRounds); ++i) Sleep(5);
    }
    std::atomic<int> m_nRuns{0};
    int m_nRounds;
};

TEST(Thread, StartStopRestart)
{
    CountingThread thread(0x100000);
    EXPECT_EQ(thread.Stop(), 0);  // never started
    ASSERT_EQ(thread.Start(), 0);
    pthread_t h = thread.GetThreadID();
    EXPECT_NE(h, 0u);
    EXPECT_EQ(thread.Start(), 0);  // no second thread
    EXPECT_EQ(thread.GetThreadID(), h);
    EXPECT_EQ(thread.Stop(), 0);
    EXPECT_EQ(thread.GetThreadID(), 0u);
    EXPECT_EQ(thread.m_nRuns, 1);
    ASSERT_EQ(thread.Start(), 0);
    EXPECT_EQ(thread.Stop(), 0);
    EXPECT_EQ(thread.m_nRuns, 2);
}

TEST(Thread, RunEndingByItselfLooksIdleAndCanStartAgain)
{
    CountingThread thread(0, 1);
    ASSERT_EQ(thread.Start(), 0);
    for (int i = 0; i < 200 && thread.GetThreadID() != 0; ++i) Sleep(5);
    EXPECT_EQ(thread.GetThreadID(), 0u);
    EXPECT_EQ(thread.Stop(), 0);
    ASSERT_EQ(thread.Start(), 0);
    for (int i = 0; i < 200 && thread.m_nRuns < 2; ++i) Sleep(5);
    EXPECT_EQ(thread.m_nRuns, 2);
}

// A thread that waits an hour unless woken, as an idle loop waits for a far deadline.
class WaitingThread : public CThread {
public:
    ~WaitingThread() override { Stop(); }
    void Run() override
    {
        while (m_nContinueRun) {
            WaitWakeUp(3600 * 1000);
            ++m_nWakeUps;
        }
    }
    std::atomic<int> m_nWakeUps{0};
};

// A wake-up that comes before the wait is kept for it, and a stop wakes the
// wait: with a lost wake-up either step would hang for the hour.
TEST(Thread, WakeUpIsKeptForTheNextWaitAndAStopWakesIt)
{
    WaitingThread thread;
    thread.WakeUp();  // before the thread runs at all
    ASSERT_EQ(thread.Start(), 0);
    for (int i = 0; i < 1000 && thread.m_nWakeUps == 0; ++i) Sleep(5);
    EXPECT_EQ(thread.m_nWakeUps, 1);
    EXPECT_EQ(thread.Stop(), 0);
    EXPECT_EQ(thread.m_nWakeUps, 2);
}

TEST(Thread, MilliSecondsUntilADeadlineOfWholeSeconds)
{
    struct Case {
        time_t tDeadline;
        long long lNowMs;
        int nMax, nWait;
    } cases[] = {
        {100, 99250, 60000, 750},   // the rest of the second before
        {100, 100000, 60000, 0},    // due now
        {100, 100400, 60000, 0},    // past
        {200, 99000, 60000, 60000}, // far: the longest wait
        {103, 100999, 60000, 2001},
        {static_cast<time_t>(1) << 62, 100000, 60000, 60000},  // never: no overflow to "due"
    };
    for (const Case& c : cases) EXPECT_EQ(MilliSecondsUntil(c.tDeadline, c.lNowMs, c.nMax), c.nWait) << c.lNowMs;
}

TEST(Event, SignalClearPollAndWaitAcrossThreads)
{
    CEvent event;
    EXPECT_EQ(event.SetEvent(), EBADF);  // not initialised
    event.UnInit();                      // harmless
    ASSERT_EQ(event.Init(), 0);
    int fd = event.GetReadableFd();
    ASSERT_EQ(event.Init(), 0);
    EXPECT_EQ(event.GetReadableFd(), fd);

    EXPECT_EQ(event.WaitForSingleObject(0), 0);
    EXPECT_EQ(event.SetEvent(), 0);
    EXPECT_EQ(event.SetEvent(), 0);
    EXPECT_EQ(event.SelectPipe(0), 1);  // does not consume
    EXPECT_EQ(event.SelectPipe(0), 1);
    EXPECT_EQ(event.WaitForSingleObject(0), 1);
    EXPECT_EQ(event.SelectPipe(0), 0);  // one wait undid both sets
    event.ClearEvent();                 // empty pipe: returns at once

    // A full pipe stays signalled, and one clear empties it.
    for (int i = 0; i < 70000; ++i) ASSERT_EQ(event.SetEvent(), 0);
    EXPECT_EQ(event.SelectPipe(0), 1);
    event.ClearEvent();
    EXPECT_EQ(event.SelectPipe(0), 0);

    // Exactly 512 bytes: the second read meets EAGAIN and ends the loop.
    for (int i = 0; i < 512; ++i) event.SetEvent();
    event.ClearEvent();
    EXPECT_EQ(event.SelectPipe(0), 0);

    uint64_t lStart = GetNowMilliSecond();
    EXPECT_EQ(event.WaitForSingleObject(50), 0);
    EXPECT_GE(GetNowMilliSecond() - lStart, 45u);

    std::thread setter([&] {
        Sleep(30);
        event.SetEvent();
    });
    EXPECT_EQ(event.WaitForSingleObject(5000), 1);
    setter.join();
}

void NoOp(int) {}

TEST(Event, EndlessWaitInterruptedBySignalReturnsZero)
{
    struct sigaction act {};
    act.sa_handler = NoOp;
    sigaction(SIGUSR2, &act, nullptr);  // no SA_RESTART
    CEvent event;
    ASSERT_EQ(event.Init(), 0);
    pthread_t self = pthread_self();
    std::thread killer([&] {
        Sleep(50);
        pthread_kill(self, SIGUSR2);
    });
    EXPECT_EQ(event.SelectPipe(0xFFFFFFFF), 0);
    killer.join();
    signal(SIGUSR2, SIG_DFL);
}

} // namespace

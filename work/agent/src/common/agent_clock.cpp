#include "common/agent_clock.h"

#include <sys/time.h>

#include <algorithm>
#include <vector>

#include "thread.h"

namespace {
std::atomic<time_t> g_tOffset{0};

// The threads that wait for deadlines of this clock, guarded by the lock; a
// wake-up taken under it never waits on anything.
brel_lib::CLock g_lockWatchers;
std::vector<brel_lib::CThread*> g_vecWatchers;
} // namespace

time_t AgentTime() { return time(nullptr) + g_tOffset.load(std::memory_order_relaxed); }

long long AgentTimeMilliSecond()
{
    timeval tv;
    gettimeofday(&tv, nullptr);
    return (static_cast<long long>(tv.tv_sec) + g_tOffset.load(std::memory_order_relaxed)) * 1000 + tv.tv_usec / 1000;
}

void SetAgentTimeOffset(time_t tOffset)
{
    g_tOffset = tOffset;
    brel_lib::CAutoLock lock(g_lockWatchers);
    for (brel_lib::CThread* pThread : g_vecWatchers) pThread->WakeUp();
}

void WatchAgentClock(brel_lib::CThread* pThread)
{
    brel_lib::CAutoLock lock(g_lockWatchers);
    g_vecWatchers.push_back(pThread);
}

void UnwatchAgentClock(brel_lib::CThread* pThread)
{
    brel_lib::CAutoLock lock(g_lockWatchers);
    g_vecWatchers.erase(std::remove(g_vecWatchers.begin(), g_vecWatchers.end(), pThread), g_vecWatchers.end());
}

int MilliSecondsUntilAgentTime(time_t tDeadline)
{
    return brel_lib::MilliSecondsUntil(tDeadline, AgentTimeMilliSecond(), brel_lib::DEADLINE_WAIT_MAX_MILLISECOND);
}

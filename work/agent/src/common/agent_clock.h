// The agent's wall clock in seconds. Every timer of the agent reads it here,
// so that tests can move it instead of waiting minutes.
#pragma once

#include <time.h>

#include <atomic>

namespace brel_lib {
class CThread;
}

time_t AgentTime();
// A deadline that never comes.
const time_t TIME_NEVER = static_cast<time_t>(1) << 62;
// The same clock in milliseconds, for waits that end when a timer of AgentTime comes due.
long long AgentTimeMilliSecond();
// Seconds added to the system clock; tests only. Wakes every thread that
// watches the clock, so that it looks at its deadlines anew.
void SetAgentTimeOffset(time_t tOffset);
// A thread that waits for deadlines of this clock: from Watch until Unwatch a
// moved clock wakes it (WakeUp). Its own thread, at the start and end of Run.
void WatchAgentClock(brel_lib::CThread* pThread);
void UnwatchAgentClock(brel_lib::CThread* pThread);
// Milliseconds until the second tDeadline of AgentTime begins (0 when it has),
// at most the longest deadline wait.
int MilliSecondsUntilAgentTime(time_t tDeadline);

// The agent's time as a value that reads the clock each time: AgentTime, or
// the time a unit test pinned it to by assigning one (without any thread that
// would move it). Replaces a copy that a thread refreshed in fixed rounds.
class CAgentNow {
public:
    time_t load() const
    {
        time_t tPinned = m_tPinned.load(std::memory_order_relaxed);
        return tPinned != 0 ? tPinned : AgentTime();
    }
    operator time_t() const { return load(); }
    CAgentNow& operator=(time_t t)
    {
        m_tPinned = t;
        return *this;
    }

private:
    std::atomic<time_t> m_tPinned{0};
};

// Pulls a stored time that lies in the future back to now: a clock set back
// neither stalls a timer nor makes anything expire early.
template <class T>
void PullBack(T& tStored, time_t tNow)
{
    if (tStored > tNow) tStored = tNow;
}

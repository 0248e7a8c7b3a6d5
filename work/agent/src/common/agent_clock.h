// The agent's wall clock in seconds. Every timer of the agent reads it here,
// so that tests can move it instead of waiting minutes.
#pragma once

#include <time.h>

time_t AgentTime();
// Seconds added to the system clock; tests only.
void SetAgentTimeOffset(time_t tOffset);

// Pulls a stored time that lies in the future back to now: a clock set back
// neither stalls a timer nor makes anything expire early.
template <class T>
void PullBack(T& tStored, time_t tNow)
{
    if (tStored > tNow) tStored = tNow;
}

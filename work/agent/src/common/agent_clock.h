// The agent's wall clock in seconds. Every timer of the agent reads it here,
// so that tests can move it instead of waiting minutes.
#pragma once

#include <time.h>

time_t AgentTime();
// Seconds added to the system clock; tests only.
void SetAgentTimeOffset(time_t tOffset);

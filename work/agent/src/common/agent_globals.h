// Process-wide state of the agent, read by every part of it.
#pragma once

#include <time.h>

#include <atomic>
#include <string>

#include "common/agent_clock.h"

// Version of the agent; printed by -v and reported to the server.
extern const std::string g_strVersion;
// Path of the configuration file, from the first argument.
extern std::string g_strCfgFile;
// The agent's identity in every message; never 0 once the start has read it.
// Written by the main thread, read by all.
extern std::atomic<unsigned int> g_nAgentId;
// Process start, taken before any fork.
extern const time_t g_nStartTime;
// The agent's clock in seconds (AgentTime), read where it is needed.
extern CAgentNow g_timeNow;
// need_get_new_ws as last read; cleared by the session thread.
extern std::atomic<bool> g_bNeedGetNewWs;

#include "common/agent_globals.h"

const std::string g_strVersion = "7.0.39";
std::string g_strCfgFile;
std::atomic<unsigned int> g_nAgentId{0};
const time_t g_nStartTime = time(nullptr);
CAgentNow g_timeNow;
std::atomic<bool> g_bNeedGetNewWs{false};

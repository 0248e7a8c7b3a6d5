#include "common/agent_counters.h"

#include "common/work_codes.h"

CAgentCounters g_agentCounters;

void CountRefusal(int nRet)
{
    if (nRet == 0 || nRet == RET_IN_CACHE_COMPLETE || nRet == RET_RUNS_BY_ITSELF) return;
    g_agentCounters.lRefusedRequests.fetch_add(1, std::memory_order_relaxed);
}

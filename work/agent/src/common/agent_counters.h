// Counts of what the agent has done since it started, for the metrics
// textfile. Each is an atomic that the thread where the event happens
// increments; no lock owns them, and a reader may see one a step ahead of
// another, which a scrape taken once a minute does not mind.
#pragma once

#include <atomic>

struct CAgentCounters {
    std::atomic<unsigned long long> lFileBytesReceived{0};  // block bytes a destination accepted
    std::atomic<unsigned long long> lLinkConnects{0};       // successful connects of the server link
    std::atomic<unsigned long long> lRefusedRequests{0};    // requests answered with a failure code
};

extern CAgentCounters g_agentCounters;

// Counts a reply's code as a refusal, unless it is a success or one of the
// outcomes that only look like failures (330: the file is in the cache; 331:
// the work runs by itself).
void CountRefusal(int nRet);

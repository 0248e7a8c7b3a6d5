#include "common/agent_clock.h"

#include <atomic>

namespace {
std::atomic<time_t> g_tOffset{0};
} // namespace

time_t AgentTime() { return time(nullptr) + g_tOffset.load(std::memory_order_relaxed); }

void SetAgentTimeOffset(time_t tOffset) { g_tOffset = tOffset; }

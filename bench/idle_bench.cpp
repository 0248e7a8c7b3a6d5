// The idle footprint of a connected agent with every manager running: its CPU
// share, its wake-ups a second (voluntary and involuntary context switches of
// all its threads), its resident and anonymous memory, over a quiet period
// (BENCH_IDLE_SECONDS, 60 by default), beside an idle `sleep` process measured
// over the same period, and beside the goals of an idle agent.
#include <dirent.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <sstream>
#include <string>

#include "install_tree.h"
#include "test_work_server.h"

using namespace agent_test;

namespace {

struct Usage {
    long long lTicks = 0;     // user and system time of all threads
    long long lSwitches = 0;  // context switches of all threads
    long long lRssKiB = 0;
    long long lAnonKiB = 0;
    long long lFileKiB = 0;  // pages of the binary and its libraries
    int nThreads = 0;
};

long long StatusValue(const std::string& strStatus, const char* szKey)
{
    size_t nPos = strStatus.find(szKey);
    return nPos == std::string::npos ? 0 : atoll(strStatus.c_str() + nPos + strlen(szKey));
}

Usage Sample(pid_t pid)
{
    Usage u;
    std::string strProc = "/proc/" + std::to_string(pid);
    std::string strStat = ReadFile(strProc + "/stat");
    size_t nPos = strStat.rfind(')');
    if (nPos == std::string::npos) return u;
    std::istringstream in(strStat.substr(nPos + 2));
    std::string strField;
    for (int i = 3; i <= 15 && in >> strField; ++i) {
        if (i == 14 || i == 15) u.lTicks += atoll(strField.c_str());
    }
    DIR* pDir = opendir((strProc + "/task").c_str());
    while (pDir != nullptr) {
        dirent* pEntry = readdir(pDir);
        if (pEntry == nullptr) break;
        if (pEntry->d_name[0] == '.') continue;
        std::string strTask = ReadFile(strProc + "/task/" + pEntry->d_name + "/status");
        u.lSwitches += StatusValue(strTask, "\nvoluntary_ctxt_switches:") +
                       StatusValue(strTask, "\nnonvoluntary_ctxt_switches:");
        ++u.nThreads;
    }
    if (pDir != nullptr) closedir(pDir);
    std::string strStatus = ReadFile(strProc + "/status");
    u.lRssKiB = StatusValue(strStatus, "\nVmRSS:");
    u.lAnonKiB = StatusValue(strStatus, "\nRssAnon:");
    u.lFileKiB = StatusValue(strStatus, "\nRssFile:");
    return u;
}

struct Footprint {
    double dCpuPercent = 0;
    double dWakeups = 0;
    Usage end;
};

// Samples the agent and the bare process at the start and the end of one quiet period.
void Measure(pid_t pidAgent, pid_t pidBare, int nSeconds, Footprint& agent, Footprint& bare)
{
    Usage agentBefore = Sample(pidAgent), bareBefore = Sample(pidBare);
    sleep(static_cast<unsigned int>(nSeconds));
    agent.end = Sample(pidAgent);
    bare.end = Sample(pidBare);
    double dTickPercent = 100.0 / static_cast<double>(sysconf(_SC_CLK_TCK)) / nSeconds;
    agent.dCpuPercent = static_cast<double>(agent.end.lTicks - agentBefore.lTicks) * dTickPercent;
    bare.dCpuPercent = static_cast<double>(bare.end.lTicks - bareBefore.lTicks) * dTickPercent;
    agent.dWakeups = static_cast<double>(agent.end.lSwitches - agentBefore.lSwitches) / nSeconds;
    bare.dWakeups = static_cast<double>(bare.end.lSwitches - bareBefore.lSwitches) / nSeconds;
}

void Line(const char* szWhat, double dAgent, double dBare, const char* szGoal)
{
    printf("%-34s %10.3f | idle sleep %10.3f | goal %s\n", szWhat, dAgent, dBare, szGoal);
}

} // namespace

int main()
{
    if (!CanRunEndToEndOrSaySkipped()) return 0;
    const char* szSeconds = getenv("BENCH_IDLE_SECONDS");
    const int nSeconds = szSeconds != nullptr && atoi(szSeconds) > 0 ? atoi(szSeconds) : 60;
    TestWorkServer server;
    server.SetAnswerHeartbeats(true);
    InstallTree tree;
    // The defaults of a site, the heartbeat among them: both file managers run
    // (they always do), the source one bound to loopback.
    tree.Config()["server_port"] = std::to_string(server.Port());
    tree.Config()["log_level"] = "WARNING";
    tree.Config().erase("heartbeat_second");
    tree.WriteConfig();
    pid_t pid = tree.StartForeground();
    if (!server.WaitFor(Zik::reqWorkAgentHeartbeatCid, 10000)) {
        printf("the agent did not connect\n");
        return 1;
    }
    pid_t pidSleep = fork();
    if (pidSleep == 0) {
        execlp("sleep", "sleep", "100000", static_cast<char*>(nullptr));
        _exit(127);
    }
    sleep(2);  // the start's own work settles

    printf("connected idle agent over %d s, every manager running\n", nSeconds);
    Footprint agent, bare;
    Measure(pid, pidSleep, nSeconds, agent, bare);
    Line("cpu, % of a core", agent.dCpuPercent, bare.dCpuPercent, "< 0.05");
    Line("wake-ups a second, all threads", agent.dWakeups, bare.dWakeups, "<= 10");
    Line("resident, MiB", agent.end.lRssKiB / 1024.0, bare.end.lRssKiB / 1024.0, "-");
    Line("of it the binary and libraries, MiB", agent.end.lFileKiB / 1024.0, bare.end.lFileKiB / 1024.0, "-");
    Line("anonymous, MiB", agent.end.lAnonKiB / 1024.0, bare.end.lAnonKiB / 1024.0, "< 2");
    printf("%-34s %10d | idle sleep %10d |\n", "threads", agent.end.nThreads, bare.end.nThreads);

    kill(pidSleep, SIGKILL);
    waitpid(pidSleep, nullptr, 0);
    kill(pid, SIGINT);
    tree.WaitExit(pid, 10000);
    return 0;
}

// Command works through a real agent: the time from the start request to the
// unasked result for `true`, beside a bare fork, exec and waitpid of
// /bin/sh -c true taken in turn with it, so that both see the same load of a
// shared machine; then the idle footprint of the connected agent.
// BENCH_WORKS sets the number of works (200), BENCH_IDLE_SECONDS the idle
// measurement (60), BENCH_KILL_TREE the agent's task_kill_process_tree.
#include <dirent.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <sstream>
#include <vector>

#include "install_tree.h"
#include "test_work_server.h"

using namespace agent_test;

namespace {

double NowUs()
{
    return std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

int EnvInt(const char* szName, int nDefault)
{
    const char* sz = getenv(szName);
    return sz != nullptr ? atoi(sz) : nDefault;
}

void Summary(std::vector<double>& v, double& dMedian, double& dMean)
{
    std::sort(v.begin(), v.end());
    dMedian = v[v.size() / 2];
    dMean = 0;
    for (double d : v) dMean += d;
    dMean /= static_cast<double>(v.size());
}

double BareForkExec()
{
    double t0 = NowUs();
    pid_t pid = fork();
    if (pid == 0) {
        execl("/bin/sh", "/bin/sh", "-c", "true", static_cast<char*>(nullptr));
        _exit(127);
    }
    int nStatus = 0;
    waitpid(pid, &nStatus, 0);
    return NowUs() - t0;
}

// CPU ticks, context switches of all threads, resident KiB.
struct Usage {
    long long lTicks = 0;
    long long lSwitches = 0;
    long long lRssKiB = 0;
};

Usage Sample(pid_t pid)
{
    Usage u;
    std::string strStat = ReadFile("/proc/" + std::to_string(pid) + "/stat");
    size_t nPos = strStat.rfind(')');
    std::istringstream in(strStat.substr(nPos + 2));
    std::string strField;
    for (int i = 3; i <= 15 && in >> strField; ++i) {
        if (i == 14 || i == 15) u.lTicks += atoll(strField.c_str());
    }
    std::string strTasks = "/proc/" + std::to_string(pid) + "/task";
    DIR* pDir = opendir(strTasks.c_str());
    while (pDir != nullptr) {
        dirent* pEntry = readdir(pDir);
        if (pEntry == nullptr) break;
        if (pEntry->d_name[0] == '.') continue;
        std::istringstream status(ReadFile(strTasks + "/" + pEntry->d_name + "/status"));
        std::string strLine;
        while (std::getline(status, strLine)) {
            if (strLine.find("ctxt_switches:") != std::string::npos) {
                u.lSwitches += atoll(strLine.substr(strLine.find(':') + 1).c_str());
            }
        }
    }
    if (pDir != nullptr) closedir(pDir);
    std::istringstream status(ReadFile("/proc/" + std::to_string(pid) + "/status"));
    std::string strLine;
    while (std::getline(status, strLine)) {
        if (strLine.rfind("VmRSS:", 0) == 0) u.lRssKiB = atoll(strLine.substr(6).c_str());
    }
    return u;
}

} // namespace

int main()
{
    std::string strWhy;
    if (!CanRunEndToEnd(strWhy)) {
        printf("skipped: %s\n", strWhy.c_str());
        return 0;
    }
    const int nWorks = EnvInt("BENCH_WORKS", 200);
    const int nIdleSeconds = EnvInt("BENCH_IDLE_SECONDS", 60);
    TestWorkServer server;
    server.SetAnswerHeartbeats(true);
    InstallTree tree;
    tree.Config()["server_port"] = std::to_string(server.Port());
    tree.Config()["log_level"] = "WARNING";
    // BENCH_KILL_TREE=0 measures launches without a cgroup or process group per work.
    if (getenv("BENCH_KILL_TREE") != nullptr) tree.Config()["task_kill_process_tree"] = getenv("BENCH_KILL_TREE");
    tree.WriteConfig();
    pid_t pid = tree.StartForeground();
    if (!server.WaitFor(Zik::reqWorkAgentHeartbeatCid, 10000)) {
        printf("the agent did not connect\n");
        return 1;
    }

    std::vector<double> vecAgent, vecBare;
    for (int i = 1; i <= nWorks; ++i) {
        vecBare.push_back(BareForkExec());
        ReqWorkCmdCreate create;
        create.workId = i;
        create.cmd = "true";
        server.Send(create, i);
        if (!server.WaitFor(Zik::rspWorkCmdCreateCid, 5000, nullptr, static_cast<size_t>(i))) return 1;
        ReqWorkCmdSetAction start;
        start.workId = i;
        start.action = 1;
        double t0 = NowUs();
        server.Send(start, i);
        // Replies to the start and the results share nothing but their order: the
        // i-th result of the run belongs to work i, since works run one at a time.
        if (!server.WaitFor(Zik::rspWorkCmdQueryCid, 5000, nullptr, static_cast<size_t>(i))) return 1;
        vecAgent.push_back(NowUs() - t0);
        ReqWorkCmdDelete del;
        del.workId = i;
        server.Send(del, i);
        server.WaitFor(Zik::rspWorkCmdDeleteCid, 5000, nullptr, static_cast<size_t>(i));
    }
    double dAgentMedian, dAgentMean, dBareMedian, dBareMean;
    Summary(vecAgent, dAgentMedian, dAgentMean);
    Summary(vecBare, dBareMedian, dBareMean);
    printf("%-44s %10.0f us     | %-28s %10.0f us     | ratio %.2f\n", "start to result of `true`, median",
           dAgentMedian, "fork+exec+waitpid, median", dBareMedian, dAgentMedian / dBareMedian);
    printf("%-44s %10.0f us     | %-28s %10.0f us     | ratio %.2f\n", "start to result of `true`, mean", dAgentMean,
           "fork+exec+waitpid, mean", dBareMean, dAgentMean / dBareMean);
    fflush(stdout);

    sleep(2);
    Usage before = Sample(pid);
    sleep(static_cast<unsigned int>(nIdleSeconds));
    Usage after = Sample(pid);
    double dTickMs = 1000.0 / static_cast<double>(sysconf(_SC_CLK_TCK));
    printf("idle agent over %ds: cpu %.2f ms/s, wake-ups %.1f /s, resident %lld KiB\n", nIdleSeconds,
           static_cast<double>(after.lTicks - before.lTicks) * dTickMs / nIdleSeconds,
           static_cast<double>(after.lSwitches - before.lSwitches) / nIdleSeconds, after.lRssKiB);
    kill(pid, SIGINT);
    tree.WaitExit(pid, 5000);
    return 0;
}

// Command works through a real agent: the time from the start request to the
// unasked result for `true`, beside a bare fork, exec and waitpid of
// /bin/sh -c true taken in turn with it, so that both see the same load of a
// shared machine. BENCH_WORKS sets the number of works (200), BENCH_KILL_TREE
// the agent's task_kill_process_tree. The idle footprint is idle_bench's.
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
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

} // namespace

int main()
{
    if (!CanRunEndToEndOrSaySkipped()) return 0;
    const int nWorks = EnvInt("BENCH_WORKS", 200);
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
    kill(pid, SIGINT);
    tree.WaitExit(pid, 5000);
    return 0;
}

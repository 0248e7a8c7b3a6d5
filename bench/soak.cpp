// The soak: two real agents on 127.0.0.1, each with its own test work server,
// go through a day of heartbeats, 100,000 short commands and 1,000 transfers
// of small files from one to the other; the resident memory, descriptors,
// threads and zombie children of both are taken after a warm-up and at the
// end, and judged against the goals: no growth of descriptors, threads or
// zombies, and resident memory growth below 1 %.
//
// The day is an accelerated one: the agents' heartbeat_second is 1 instead of
// 50, so that a day's 1,728 heartbeats come 50 times sooner, and where the
// `faketime` program is installed the agents run under it on a clock
// SOAK_CLOCK_RATE (10) times fast, which makes that day last 1728 / 10 s.
//
// SOAK_SCALE (1) scales the three amounts (0.01 for the smoke run of CI,
// which judges the memory only from 0.1 up); SOAK_WARM_UP_SECOND sets the
// warm-up in real seconds (400 s of agent time); SOAK_PARALLEL (8) the
// commands in flight; SOAK_FILE_KIB (64) the size of the transferred file.
// Exit status 0 when every goal is met.
#include <arpa/inet.h>
#include <dirent.h>
#include <glob.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <memory>
#include <sstream>
#include <vector>

#include "install_tree.h"
#include "test_work_server.h"

using namespace agent_test;

namespace {

const int DAY_SECOND = 86400;
const int DEFAULT_HEARTBEAT_SECOND = 50;
// The warm-up runs the same mix in rounds of this size for two sweeps of the
// session's history of work ids (179 s of agent time each), whose maps hold
// every id of a sweep period and so grow with the request rate until then.
const int WARM_UP_AGENT_SECOND = 400;
const unsigned int WARM_UP_ROUND_COMMANDS = 500;
const unsigned int WARM_UP_ROUND_TRANSFERS = 5;
// Longer than a sweep of the history of work ids (179 s), after which the
// agent gives the freed pages back, and than the data buffers keep idle spare
// blocks (10 s): both samples see the same settled agent. A run whose memory
// is not judged waits for the spare blocks only.
const int SETTLE_AGENT_SECOND = 200;
const int SETTLE_SPARE_AGENT_SECOND = 12;
// A reply may wait for the destination's repeat of a get (30 s of agent time)
// and its second (95 s): the wait covers both on the agents' clock, plus load.
const int REPLY_AGENT_SECOND = 130;
const int REPLY_SLACK_MS = 30000;
int g_nReplyTimeoutMs = REPLY_AGENT_SECOND * 1000 + REPLY_SLACK_MS;
// Transfers whose result took longer than the repeat time of a get (30 s of
// agent time): a sign of a lost get, or of a machine too loaded for the clock.
const int REGET_AGENT_SECOND = 30;
int g_nRegetMs = REGET_AGENT_SECOND * 1000;
unsigned int g_nSlowTransfers = 0;
// Work ids of the two sides of the transfers, above those of the commands.
const unsigned int SRC_WORK_BASE = 3000000;
const unsigned int DST_WORK_BASE = 4000000;

double EnvDouble(const char* szName, double dDefault)
{
    const char* sz = getenv(szName);
    return sz != nullptr && *sz != '\0' ? atof(sz) : dDefault;
}

// The library of the `faketime` package, preloaded into the agents through
// env so that the pid the soak samples is the agent's own; empty if missing.
std::string FaketimeLibrary()
{
    glob_t found{};
    std::string strPath;
    if (glob("/usr/lib/*/faketime/libfaketimeMT.so.1", 0, nullptr, &found) == 0 && found.gl_pathc > 0)
        strPath = found.gl_pathv[0];
    globfree(&found);
    return strPath;
}

// One agent in a tree of its own, with its own test work server, and what the
// driver has seen of its replies: (choice id, work id) to ret.
struct Agent {
    const char* szName = "";
    InstallTree tree;
    std::unique_ptr<TestWorkServer> pServer;
    pid_t pid = -1;
    long lHeartbeats = 0;
    std::map<std::pair<int, unsigned int>, int> mapReplies;
    std::map<unsigned int, unsigned short> mapOfferedPort;

    bool Start(const std::map<std::string, std::string>& mapExtra, const std::vector<std::string>& vecPrefix)
    {
        pServer = std::make_unique<TestWorkServer>();
        pServer->SetAnswerHeartbeats(true);
        tree.Config()["server_port"] = std::to_string(pServer->Port());
        tree.Config()["log_level"] = "WARNING";
        tree.Config()["heartbeat_second"] = "1";
        for (const auto& kv : mapExtra) tree.Config()[kv.first] = kv.second;
        tree.WriteConfig();
        tree.SetLaunchPrefix(vecPrefix);
        pid = tree.StartForeground();
        return pServer->WaitFor(Zik::reqWorkAgentHeartbeatCid, 10000);
    }

    // Decodes a reply of the kind; its ret is kept when the filter takes it.
    template <class T>
    bool Note(const TestWorkServer::Received& r, bool (*accept)(const T&) = nullptr)
    {
        T m;
        if (r.nChoiceId != ZikChoiceOf<T>::value || !DecodeBody(r, m)) return false;
        if (accept == nullptr || accept(m)) {
            mapReplies[{r.nChoiceId, static_cast<unsigned int>(m.workId.value)}] = static_cast<int>(m.ret.value);
        }
        return true;
    }
    template <class T>
    static bool Finished(const T& m) { return m.status.value == 2; }

    void Poll()
    {
        for (const TestWorkServer::Received& r : pServer->Drain()) {
            if (r.nChoiceId == Zik::reqWorkAgentHeartbeatCid) {
                ++lHeartbeats;
                continue;
            }
            RspWorkFileSrcCreate offered;
            if (r.nChoiceId == Zik::rspWorkFileSrcCreateCid && DecodeBody(r, offered)) {
                mapOfferedPort[static_cast<unsigned int>(offered.workId.value)] =
                    static_cast<unsigned short>(offered.srcServerPort.value);
            }
            Note<RspWorkCmdCreate>(r) || Note<RspWorkCmdSetAction>(r) || Note<RspWorkCmdQuery>(r, Finished<RspWorkCmdQuery>) ||
                Note<RspWorkCmdDelete>(r) || Note<RspWorkFileSrcCreate>(r) || Note<RspWorkFileSrcDelete>(r) ||
                Note<RspWorkFileDstCreate>(r) || Note<RspWorkFileDstSetAction>(r) ||
                Note<RspWorkFileDstQuery>(r, Finished<RspWorkFileDstQuery>) || Note<RspWorkFileDstDelete>(r);
        }
    }

    // The ret of the reply of the kind for the work, -1 when none came in time.
    int Await(int nChoiceId, unsigned int nWorkId)
    {
        int64_t lEnd = SteadyMs() + g_nReplyTimeoutMs;
        while (true) {
            Poll();
            auto it = mapReplies.find({nChoiceId, nWorkId});
            if (it != mapReplies.end()) {
                int ret = it->second;
                mapReplies.erase(it);
                return ret;
            }
            if (SteadyMs() > lEnd) return -1;
            pServer->WaitFor(nChoiceId, 20);
        }
    }

    bool Expect(int nChoiceId, unsigned int nWorkId)
    {
        int ret = Await(nChoiceId, nWorkId);
        if (ret != 0) fprintf(stderr, "%s: work %u: reply %d has ret %d\n", szName, nWorkId, nChoiceId, ret);
        return ret == 0;
    }

    void Stop()
    {
        if (pid > 0) {
            kill(pid, SIGINT);
            tree.WaitExit(pid, 20000);
        }
        pid = -1;
    }
};

// ---- the work ------------------------------------------------------------------

// Creates and starts the works [nFirst, nLast] at once, waits for their results, deletes them.
bool RunCommands(Agent& a, unsigned int nFirst, unsigned int nLast)
{
    for (unsigned int nId = nFirst; nId <= nLast; ++nId) {
        ReqWorkCmdCreate create;
        create.workId = static_cast<int>(nId);
        create.cmd = "true";
        a.pServer->Send(create, 1);
        ReqWorkCmdSetAction start;
        start.workId = static_cast<int>(nId);
        start.action = 1;
        a.pServer->Send(start, 2);
    }
    bool bOk = true;
    for (unsigned int nId = nFirst; nId <= nLast; ++nId) {
        bOk = a.Expect(Zik::rspWorkCmdCreateCid, nId) && a.Expect(Zik::rspWorkCmdSetActionCid, nId) &&
              a.Expect(Zik::rspWorkCmdQueryCid, nId) && bOk;
        ReqWorkCmdDelete del;
        del.workId = static_cast<int>(nId);
        a.pServer->Send(del, 3);
    }
    for (unsigned int nId = nFirst; nId <= nLast; ++nId) bOk = a.Expect(Zik::rspWorkCmdDeleteCid, nId) && bOk;
    return bOk;
}

unsigned int Loopback()
{
    unsigned int nIp = 0;
    inet_pton(AF_INET, "127.0.0.1", &nIp);
    return nIp;
}

// One file from the source agent to the destination agent, then both works deleted.
bool RunTransfer(Agent& src, Agent& dst, unsigned int nNumber, const std::string& strSrc, const std::string& strDst)
{
    unsigned int nSrcId = SRC_WORK_BASE + nNumber;
    unsigned int nDstId = DST_WORK_BASE + nNumber;
    ReqWorkFileSrcCreate offer;
    offer.workId = static_cast<int>(nSrcId);
    offer.srcFile.Set(strSrc.data(), strSrc.size());
    src.pServer->Send(offer, 1);
    if (!src.Expect(Zik::rspWorkFileSrcCreateCid, nSrcId)) return false;
    ReqWorkFileDstCreate create;
    create.workId = static_cast<int>(nDstId);
    create.srcFile.Set(strSrc.data(), strSrc.size());
    create.dstPath.Set(strDst.data(), strDst.size());
    create.srcServerIp = static_cast<int>(Loopback());
    create.srcServerPort = src.mapOfferedPort[nSrcId];
    create.srcWorkId = static_cast<int>(nSrcId);
    src.mapOfferedPort.erase(nSrcId);
    dst.pServer->Send(create, 2);
    ReqWorkFileDstSetAction action;
    action.workId = static_cast<int>(nDstId);
    int64_t lStart = SteadyMs();
    dst.pServer->Send(action, 3);
    bool bOk = dst.Expect(Zik::rspWorkFileDstCreateCid, nDstId) &&
               dst.Expect(Zik::rspWorkFileDstSetActionCid, nDstId) &&
               dst.Expect(Zik::rspWorkFileDstQueryCid, nDstId);
    if (SteadyMs() - lStart >= g_nRegetMs) ++g_nSlowTransfers;
    DeleteTransferWorks(*dst.pServer, nDstId, *src.pServer, nSrcId);
    bOk = dst.Expect(Zik::rspWorkFileDstDeleteCid, nDstId) && src.Expect(Zik::rspWorkFileSrcDeleteCid, nSrcId) && bOk;
    return bOk;
}

// ---- the footprint ---------------------------------------------------------------

struct Footprint {
    long lHeapKiB = -1;  // the allocator's bytes in use, -1 without gdb
    long lTrimmedRssKiB = -1;  // VmRSS once the allocator gave its free pages back
    long lRssKiB = 0;
    long lRssAnonKiB = 0;
    long lFds = 0;
    long lThreads = 0;
    long lZombies = 0;
};

long StatusField(const std::string& strStatus, const char* szKey)
{
    size_t nPos = strStatus.find(std::string("\n") + szKey + ":");
    return nPos == std::string::npos ? -1 : atol(strStatus.c_str() + nPos + strlen(szKey) + 2);
}

long CountEntries(const std::string& strDir)
{
    long n = 0;
    DIR* pDir = opendir(strDir.c_str());
    if (pDir == nullptr) return -1;
    while (dirent* pEntry = readdir(pDir)) n += pEntry->d_name[0] != '.';
    closedir(pDir);
    return n;
}

// Children of the process that have ended and were not reaped.
long CountZombieChildren(pid_t pid)
{
    long n = 0;
    DIR* pDir = opendir("/proc");
    while (dirent* pEntry = pDir != nullptr ? readdir(pDir) : nullptr) {
        if (pEntry->d_name[0] < '0' || pEntry->d_name[0] > '9') continue;
        std::string strStat = ReadFile(std::string("/proc/") + pEntry->d_name + "/stat");
        size_t nPos = strStat.rfind(')');
        if (nPos == std::string::npos) continue;
        char cState = 0;
        long lParent = 0;
        if (sscanf(strStat.c_str() + nPos + 1, " %c %ld", &cState, &lParent) == 2 && lParent == pid && cState == 'Z')
            ++n;
    }
    if (pDir != nullptr) closedir(pDir);
    return n;
}

// The heap in use, which tells a leak (it grows) from the allocator's
// fragmentation and high-water mark (the resident set grows, it does not):
// gdb makes the agent print its malloc_stats to its standard output, whose
// last total is read back; at the end, after the judged sample, it also
// trims its heap, which shows how much of the resident set was free heap.
// -1 where gdb is missing or failed.
long HeapInUseKiB(pid_t pid, const std::string& strStdout, bool bTrim)
{
    std::string strCommand = "timeout 60 gdb -p " + std::to_string(pid) + " -batch -ex 'call (void)malloc_stats()'" +
                             (bTrim ? " -ex 'call (int)malloc_trim(0)'" : "") + " >/dev/null 2>&1";
    if (system(strCommand.c_str()) != 0) return -1;
    std::string strOut = ReadFile(strStdout);
    size_t nPos = strOut.rfind("Total (incl. mmap):");
    if (nPos == std::string::npos) return -1;
    nPos = strOut.find("in use bytes", nPos);
    nPos = nPos == std::string::npos ? nPos : strOut.find('=', nPos);
    return nPos == std::string::npos ? -1 : atol(strOut.c_str() + nPos + 1) / 1024;
}

Footprint Sample(pid_t pid)
{
    std::string strProc = "/proc/" + std::to_string(pid);
    std::string strStatus = "\n" + ReadFile(strProc + "/status");
    Footprint f;
    f.lRssKiB = StatusField(strStatus, "VmRSS");
    f.lRssAnonKiB = StatusField(strStatus, "RssAnon");
    f.lThreads = StatusField(strStatus, "Threads");
    f.lFds = CountEntries(strProc + "/fd");
    f.lZombies = CountZombieChildren(pid);
    return f;
}

// Below this scale a run is too short for a 1 % bound on memory to mean
// anything beyond the allocator's noise; its growth is printed, not judged.
const double MEMORY_JUDGED_SCALE = 0.1;
bool g_bJudgeMemory = true;

// One line of the table; true when the goal is met.
bool Judge(const char* szAgent, const char* szWhat, long lStart, long lEnd, bool bPercent)
{
    double dGrowth = lStart > 0 ? 100.0 * static_cast<double>(lEnd - lStart) / static_cast<double>(lStart) : 0;
    bool bPass = bPercent ? dGrowth < 1.0 || !g_bJudgeMemory : lEnd <= lStart && lEnd >= 0;
    char szGrowth[32];
    if (bPercent) {
        snprintf(szGrowth, sizeof(szGrowth), "%+.2f %%", dGrowth);
    } else {
        snprintf(szGrowth, sizeof(szGrowth), "%+ld", lEnd - lStart);
    }
    printf("%-12s %-16s %10ld %10ld %10s   %-10s %s\n", szAgent, szWhat, lStart, lEnd, szGrowth,
           bPercent ? "< 1 %" : "none", bPercent && !g_bJudgeMemory ? "(not judged at this scale)" : bPass ? "PASS" : "FAIL");
    return bPass;
}

bool JudgeAgent(const char* szAgent, const Footprint& s, const Footprint& e)
{
    bool bPass = Judge(szAgent, "VmRSS KiB", s.lRssKiB, e.lRssKiB, true);
    // Anonymous memory and the heap in use are printed beside the goal, which is the whole resident set.
    printf("%-12s %-16s %10ld %10ld %+10ld\n", szAgent, "RssAnon KiB", s.lRssAnonKiB, e.lRssAnonKiB,
           e.lRssAnonKiB - s.lRssAnonKiB);
    if (s.lHeapKiB >= 0 && e.lHeapKiB >= 0) {
        printf("%-12s %-16s %10ld %10ld %+10ld\n", szAgent, "heap in use KiB", s.lHeapKiB, e.lHeapKiB,
               e.lHeapKiB - s.lHeapKiB);
        printf("%-12s %-16s %10s %10ld %10s   (at the end, after malloc_trim)\n", szAgent, "VmRSS trimmed", "",
               e.lTrimmedRssKiB, "");
    }
    bPass = Judge(szAgent, "descriptors", s.lFds, e.lFds, false) && bPass;
    bPass = Judge(szAgent, "threads", s.lThreads, e.lThreads, false) && bPass;
    bPass = Judge(szAgent, "zombie children", s.lZombies, e.lZombies, false) && bPass;
    return bPass;
}

// ---- the run ---------------------------------------------------------------------

struct Plan {
    unsigned int nCommands = 0;
    unsigned int nTransfers = 0;
    long lHeartbeats = 0;
    unsigned int nParallel = 8;
};

// Commands in batches, with a transfer after every share of them, from work id nFirstId.
bool RunWork(Agent& cmd, Agent& src, unsigned int nFirstId, unsigned int nCommands, unsigned int nTransfers,
             unsigned int nFirstTransfer, unsigned int nParallel, const TempDir& files, bool bProgress)
{
    unsigned int nPerTransfer = nTransfers > 0 ? std::max(1u, nCommands / nTransfers) : nCommands + 1;
    unsigned int nTransfer = 0;
    unsigned int nNextReport = nCommands / 10;
    for (unsigned int nDone = 0; nDone < nCommands || nTransfer < nTransfers;) {
        if (nDone < nCommands) {
            unsigned int nBatch = std::min(nParallel, nCommands - nDone);
            if (!RunCommands(cmd, nFirstId + nDone, nFirstId + nDone + nBatch - 1)) return false;
            nDone += nBatch;
        }
        while (nTransfer < nTransfers && (nDone >= nCommands || nDone >= (nTransfer + 1) * nPerTransfer)) {
            unsigned int nNumber = nFirstTransfer + nTransfer;
            if (!RunTransfer(src, cmd, nNumber, files.Path("src"), files.Path("dst" + std::to_string(nNumber % 4))))
                return false;
            ++nTransfer;
        }
        if (bProgress && nDone >= nNextReport && nNextReport > 0) {
            printf("  %u commands, %u transfers, %ld heartbeats; RssAnon KiB: destination %ld, source %ld\n", nDone,
                   nTransfer, cmd.lHeartbeats, Sample(cmd.pid).lRssAnonKiB, Sample(src.pid).lRssAnonKiB);
            fflush(stdout);
            nNextReport += nCommands / 10;
        }
    }
    return true;
}

} // namespace

int main()
{
    if (!CanRunEndToEndOrSaySkipped()) return 0;
    double dScale = EnvDouble("SOAK_SCALE", 1.0);
    double dRate = EnvDouble("SOAK_CLOCK_RATE", 10.0);
    Plan plan;
    plan.nCommands = static_cast<unsigned int>(100000 * dScale);
    plan.nTransfers = static_cast<unsigned int>(1000 * dScale);
    plan.lHeartbeats = static_cast<long>(DAY_SECOND / DEFAULT_HEARTBEAT_SECOND * dScale);
    plan.nParallel = static_cast<unsigned int>(std::max(1.0, EnvDouble("SOAK_PARALLEL", 8)));
    g_bJudgeMemory = dScale >= MEMORY_JUDGED_SCALE;
    std::vector<std::string> vecPrefix;
    std::string strFaketime = FaketimeLibrary();
    if (dRate > 1 && !strFaketime.empty()) {
        g_nReplyTimeoutMs = static_cast<int>(REPLY_AGENT_SECOND * 1000 / dRate) + REPLY_SLACK_MS;
        g_nRegetMs = static_cast<int>(REGET_AGENT_SECOND * 1000 / dRate);
        char szRate[32];
        snprintf(szRate, sizeof(szRate), "+0 x%g", dRate);
        vecPrefix = {"env", "LD_PRELOAD=" + strFaketime, std::string("FAKETIME=") + szRate};
    } else {
        dRate = 1;
    }

    TempDir files("agent_soak_");
    WriteFile(files.Path("src"), std::string(static_cast<size_t>(EnvDouble("SOAK_FILE_KIB", 64) * 1024), 's'));
    Agent cmd, src;
    cmd.szName = "destination";
    src.szName = "source";
    std::map<std::string, std::string> mapCmd = {
        {"prometheus_textfile_path", cmd.tree.Path("log/agent.prom")},
    };
    if (!cmd.Start(mapCmd, vecPrefix) || !src.Start({}, vecPrefix)) {
        printf("an agent did not connect\n");
        return 1;
    }
    printf("soak: %u commands (%u at once), %u transfers of %s KiB, %ld heartbeats (a day at %d s), clock x%g\n",
           plan.nCommands, plan.nParallel, plan.nTransfers, getenv("SOAK_FILE_KIB") ? getenv("SOAK_FILE_KIB") : "64",
           plan.lHeartbeats, DEFAULT_HEARTBEAT_SECOND, dRate);
    fflush(stdout);

    // Warm-up, outside the counts, with one settle half-way: the first blocks
    // allocated after the spare pool gave its blocks back come from the heap
    // for good, and that step belongs before the first sample.
    const int nSettleMs =
        static_cast<int>((g_bJudgeMemory ? SETTLE_AGENT_SECOND : SETTLE_SPARE_AGENT_SECOND) * 1000 / dRate) + 2000;
    const int64_t lWarmUpMs = static_cast<int64_t>(EnvDouble("SOAK_WARM_UP_SECOND", WARM_UP_AGENT_SECOND / dRate) * 1000);
    unsigned int nNextId = 1, nNextTransfer = 0;
    bool bSettled = false;
    for (int64_t lWarmUpEnd = SteadyMs() + lWarmUpMs; SteadyMs() < lWarmUpEnd || nNextId == 1;) {
        if (!RunWork(cmd, src, nNextId, WARM_UP_ROUND_COMMANDS, WARM_UP_ROUND_TRANSFERS, nNextTransfer,
                     plan.nParallel, files, false)) {
            printf("FAIL: a work of the warm-up failed or its reply did not come\n");
            return 1;
        }
        nNextId += WARM_UP_ROUND_COMMANDS;
        nNextTransfer += WARM_UP_ROUND_TRANSFERS;
        if (!bSettled && SteadyMs() > lWarmUpEnd - lWarmUpMs / 2) {
            SleepMs(nSettleMs);
            bSettled = true;
        }
    }
    SleepMs(nSettleMs);
    cmd.Poll();
    // The heap first: gdb's visit dirties a few pages of the agent's own,
    // which belong in both samples.
    long lCmdHeapKiB = HeapInUseKiB(cmd.pid, cmd.tree.StdoutPath(), false);
    long lSrcHeapKiB = HeapInUseKiB(src.pid, src.tree.StdoutPath(), false);
    Footprint cmdStart = Sample(cmd.pid), srcStart = Sample(src.pid);
    cmdStart.lHeapKiB = lCmdHeapKiB;
    srcStart.lHeapKiB = lSrcHeapKiB;
    long lHeartbeatsStart = cmd.lHeartbeats;

    int64_t lBegin = SteadyMs();
    if (!RunWork(cmd, src, nNextId, plan.nCommands, plan.nTransfers, nNextTransfer, plan.nParallel, files, true)) {
        printf("FAIL: a work failed or its reply did not come\n");
        return 1;
    }
    double dWorkSecond = static_cast<double>(SteadyMs() - lBegin) / 1000.0;
    // The rest of the day, if the work took less than it.
    int64_t lDeadline = SteadyMs() + static_cast<int64_t>(plan.lHeartbeats * 2000 / dRate) + 60000;
    while (cmd.lHeartbeats - lHeartbeatsStart < plan.lHeartbeats && SteadyMs() < lDeadline) {
        cmd.Poll();
        src.Poll();
        SleepMs(100);
    }
    long lHeartbeats = cmd.lHeartbeats - lHeartbeatsStart;
    SleepMs(nSettleMs);
    Footprint cmdEnd = Sample(cmd.pid), srcEnd = Sample(src.pid);
    cmdEnd.lHeapKiB = HeapInUseKiB(cmd.pid, cmd.tree.StdoutPath(), true);
    cmdEnd.lTrimmedRssKiB = Sample(cmd.pid).lRssKiB;
    srcEnd.lHeapKiB = HeapInUseKiB(src.pid, src.tree.StdoutPath(), true);
    srcEnd.lTrimmedRssKiB = Sample(src.pid).lRssKiB;
    double dAllSecond = static_cast<double>(SteadyMs() - lBegin) / 1000.0;

    printf("warm-up: %u commands, %u transfers; transfers slower than the repeat time of a get: %u\n", nNextId - 1,
           nNextTransfer, g_nSlowTransfers);
    printf("work: %.0f s (%.0f commands/s), whole run %.0f s, heartbeats %ld of %ld\n", dWorkSecond,
           plan.nCommands / dWorkSecond, dAllSecond, lHeartbeats, plan.lHeartbeats);
    printf("%-12s %-16s %10s %10s %10s   %-10s %s\n", "agent", "what", "start", "end", "growth", "goal", "result");
    bool bPass = JudgeAgent("destination", cmdStart, cmdEnd);
    bPass = JudgeAgent("source", srcStart, srcEnd) && bPass;
    bool bHeartbeats = lHeartbeats >= plan.lHeartbeats;
    printf("%-12s %-16s %10ld %10ld %10s   %-10s %s\n", "destination", "heartbeats", 0L, lHeartbeats, "", "a day",
           bHeartbeats ? "PASS" : "FAIL");
    // The destination agent's own counters, as its metrics textfile last showed them.
    std::istringstream prom(ReadFile(cmd.tree.Path("log/agent.prom")));
    for (std::string strLine; std::getline(prom, strLine);)
        if (!strLine.empty() && strLine[0] != '#') printf("  %s\n", strLine.c_str());
    cmd.Stop();
    src.Stop();
    bPass = bPass && bHeartbeats;
    printf("%s\n", bPass ? "PASS" : "FAIL");
    return bPass ? 0 : 1;
}

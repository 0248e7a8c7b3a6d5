// A file moved between two real agents on 127.0.0.1, from /dev/shm to
// /dev/shm, with block digests on and off, beside the bare machine doing the
// same work in the same run: md5sum of the file, two md5sum passes at once
// (the two digests of a transfer, one per core), a plain socket copy, and
// rsync in daemon mode where it is installed. The rounds interleave every
// kind of work, so that a change of load on a shared machine falls on all of
// them alike; it prints the median MB/s of each, the ratios, and the
// processor time the two agents spent per GiB.
// BENCH_FILE_MIB sets the size (1024), BENCH_RUNS the rounds (3, median taken).
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <thread>
#include <vector>

#include "bench_util.h"
#include "file_peer.h"
#include "install_tree.h"
#include "test_work_server.h"

using namespace agent_test;

namespace {

int EnvInt(const char* szName, int nDefault)
{
    const char* sz = getenv(szName);
    return sz != nullptr ? atoi(sz) : nDefault;
}

unsigned int Loopback()
{
    unsigned int nIp = 0;
    inet_pton(AF_INET, "127.0.0.1", &nIp);
    return nIp;
}

// One agent in a tree of its own with its own test work server.
struct Agent {
    InstallTree tree;
    std::unique_ptr<TestWorkServer> pServer;
    pid_t pid = -1;

    void Start(const std::map<std::string, std::string>& mapExtra)
    {
        pServer = std::make_unique<TestWorkServer>();
        pServer->SetAnswerHeartbeats(true);
        tree.Config()["server_port"] = std::to_string(pServer->Port());
        tree.Config()["log_level"] = "WARNING";
        for (const auto& kv : mapExtra) tree.Config()[kv.first] = kv.second;
        tree.WriteConfig();
        pid = tree.StartForeground();
        pServer->WaitFor(Zik::reqWorkAgentHeartbeatCid, 5000);
    }
    void Stop()
    {
        if (pid > 0) {
            kill(pid, SIGINT);
            tree.WaitExit(pid, 10000);
        }
        pid = -1;
    }
};

template <class T>
bool WaitMessage(TestWorkServer& server, size_t nFrom, unsigned int nWorkId, T& out, int nTimeoutMs,
                 bool (*accept)(const T&))
{
    return WaitUntil(
        [&] {
            std::vector<TestWorkServer::Received> packets = server.Packets();
            for (size_t i = nFrom; i < packets.size(); ++i) {
                if (DecodeBody(packets[i], out) && static_cast<unsigned int>(out.workId.value) == nWorkId &&
                    accept(out))
                    return true;
            }
            return false;
        },
        nTimeoutMs);
}

// One transfer through the two agents; seconds, or -1.
double Transfer(Agent& src, Agent& dst, unsigned int nWorkId, const std::string& strSrc, const std::string& strDst)
{
    unlink(strDst.c_str());
    size_t nMark = src.pServer->Packets().size();
    ReqWorkFileSrcCreate offer;
    offer.workId = static_cast<int>(nWorkId);
    offer.srcFile.Set(strSrc.data(), strSrc.size());
    src.pServer->Send(offer, 1);
    RspWorkFileSrcCreate offered;
    if (!WaitMessage<RspWorkFileSrcCreate>(*src.pServer, nMark, nWorkId, offered, 10000,
                                           [](const RspWorkFileSrcCreate&) { return true; }) ||
        offered.ret.value != 0)
        return -1;
    auto start = std::chrono::steady_clock::now();
    nMark = dst.pServer->Packets().size();
    ReqWorkFileDstCreate create;
    create.workId = static_cast<int>(nWorkId);
    create.srcFile.Set(strSrc.data(), strSrc.size());
    create.dstPath.Set(strDst.data(), strDst.size());
    create.srcServerIp = static_cast<int>(Loopback());
    create.srcServerPort = offered.srcServerPort;
    create.srcWorkId = static_cast<int>(nWorkId);
    dst.pServer->Send(create, 2);
    RspWorkFileDstCreate created;
    if (!WaitMessage<RspWorkFileDstCreate>(*dst.pServer, nMark, nWorkId, created, 10000,
                                           [](const RspWorkFileDstCreate&) { return true; }) ||
        created.ret.value != 0)
        return -1;
    ReqWorkFileDstSetAction action;
    action.workId = static_cast<int>(nWorkId);
    dst.pServer->Send(action, 3);
    RspWorkFileDstQuery result;
    if (!WaitMessage<RspWorkFileDstQuery>(*dst.pServer, nMark, nWorkId, result, 600000,
                                          [](const RspWorkFileDstQuery& m) { return m.status.value == 2; }) ||
        result.ret.value != 0)
        return -1;
    std::chrono::duration<double> d = std::chrono::steady_clock::now() - start;
    DeleteTransferWorks(*dst.pServer, nWorkId, *src.pServer, nWorkId);
    return d.count();
}

// A plain copy of the file through a loopback TCP connection into another file.
void SocketCopy(const std::string& strSrc, const std::string& strDst)
{
    int fdListen = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = Loopback();
    socklen_t nLen = sizeof(addr);
    if (bind(fdListen, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 || listen(fdListen, 1) != 0 ||
        getsockname(fdListen, reinterpret_cast<sockaddr*>(&addr), &nLen) != 0)
        return;
    std::thread sender([&] {
        int fd = socket(AF_INET, SOCK_STREAM, 0);
        if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) return;
        int fdIn = open(strSrc.c_str(), O_RDONLY);
        std::vector<char> buf(512 * 1024);
        ssize_t n;
        while ((n = read(fdIn, buf.data(), buf.size())) > 0)
            for (ssize_t nDone = 0; nDone < n;) {
                ssize_t w = write(fd, buf.data() + nDone, static_cast<size_t>(n - nDone));
                if (w <= 0) break;
                nDone += w;
            }
        close(fdIn);
        close(fd);
    });
    int fd = accept(fdListen, nullptr, nullptr);
    int fdOut = open(strDst.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    std::vector<char> buf(512 * 1024);
    ssize_t n;
    while ((n = read(fd, buf.data(), buf.size())) > 0)
        if (write(fdOut, buf.data(), static_cast<size_t>(n)) != n) break;
    close(fdOut);
    close(fd);
    close(fdListen);
    sender.join();
}

bool Have(const char* szProgram)
{
    return system((std::string("command -v ") + szProgram + " >/dev/null 2>&1").c_str()) == 0;
}

void Shell(const std::string& strCommand)
{
    if (system(strCommand.c_str()) != 0) {
    }
}

double Seconds(const std::function<void()>& work) { return bench::BestSeconds(1, work); }

// Processor seconds of the children waited for so far.
double ChildrenCpuSeconds()
{
    struct rusage ru;
    getrusage(RUSAGE_CHILDREN, &ru);
    return static_cast<double>(ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) +
           static_cast<double>(ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1e6;
}

double Median(std::vector<double> vec)
{
    if (vec.empty()) return 0;
    std::sort(vec.begin(), vec.end());
    size_t n = vec.size();
    return n % 2 == 1 ? vec[n / 2] : (vec[n / 2 - 1] + vec[n / 2]) / 2;
}

// User and system time of a process and all its threads, in seconds.
double CpuSeconds(pid_t pid)
{
    FILE* fp = fopen(("/proc/" + std::to_string(pid) + "/stat").c_str(), "r");
    if (fp == nullptr) return 0;
    char szLine[2048] = {};
    size_t n = fread(szLine, 1, sizeof(szLine) - 1, fp);
    fclose(fp);
    szLine[n] = 0;
    const char* p = strrchr(szLine, ')');  // the name may hold spaces
    unsigned long lUser = 0, lSystem = 0;
    if (p == nullptr || sscanf(p + 2, "%*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %lu %lu", &lUser, &lSystem) != 2)
        return 0;
    return static_cast<double>(lUser + lSystem) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

// The figures of one kind of work over the rounds.
struct Series {
    std::vector<double> vecSeconds;
    double MBs(double dMB) const { return vecSeconds.empty() ? 0 : dMB / Median(vecSeconds); }
};

// A pair of agents, the source and the destination, with digests on or off.
struct AgentPair {
    Agent src, dst;
    std::vector<double> vecCpuPerGiB;

    void Start(bool bDigests)
    {
        std::string strMd5 = bDigests ? "1" : "0";
        src.Start({{"file_trans_svr_begin_bind_port", std::to_string(FreePortPair())},
                   {"file_trans_svr_enable_md5_calc", strMd5}});
        dst.Start({{"agent_id", "127.0.0.2"}, {"file_trans_client_enable_md5_check", strMd5}});
    }
    // One transfer; its seconds, or -1.
    double Run(unsigned int nWorkId, const std::string& strSrc, const std::string& strDst, double dGiB)
    {
        double dCpu = CpuSeconds(src.pid) + CpuSeconds(dst.pid);
        double d = Transfer(src, dst, nWorkId, strSrc, strDst);
        if (d > 0) vecCpuPerGiB.push_back((CpuSeconds(src.pid) + CpuSeconds(dst.pid) - dCpu) / dGiB);
        return d;
    }
};

} // namespace

int main()
{
    signal(SIGPIPE, SIG_IGN);
    const int nMiB = EnvInt("BENCH_FILE_MIB", 1024);
    const int nRuns = std::max(1, EnvInt("BENCH_RUNS", 3));
    const double dBytes = static_cast<double>(nMiB) * 1048576.0;
    const double dMB = dBytes / 1e6;
    const double dGiB = dBytes / 1073741824.0;
    char szDir[] = "/dev/shm/file_transfer_bench_XXXXXX";
    if (mkdtemp(szDir) == nullptr) return 1;
    std::string strDir = szDir;
    std::string strSrc = strDir + "/src", strDst = strDir + "/dst";
    Shell("head -c " + std::to_string(nMiB) + "M /dev/urandom > " + strSrc);
    unsigned int nCores = std::max(1u, std::thread::hardware_concurrency());

    bool bRsync = false;
    unsigned short nRsyncPort = 0;
    if (Have("rsync")) {
        std::string strConf = strDir + "/rsyncd.conf";
        nRsyncPort = FreePortPair();
        FILE* fp = fopen(strConf.c_str(), "w");
        fprintf(fp, "use chroot = no\nuid = root\ngid = root\npid file = %s/rsyncd.pid\n[shm]\npath = %s\nread only = no\n",
                strDir.c_str(), strDir.c_str());
        fclose(fp);
        bRsync = system(("rsync --daemon --address=127.0.0.1 --port=" + std::to_string(nRsyncPort) + " --config=" +
                         strConf).c_str()) == 0;
        if (bRsync) usleep(300000);
    }
    AgentPair on, off;
    on.Start(true);
    off.Start(false);

    // The two passes of a transfer with digests: one per core where there
    // are two, one after the other on a single core.
    std::string strMd5 = "md5sum " + strSrc + " > /dev/null";
    std::string strTwoMd5 = nCores >= 2 ? "(" + strMd5 + " & " + strMd5 + "; wait)" : "(" + strMd5 + "; " + strMd5 + ")";
    Series md5, twoMd5, socketCopy, rsync, agentsOn, agentsOff;
    std::vector<double> vecMd5CpuPerGiB;
    for (int i = 0; i < nRuns; ++i) {
        double dCpu = ChildrenCpuSeconds();
        md5.vecSeconds.push_back(Seconds([&] { Shell(strMd5); }));
        vecMd5CpuPerGiB.push_back((ChildrenCpuSeconds() - dCpu) / dGiB);
        twoMd5.vecSeconds.push_back(Seconds([&] { Shell(strTwoMd5); }));
        socketCopy.vecSeconds.push_back(Seconds([&] { SocketCopy(strSrc, strDst); }));
        if (bRsync) {
            unlink((strDir + "/rsync_dst").c_str());
            rsync.vecSeconds.push_back(Seconds([&] {
                Shell("rsync -q --whole-file " + strSrc + " rsync://127.0.0.1:" + std::to_string(nRsyncPort) +
                      "/shm/rsync_dst");
            }));
        }
        for (AgentPair* pPair : {&on, &off}) {
            double d = pPair->Run(static_cast<unsigned int>(100 + i), strSrc, strDst, dGiB);
            if (d < 0) {
                fprintf(stderr, "file_transfer_bench: a transfer failed (digests %s)\n", pPair == &on ? "on" : "off");
                continue;
            }
            (pPair == &on ? agentsOn : agentsOff).vecSeconds.push_back(d);
        }
    }
    on.src.Stop();
    on.dst.Stop();
    off.src.Stop();
    off.dst.Stop();
    if (bRsync) Shell("kill $(cat " + strDir + "/rsyncd.pid)");

    printf("%d MiB from /dev/shm to /dev/shm on 127.0.0.1, %u cores, median of %d rounds\n", nMiB, nCores, nRuns);
    bench::Report("two agents, digests on", "MB/s", agentsOn.MBs(dMB), "two MD5 passes at once (bound)",
                  twoMd5.MBs(dMB));
    bench::Report("two agents, digests off", "MB/s", agentsOff.MBs(dMB), "plain socket copy", socketCopy.MBs(dMB));
    if (bRsync) {
        bench::Report("two agents, digests off", "MB/s", agentsOff.MBs(dMB), "rsync daemon, whole file",
                      rsync.MBs(dMB));
    } else {
        printf("rsync: not installed, no daemon-mode figure\n");
    }
    printf("scp: not measured (it needs an ssh server with its own keys and logins)\n");
    // Processor time does not depend on what else the machine runs: with
    // every core busy the transfer could reach this share of the bound.
    double dMd5Cpu = Median(vecMd5CpuPerGiB), dOnCpu = Median(on.vecCpuPerGiB);
    printf("md5sum of the file, one pass: %.1f MB/s, %.2f s of processor per GiB\n", md5.MBs(dMB), dMd5Cpu);
    printf("processor time of the two agents per GiB: digests on %.2f s, digests off %.2f s\n", dOnCpu,
           Median(off.vecCpuPerGiB));
    printf("two MD5 passes' processor time over the agents' with digests on: %.2f\n",
           dOnCpu > 0 ? 2 * dMd5Cpu / dOnCpu : 0.0);
    Shell("rm -rf " + strDir);
    return 0;
}

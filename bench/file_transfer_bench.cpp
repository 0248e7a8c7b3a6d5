// A file moved between two real agents on 127.0.0.1, from /dev/shm to
// /dev/shm, with block digests on and off, beside the bare machine doing the
// same work in the same run: md5sum of the file, a plain socket copy of it,
// and rsync in daemon mode where it is installed. Prints MB/s and ratios.
// BENCH_FILE_MIB sets the size (1024), BENCH_RUNS the runs of each (3, best taken).
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <thread>

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
    ReqWorkFileDstDelete del;
    del.workId = static_cast<int>(nWorkId);
    dst.pServer->Send(del, 4);
    ReqWorkFileSrcDelete delSrc;
    delSrc.workId = static_cast<int>(nWorkId);
    src.pServer->Send(delSrc, 5);
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

} // namespace

int main()
{
    signal(SIGPIPE, SIG_IGN);
    const int nMiB = EnvInt("BENCH_FILE_MIB", 1024);
    const int nRuns = EnvInt("BENCH_RUNS", 3);
    const double dBytes = static_cast<double>(nMiB) * 1048576.0;
    const double dMB = dBytes / 1e6;
    char szDir[] = "/dev/shm/file_transfer_bench_XXXXXX";
    if (mkdtemp(szDir) == nullptr) return 1;
    std::string strDir = szDir;
    std::string strSrc = strDir + "/src", strDst = strDir + "/dst";
    if (system(("head -c " + std::to_string(nMiB) + "M /dev/urandom > " + strSrc).c_str()) != 0) return 1;

    double dMd5 = bench::BestSeconds(nRuns, [&] {
        if (system(("md5sum " + strSrc + " > /dev/null").c_str()) != 0) {
        }
    });
    double dSocket = bench::BestSeconds(nRuns, [&] { SocketCopy(strSrc, strDst); });
    // Digests on: the source sums each block and the destination sums it
    // again. On a machine of two or more cores the two passes can overlap.
    unsigned int nCores = std::thread::hardware_concurrency();
    double dTwoDigestBound = dMB / (dMd5 * 2.0 / std::min(2u, std::max(1u, nCores)));

    double dRsync = 0;
    if (Have("rsync")) {
        std::string strConf = strDir + "/rsyncd.conf";
        unsigned short nPort = FreePortPair();
        FILE* fp = fopen(strConf.c_str(), "w");
        fprintf(fp, "use chroot = no\nuid = root\ngid = root\npid file = %s/rsyncd.pid\n[shm]\npath = %s\nread only = no\n",
                strDir.c_str(), strDir.c_str());
        fclose(fp);
        std::string strStart = "rsync --daemon --address=127.0.0.1 --port=" + std::to_string(nPort) + " --config=" + strConf;
        if (system(strStart.c_str()) == 0) {
            usleep(300000);
            dRsync = bench::BestSeconds(nRuns, [&] {
                unlink((strDir + "/rsync_dst").c_str());
                std::string strCmd = "rsync -q --whole-file " + strSrc + " rsync://127.0.0.1:" + std::to_string(nPort) +
                                     "/shm/rsync_dst";
                if (system(strCmd.c_str()) != 0) {
                }
            });
            if (system(("kill $(cat " + strDir + "/rsyncd.pid)").c_str()) != 0) {
            }
        }
    }

    double dOn = 1e30, dOff = 1e30;
    for (int nMode = 0; nMode < 2; ++nMode) {
        bool bDigests = nMode == 0;
        Agent src, dst;
        std::string strMd5 = bDigests ? "1" : "0";
        src.Start({{"file_trans_svr_begin_bind_port", std::to_string(FreePortPair())},
                   {"file_trans_svr_enable_md5_calc", strMd5}});
        dst.Start({{"agent_id", "127.0.0.2"}, {"file_trans_client_enable_md5_check", strMd5}});
        for (int i = 0; i < nRuns; ++i) {
            double d = Transfer(src, dst, static_cast<unsigned int>(100 + i), strSrc, strDst);
            if (d < 0) {
                fprintf(stderr, "file_transfer_bench: a transfer failed (digests %s)\n", bDigests ? "on" : "off");
                continue;
            }
            double& dBest = bDigests ? dOn : dOff;
            dBest = std::min(dBest, d);
        }
        src.Stop();
        dst.Stop();
    }

    printf("%d MiB from /dev/shm to /dev/shm on 127.0.0.1, %u cores, best of %d\n", nMiB, nCores, nRuns);
    bench::Report("two agents, digests on", "MB/s", dMB / dOn, "two-digest bound (md5sum x2)", dTwoDigestBound);
    bench::Report("two agents, digests off", "MB/s", dMB / dOff, "plain socket copy", dMB / dSocket);
    printf("md5sum of the file, one pass: %.1f MB/s\n", dMB / dMd5);
    if (dRsync > 0) {
        bench::Report("two agents, digests off", "MB/s", dMB / dOff, "rsync daemon, whole file", dMB / dRsync);
    } else {
        printf("rsync: not installed, no daemon-mode figure\n");
    }
    printf("scp: %s\n", Have("sshd") ? "not measured (needs a login set-up)" : "no sshd installed, not measured");
    if (system(("rm -rf " + strDir).c_str()) != 0) {
    }
    return 0;
}

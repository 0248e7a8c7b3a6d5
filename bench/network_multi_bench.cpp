// 1 GiB through one server loop and one client loop on loopback, the way file
// blocks travel from a source agent to a destination: a producer builds each
// block in a block of the send buffer (where a file thread reads the file)
// and pushes it, the client loop cuts the blocks out of the stream into its
// receive buffer, and a consumer takes and frees them. Beside it, the bare
// machine's plain socket copy of the same bytes in the same run.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "bench_util.h"
#include "data_buffer.h"
#include "log.h"
#include "network/network_multi_client.h"
#include "network/network_server.h"
#include "util.h"

namespace {

const unsigned long long TOTAL = 1ULL << 30;
// Blocks in flight between producer and consumer, as a pull protocol keeps a few requests open.
const unsigned int WINDOW = 32;
// Runs of each kind; on a shared machine the fastest is the least disturbed.
const int RUNS = 7;

std::atomic<unsigned int> g_nServerConnectId{0};

void OnServerEvent(unsigned int nConnectId, brel_lib::BREL_NET_CALLBACK_TYPE type, void*, int)
{
    if (type == brel_lib::BREL_CONNECT_NEW_CLIENT) g_nServerConnectId = nConnectId;
}

// Frames a block of nSize bytes in all as one packet. Only the head is
// written: the content is what the block held, as the plain copy's writer
// sends one buffer again and again and never fills it either.
void FrameBlock(char* pBlock, unsigned int nSize)
{
    unsigned int nContent = nSize - 6;
    pBlock[0] = 0x30;
    pBlock[1] = static_cast<char>(0x84);
    for (int i = 0; i < 4; ++i) pBlock[2 + i] = static_cast<char>(nContent >> (24 - 8 * i));
}

void LoopTransfer(unsigned int nBlock)
{
    using namespace brel_lib;
    CDataBufferSTLDeque serverRev(true, 0), serverSend(false, 0), clientRev(true, 0), clientSend(false, 0);
    CNetworkServerBrel server(serverRev, serverSend, 4096);
    CNetworkMultiClientBrel client(clientRev, clientSend, 0x20000);
    g_nServerConnectId = 0;
    server.SetNetClientCallback(OnServerEvent, nullptr);
    std::string strIp;
    unsigned short nPort = 0;
    if (server.CreateServer("127.0.0.1", 0) != 0 || server.GetListenIpPort(strIp, nPort) != 0) exit(1);
    server.Start();
    client.Start();
    std::atomic<unsigned int> nRun{1};
    unsigned int nClientId = 0;
    if (client.ConnectToServer(nClientId, nRun, "127.0.0.1", nPort, 3000) != 0) exit(1);
    while (g_nServerConnectId == 0) Sleep(1);
    const int nServerId = static_cast<int>(g_nServerConnectId.load());

    const unsigned long long lBlocks = TOTAL / nBlock;
    std::mutex mutex;
    std::condition_variable cond;
    unsigned long long lTaken = 0;
    std::thread consumer([&] {
        for (unsigned long long n = 0; n < lBlocks;) {
            unsigned int nSize = 0;
            void* p = clientRev.GetFrontAndPop(nSize, 100);
            if (p == nullptr) continue;
            if (nSize != nBlock) exit(2);
            CDataBufferSTLDeque::FreePopData(p);
            ++n;
            {
                std::lock_guard<std::mutex> lock(mutex);
                lTaken = n;
            }
            cond.notify_one();
        }
    });
    for (unsigned long long n = 0; n < lBlocks; ++n) {
        {
            std::unique_lock<std::mutex> lock(mutex);
            cond.wait(lock, [&] { return n < lTaken + WINDOW; });
        }
        char* pBlock = static_cast<char*>(CDataBufferSTLDeque::AllocBlock(nBlock));
        if (pBlock == nullptr) exit(1);
        FrameBlock(pBlock, nBlock);
        serverSend.PushBlock(pBlock, nBlock, 0, nServerId, BREL_DATA_NORMAL_PRI);
    }
    consumer.join();
}

void PlainCopy(unsigned int nBlock)
{
    int fdListen = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(fdListen, reinterpret_cast<sockaddr*>(&addr), sizeof(addr));
    listen(fdListen, 1);
    socklen_t nLen = sizeof(addr);
    getsockname(fdListen, reinterpret_cast<sockaddr*>(&addr), &nLen);
    int fdClient = socket(AF_INET, SOCK_STREAM, 0);
    if (connect(fdClient, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) exit(1);
    int fdServer = accept(fdListen, nullptr, nullptr);
    std::thread writer([&] {
        std::vector<char> block(nBlock, 'x');
        for (unsigned long long lDone = 0; lDone < TOTAL;) {
            ssize_t n = write(fdServer, block.data(), nBlock);
            if (n <= 0) exit(1);
            lDone += static_cast<unsigned long long>(n);
        }
    });
    std::vector<char> buf(nBlock);
    for (unsigned long long lDone = 0; lDone < TOTAL;) {
        ssize_t n = read(fdClient, buf.data(), nBlock);
        if (n <= 0) exit(1);
        lDone += static_cast<unsigned long long>(n);
    }
    writer.join();
    close(fdServer);
    close(fdClient);
    close(fdListen);
}

// Wall and processor seconds (all threads) of one run.
struct RunTime {
    double dWall = 1e30;
    double dCpu = 0;
};

double CpuSeconds()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

// Keeps the fastest run.
void TimeRun(RunTime& best, const std::function<void()>& work)
{
    double dCpu = CpuSeconds();
    double dWall = bench::BestSeconds(1, work);
    dCpu = CpuSeconds() - dCpu;
    if (dWall < best.dWall) best = RunTime{dWall, dCpu};
}

} // namespace

// With arguments "loop <block size>" or "plain <block size>": one transfer of
// that kind only, for a profiler.
int main(int argc, char** argv)
{
    brel_lib::LogLevel(brel_lib::LOG_LEVEL_WARNING);
    if (argc == 3) {
        unsigned int nBlock = static_cast<unsigned int>(atoi(argv[2]));
        if (std::string(argv[1]) == "loop") LoopTransfer(nBlock);
        if (std::string(argv[1]) == "plain") PlainCopy(nBlock);
        return 0;
    }
    const double dMiB = static_cast<double>(TOTAL) / (1 << 20);
    for (unsigned int nBlock : {256u * 1024, 64u * 1024}) {
        // The two take turns, so that load from elsewhere on a shared machine
        // falls on both alike; the fastest run of each counts.
        RunTime ours, bare;
        for (int i = 0; i < RUNS; ++i) {
            TimeRun(ours, [&] { LoopTransfer(nBlock); });
            TimeRun(bare, [&] { PlainCopy(nBlock); });
        }
        std::string strWhat = "1 GiB server loop -> client loop, " + std::to_string(nBlock / 1024) + " KiB";
        bench::Report(strWhat.c_str(), "MiB/s", dMiB / ours.dWall, "plain socket copy", dMiB / bare.dWall);
        // What the machine's two cores spent on it: the loops' four threads against the copy's two.
        bench::Report("  processor time of that run", "ms", ours.dCpu * 1000, "plain socket copy", bare.dCpu * 1000);
    }
    return 0;
}

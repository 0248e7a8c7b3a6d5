// The listening server loop and the connecting client loop on real sockets of 127.0.0.1.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "loop_harness.h"
#include "network/network_multi_client.h"
#include "network/network_server.h"
#include "tcp_peer.h"
#include "util.h"

using namespace brel_lib;
using namespace agent_test;

namespace {

class MultiLoopTest : public ::testing::Test {
protected:
    MultiLoopTest()
        : m_serverRev(true, 0), m_serverSend(false, 0), m_server(m_serverRev, m_serverSend, 4096),
          m_clientRev(true, 0), m_clientSend(false, 0), m_client(m_clientRev, m_clientSend, 0x20000)
    {
    }

    void SetUp() override
    {
        m_serverEvents.Attach(m_server);
        m_clientEvents.Attach(m_client);
    }

    void TearDown() override
    {
        m_client.Stop();
        m_server.Stop();
        SetBrelRecvPacketMaxSize(0);
    }

    void StartServer() { ASSERT_NE(m_nServerPort = StartOnLoopback(m_server), 0); }
    int CountLog(const std::string& strText) const { return m_log.Count(strText); }

    // The id the server gave to the connection from a client's local port.
    unsigned int ServerIdOf(unsigned short nClientPort, int nTimeoutMs = 10000)
    {
        unsigned int nId = 0;
        WaitUntil(
            [&] {
                for (const LoopEvent& ev : m_serverEvents.Events(BREL_CONNECT_NEW_CLIENT)) {
                    if (ev.nPeerPort == nClientPort) nId = ev.nConnectId;
                }
                return nId != 0;
            },
            nTimeoutMs);
        return nId;
    }

    TempLog m_log{"loop"};
    unsigned short m_nServerPort = 0;
    CDataBufferSTLDeque m_serverRev, m_serverSend;
    CNetworkServerBrel m_server;
    CDataBufferSTLDeque m_clientRev, m_clientSend;
    CNetworkMultiClientBrel m_client;
    LoopEventRecorder m_serverEvents, m_clientEvents;
};

TEST(ConnectId, SkipsZeroWhenTheCounterWraps)
{
    std::atomic<unsigned int> nCounter{0xFFFFFFFEu};
    EXPECT_EQ(NextConnectId(nCounter), 0xFFFFFFFFu);
    EXPECT_EQ(NextConnectId(nCounter), 1u);
    EXPECT_EQ(NextConnectId(nCounter), 2u);
}

TEST_F(MultiLoopTest, ManyClientsEchoThroughOneServerLoop)
{
    const int CLIENTS = 200, PACKETS = 4;
    StartServer();
    EchoThread echo(m_serverRev, m_serverSend);
    ASSERT_EQ(m_client.Start(), 0);
    std::vector<unsigned int> vecId(CLIENTS);
    // In waves that the listener's backlog of 32 holds: the kernel drops the handshakes of a larger burst.
    for (int i = 0; i < CLIENTS; ++i) {
        ASSERT_EQ(m_client.ConnectToServerAsync(vecId[i], "127.0.0.1", m_nServerPort, 5000), 0);
        if ((i + 1) % 20 == 0) {
            ASSERT_TRUE(m_serverEvents.WaitCount(BREL_CONNECT_NEW_CLIENT, i + 1, 20000)) << i;
        }
    }
    ASSERT_TRUE(m_clientEvents.WaitCount(BREL_CONNECT_OK, CLIENTS, 20000)) << m_clientEvents.Count(BREL_CONNECT_OK);
    for (const LoopEvent& ev : m_serverEvents.Events(BREL_CONNECT_NEW_CLIENT)) {
        EXPECT_EQ(ev.strPeerIp, "127.0.0.1");
        EXPECT_TRUE(ev.bFdOpen);
    }

    // Each connection's packets come back whole, on that connection, in order.
    std::map<unsigned int, std::vector<std::vector<unsigned char>>> mapSent;
    for (int k = 0; k < PACKETS; ++k) {
        for (int i = 0; i < CLIENTS; ++i) {
            unsigned int nLen = 1 + (i * 37 + k * 1013) % 6000;
            std::vector<unsigned char> packet = FramedPacket(nLen, static_cast<unsigned char>(i + k));
            mapSent[vecId[i]].push_back(packet);
            PushTo(m_clientSend, vecId[i], packet);
        }
    }
    std::map<unsigned int, size_t> mapNext;
    for (int n = 0; n < CLIENTS * PACKETS; ++n) {
        int nAppend = 0;
        std::vector<unsigned char> packet;
        ASSERT_TRUE(TakePacket(m_clientRev, 10000, nAppend, packet)) << "after " << n << " echoes";
        unsigned int nId = static_cast<unsigned int>(nAppend);
        ASSERT_EQ(mapSent.count(nId), 1u);
        size_t& nNext = mapNext[nId];
        ASSERT_LT(nNext, mapSent[nId].size());
        ASSERT_EQ(packet, mapSent[nId][nNext]) << "connection " << nId << " packet " << nNext;
        ++nNext;
    }

    // Closing from the client side shows on both loops once per connection.
    for (unsigned int nId : vecId) m_client.CloseClient(nId);
    ASSERT_TRUE(m_clientEvents.WaitCount(BREL_CONNECT_CLOSE, CLIENTS, 10000));
    ASSERT_TRUE(m_serverEvents.WaitCount(BREL_CONNECT_CLOSE, CLIENTS, 10000));
    SleepMs(200);  // no second close comes
    EXPECT_EQ(m_clientEvents.Count(BREL_CONNECT_CLOSE), CLIENTS);
    EXPECT_EQ(m_serverEvents.Count(BREL_CONNECT_CLOSE), CLIENTS);
    EXPECT_EQ(m_clientEvents.Count(BREL_CONNECT_FAILED), 0);
    EXPECT_EQ(CountLog("recv fd data is error"), 0);  // a close by the peer is no warning
}

// Blocks built in place in the server's send buffer, of sizes below, at and above the client's
// receive buffer and the spare pool's largest class, handed over in the client's receive buffers.
TEST_F(MultiLoopTest, BlocksBuiltInPlaceCrossBothLoopsWholeAndInOrder)
{
    StartServer();
    ASSERT_EQ(m_client.Start(), 0);
    std::atomic<unsigned int> nRun{1};
    unsigned int nClientId[2] = {0, 0};
    for (unsigned int& nId : nClientId) ASSERT_EQ(m_client.ConnectToServer(nId, nRun, "127.0.0.1", m_nServerPort, 3000), 0);
    ASSERT_TRUE(m_serverEvents.WaitCount(BREL_CONNECT_NEW_CLIENT, 2, 5000));
    std::vector<LoopEvent> vecServer = m_serverEvents.Events(BREL_CONNECT_NEW_CLIENT);

    const unsigned int sizes[] = {256 * 1024, 64 * 1024, 0x20000, 40000, 100, 0x20000 + 1, (1 << 20) + 3, 256 * 1024,
                                  5 << 20, 17, 64 * 1024, 64 * 1024};
    std::vector<std::vector<unsigned char>> vecSent[2];
    for (int nRound = 0; nRound < 2; ++nRound) {
        for (unsigned int nSize : sizes) {
            for (int c = 0; c < 2; ++c) {
                std::vector<unsigned char> packet =
                    PatternPacket(nSize, static_cast<unsigned int>(vecSent[c].size() * 2 + c));
                char* pBlock = static_cast<char*>(CDataBufferSTLDeque::AllocBlock(nSize));
                ASSERT_NE(pBlock, nullptr);
                memcpy(pBlock, packet.data(), nSize);
                ASSERT_EQ(m_serverSend.PushBlock(pBlock, nSize, 0, static_cast<int>(vecServer[c].nConnectId),
                                                 BREL_DATA_NORMAL_PRI),
                          0);
                vecSent[c].push_back(std::move(packet));
            }
        }
    }
    std::map<unsigned int, std::vector<std::vector<unsigned char>>> mapGot;
    for (size_t n = 0; n < vecSent[0].size() * 2; ++n) {
        int nAppend = 0;
        std::vector<unsigned char> packet;
        ASSERT_TRUE(TakePacket(m_clientRev, 20000, nAppend, packet)) << "after " << n << " blocks";
        mapGot[static_cast<unsigned int>(nAppend)].push_back(std::move(packet));
    }
    ASSERT_EQ(mapGot.size(), 2u);
    for (unsigned int nId : nClientId) {
        ASSERT_EQ(mapGot.count(nId), 1u);
        const std::vector<std::vector<unsigned char>>& got = mapGot[nId];
        int c = got[0] == vecSent[0][0] ? 0 : 1;  // which server connection fed this client
        ASSERT_EQ(got.size(), vecSent[c].size());
        for (size_t i = 0; i < got.size(); ++i) ASSERT_TRUE(got[i] == vecSent[c][i]) << "client " << nId << " block " << i;
    }
    EXPECT_EQ(m_clientEvents.Count(BREL_CONNECT_CLOSE), 0);
}

TEST_F(MultiLoopTest, PeerThatStopsReadingIsServedWhenItResumesWhileOthersGoOn)
{
    StartServer();
    EchoThread echo(m_serverRev, m_serverSend);
    PlainClient reader(m_nServerPort, 65536);  // reads nothing until the test says
    ASSERT_TRUE(reader.Connected());
    ASSERT_TRUE(m_serverEvents.WaitCount(BREL_CONNECT_NEW_CLIENT, 1, 5000));
    LoopEvent sink = m_serverEvents.Events(BREL_CONNECT_NEW_CLIENT)[0];
    // 24 MiB: far more than the kernel buffers of both ends hold.
    std::vector<std::vector<unsigned char>> vecBlocks;
    for (int i = 0; i < 48; ++i) {
        vecBlocks.push_back(FramedPacket(512 * 1024 - 5, static_cast<unsigned char>(i)));
        PushTo(m_serverSend, sink.nConnectId, vecBlocks.back());
    }

    // The connection waits for EPOLLOUT with its blocks kept, while another client is served.
    ASSERT_TRUE(WaitUntil([&] { return EpollMaskOf(sink.fd, sink.fd) == (EPOLLIN | EPOLLOUT); }, 5000));
    PlainClient other(m_nServerPort);
    ASSERT_TRUE(other.Connected());
    for (int i = 0; i < 20; ++i) {
        std::vector<unsigned char> packet = FramedPacket(100 + i, static_cast<unsigned char>(i));
        ASSERT_TRUE(other.Write(packet));
        ASSERT_EQ(other.ReadPacket(3000), packet) << i;
    }
    EXPECT_EQ(EpollMaskOf(sink.fd, sink.fd), EPOLLIN | EPOLLOUT);

    // Reading again, the peer gets every block in order, and the mask falls back to EPOLLIN.
    for (size_t i = 0; i < vecBlocks.size(); ++i) ASSERT_TRUE(reader.ReadPacket(30000) == vecBlocks[i]) << i;
    EXPECT_TRUE(WaitUntil([&] { return EpollMaskOf(sink.fd, sink.fd) == EPOLLIN; }, 5000));
    reader.Close();
    EXPECT_TRUE(m_serverEvents.WaitFor(sink.nConnectId, BREL_CONNECT_CLOSE, 5000));
    EXPECT_EQ(m_serverEvents.Count(BREL_CONNECT_CLOSE), 1);
}

TEST_F(MultiLoopTest, AsyncConnectThatHangsTimesOutOrIsClosedAndLeavesNoSocket)
{
    FullBacklogListener listener;
    ASSERT_TRUE(listener.Full());
    ASSERT_EQ(m_client.Start(), 0);
    SleepMs(100);
    int nFdsBefore = CountOpenFds();
    unsigned int nId = 0, nClosed = 0;
    int64_t lStart = HarnessNowMs();
    ASSERT_EQ(m_client.ConnectToServerAsync(nId, "127.0.0.1", listener.Port(), 300), 0);
    ASSERT_EQ(m_client.ConnectToServerAsync(nClosed, "127.0.0.1", listener.Port(), 400), 0);
    ASSERT_EQ(m_client.CloseClient(nClosed), 0);
    PushTo(m_clientSend, nId, FramedPacket(10, 1));  // dropped while the connect is under way
    ASSERT_TRUE(m_clientEvents.WaitFor(nId, BREL_CONNECT_FAILED, 5000));
    EXPECT_GE(HarnessNowMs() - lStart, 300);
    EXPECT_TRUE(m_clientEvents.Events(BREL_CONNECT_FAILED)[0].bFdOpen);
    EXPECT_EQ(CountLog("the connect is not established now, connect id: " + std::to_string(nId)), 1);
    EXPECT_EQ(CountLog("async connect is timeout, remote ip: 127.0.0.1, port: " + std::to_string(listener.Port()) +
                       ", timeout: 300, connect id: " + std::to_string(nId)),
              1);
    // The one closed while connecting: one close and no failure, even past its own time limit.
    ASSERT_TRUE(m_clientEvents.WaitFor(nClosed, BREL_CONNECT_CLOSE, 3000));
    SleepMs(900);
    EXPECT_EQ(m_clientEvents.Events().size(), 2u);
    EXPECT_EQ(m_clientEvents.CountFor(nClosed, BREL_CONNECT_FAILED), 0);
    EXPECT_EQ(m_client.CloseClient(12345), 0);  // an unknown id costs nothing but its control block
    SleepMs(100);
    EXPECT_EQ(m_clientEvents.Events().size(), 2u);
    EXPECT_TRUE(WaitUntil([&] { return CountOpenFds() == nFdsBefore; }, 2000));
}

TEST_F(MultiLoopTest, SyncConnectCarriesDataWithoutACallbackAndRefusedConnectsFail)
{
    StartServer();
    EchoThread echo(m_serverRev, m_serverSend);
    ASSERT_EQ(m_client.Start(), 0);
    std::atomic<unsigned int> nRun{1};
    unsigned int nId = 0;
    ASSERT_EQ(m_client.ConnectToServer(nId, nRun, "127.0.0.1", m_nServerPort, 3000), 0);
    std::vector<unsigned char> packet = FramedPacket(3000, 5);
    PushTo(m_clientSend, nId, packet);
    int nAppend = 0;
    std::vector<unsigned char> echoed;
    ASSERT_TRUE(TakePacket(m_clientRev, 5000, nAppend, echoed));
    EXPECT_EQ(static_cast<unsigned int>(nAppend), nId);
    EXPECT_EQ(echoed, packet);
    EXPECT_EQ(m_clientEvents.Events().size(), 0u);
    unsigned int nRefusedId = 0;
    EXPECT_NE(m_client.ConnectToServer(nRefusedId, nRun, "127.0.0.1", RefusedPort(), 1000), 0);

    // Refused asynchronously: one failure through the callback.
    ASSERT_EQ(m_client.ConnectToServerAsync(nRefusedId, "127.0.0.1", RefusedPort(), 3000), 0);
    ASSERT_NE(nRefusedId, 0u);
    ASSERT_TRUE(m_clientEvents.WaitFor(nRefusedId, BREL_CONNECT_FAILED, 3000));
    SleepMs(100);
    EXPECT_EQ(m_clientEvents.Events().size(), 1u);
    // A malformed address fails at once and makes no id.
    unsigned int nBad = 77;
    EXPECT_EQ(m_client.ConnectToServerAsync(nBad, "1.2.3", 80, 1000), -1);
    EXPECT_EQ(nBad, 77u);
    EXPECT_EQ(CountLog("connect the server is failed immediately, errno: -1, server ip: 1.2.3, port: 80, is async"), 1);
}

TEST_F(MultiLoopTest, BrokenStreamsCloseOnlyTheirOwnConnection)
{
    StartServer();
    EchoThread echo(m_serverRev, m_serverSend);
    SetBrelRecvPacketMaxSize(1000);
    PlainClient badTag(m_nServerPort), tooBig(m_nServerPort), good(m_nServerPort);
    unsigned int nBadTag = ServerIdOf(badTag.LocalPort()), nTooBig = ServerIdOf(tooBig.LocalPort());
    ASSERT_TRUE(nBadTag != 0 && nTooBig != 0);
    ASSERT_TRUE(badTag.Write({0x31, 0x00, 0x00, 0x00}));
    // An incomplete packet that holds more than the limit allows.
    std::vector<unsigned char> big = FramedPacket(5000, 3);
    ASSERT_TRUE(tooBig.Write(std::vector<unsigned char>(big.begin(), big.begin() + 2000)));
    EXPECT_TRUE(badTag.WaitClosedByPeer(3000));
    EXPECT_TRUE(tooBig.WaitClosedByPeer(3000));
    EXPECT_TRUE(m_serverEvents.WaitFor(nBadTag, BREL_CONNECT_CLOSE, 3000));
    EXPECT_TRUE(m_serverEvents.WaitFor(nTooBig, BREL_CONNECT_CLOSE, 3000));
    EXPECT_EQ(CountLog("packet complete check failed"), 1);
    EXPECT_EQ(CountLog("packet size is over than the max size"), 1);

    for (int i = 0; i < 10; ++i) {
        std::vector<unsigned char> packet = FramedPacket(200 + i, static_cast<unsigned char>(i));
        ASSERT_TRUE(good.Write(packet));
        ASSERT_EQ(good.ReadPacket(3000), packet);
    }
    EXPECT_EQ(m_serverEvents.Count(BREL_CONNECT_CLOSE), 2);
    // Blocks for a connection that is gone are dropped with a line.
    PushTo(m_serverSend, nBadTag, FramedPacket(10, 1));
    std::string strDropped = "error connect id, connect id: " + std::to_string(nBadTag);
    EXPECT_TRUE(WaitUntil([&] { return CountLog(strDropped) == 1; }, 5000));
}

TEST_F(MultiLoopTest, IdleConnectionIsClosedAfterItsTimeAndABusyOneIsNot)
{
    m_server.SetAutoCloseNoAccessConnectTime(2);  // whole seconds: one may pass between pings
    StartServer();
    EchoThread echo(m_serverRev, m_serverSend);
    PlainClient idle(m_nServerPort), busy(m_nServerPort);
    unsigned int nIdle = ServerIdOf(idle.LocalPort()), nBusy = ServerIdOf(busy.LocalPort());
    ASSERT_NE(nIdle, 0u);
    // The check runs every 10 seconds.
    int64_t lDeadline = HarnessNowMs() + 25000;
    while (m_serverEvents.CountFor(nIdle, BREL_CONNECT_CLOSE) == 0 && HarnessNowMs() < lDeadline) {
        std::vector<unsigned char> packet = FramedPacket(20, 1);
        ASSERT_TRUE(busy.Write(packet));
        ASSERT_EQ(busy.ReadPacket(3000), packet);
        SleepMs(200);
    }
    ASSERT_EQ(m_serverEvents.CountFor(nIdle, BREL_CONNECT_CLOSE), 1);
    EXPECT_TRUE(idle.WaitClosedByPeer(3000));
    EXPECT_EQ(m_serverEvents.CountFor(nBusy, BREL_CONNECT_CLOSE), 0);
    // The callback ran with the descriptor still open and the peer still known.
    LoopEvent closed = m_serverEvents.Events(BREL_CONNECT_CLOSE)[0];
    EXPECT_TRUE(closed.bFdOpen);
    EXPECT_EQ(closed.strPeerIp, "127.0.0.1");
    EXPECT_EQ(closed.nPeerPort, idle.LocalPort());
}

TEST_F(MultiLoopTest, ServerKeepsThePortItWasGivenAndNeedsAListener)
{
    ASSERT_EQ(m_server.CreateServer("", 1), 0);  // no bind: the kernel picks the port
    std::string strIp;
    unsigned short nPort = 0;
    m_server.GetServerBindIpPort(strIp, nPort);
    EXPECT_EQ(strIp, "");
    EXPECT_EQ(nPort, 1);
    ASSERT_EQ(m_server.GetListenIpPort(strIp, m_nServerPort), 0);
    EXPECT_NE(m_nServerPort, 1);
    ASSERT_EQ(m_server.Start(), 0);
    PlainClient client(m_nServerPort);
    EXPECT_TRUE(client.Connected());
    EXPECT_TRUE(m_serverEvents.WaitCount(BREL_CONNECT_NEW_CLIENT, 1, 3000));
    EXPECT_EQ(CountLog("create listen is ok, bind ip: , port: 1)"), 1);
    EXPECT_NE(m_server.CreateServer("bad ip", 1), 0);
    EXPECT_EQ(CountLog("create listen is failed, bind ip: bad ip, port: 1)"), 1);
}

TEST(MultiLoopDeathTest, ServerWithoutListenerEndsTheProcess)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    auto RunWithoutListener = [] {
        CDataBufferSTLDeque rev(true, 0), send(false, 0);
        CNetworkServerBrel server(rev, send, 4096);
        server.Start();
        SleepMs(5000);
    };
    EXPECT_EXIT(RunWithoutListener(), ::testing::ExitedWithCode(255), "");
}

TEST_F(MultiLoopTest, ConnectsNeverTakenOverAreClosedWithTheLoop)
{
    TcpPeer peer;
    CDataBufferSTLDeque rev(true, 0), send(false, 0);
    int nFdsOutside = CountOpenFds();
    {
        CNetworkMultiClientBrel loop(rev, send, 4096);
        int nFdsBefore = CountOpenFds();  // the loop's own wake-up descriptor is there
        for (int i = 0; i < 3; ++i) {
            unsigned int nId = 0;
            ASSERT_EQ(loop.ConnectToServerAsync(nId, "127.0.0.1", peer.Port(), 1000), 0);
        }
        EXPECT_EQ(CountOpenFds(), nFdsBefore + 3);
    }
    EXPECT_EQ(CountOpenFds(), nFdsOutside);
}

TEST_F(MultiLoopTest, DestroyingARunningLoopStopsItAndClosesItsConnections)
{
    CDataBufferSTLDeque rev(true, 0), send(false, 0);
    std::unique_ptr<PlainClient> pClient;
    LoopEventRecorder events;  // outlives the loop, whose thread calls it
    {
        CNetworkServerBrel server(rev, send, 4096);
        events.Attach(server);
        unsigned short nPort = StartOnLoopback(server);
        ASSERT_NE(nPort, 0);
        pClient.reset(new PlainClient(nPort));
        ASSERT_TRUE(events.WaitCount(BREL_CONNECT_NEW_CLIENT, 1, 5000));
        PushTo(send, events.Events()[0].nConnectId, FramedPacket(100, 1));
        ASSERT_EQ(pClient->ReadPacket(5000), FramedPacket(100, 1));
        // Stopped in the middle of a stream that the peer drains as fast as it
        // comes: a stop is no failure of the connection.
        for (int i = 0; i < 2000; ++i) PushTo(send, events.Events()[0].nConnectId, FramedPacket(16 * 1024, 2));
        std::thread reader([&] { pClient->WaitClosedByPeer(10000); });
        SleepMs(20);
        server.Stop();
        reader.join();
    }
    EXPECT_EQ(events.Count(BREL_CONNECT_CLOSE), 0);
    EXPECT_EQ(CountLog("we close it"), 0);
}

TEST_F(MultiLoopTest, AcceptOutOfDescriptorsBacksOffInsteadOfSpinning)
{
    StartServer();
    PlainClient first(m_nServerPort);
    ASSERT_TRUE(m_serverEvents.WaitCount(BREL_CONNECT_NEW_CLIENT, 1, 3000));
    long nLoopTid = m_serverEvents.Events()[0].nTid;

    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    rlimit lowered = limit;
    if (lowered.rlim_cur > 4096) lowered.rlim_cur = 4096;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &lowered), 0);
    // The loop thread's CPU time in ticks of 10 ms, from a file opened before the table fills.
    std::string strStatPath = "/proc/self/task/" + std::to_string(nLoopTid) + "/schedstat";
    int fdStat = open(strStatPath.c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_GE(fdStat, 0);
    auto CpuTicks = [&] {
        char buf[128] = {0};
        return pread(fdStat, buf, sizeof(buf) - 1, 0) > 0 ? static_cast<long>(strtoull(buf, nullptr, 10) / 10000000)
                                                          : -1000L;
    };
    // The second client waits in the backlog while the table is full.
    int fdWaiting = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    // Gives the descriptors and the limit back on every way out of the test.
    struct TableFiller {
        rlimit limit;
        std::vector<int> vecFill;
        ~TableFiller() { Release(); }
        void Release()
        {
            for (int fd : vecFill) close(fd);
            vecFill.clear();
            setrlimit(RLIMIT_NOFILE, &limit);
        }
    } filler{limit, {}};
    for (int fd = dup(fdWaiting); fd >= 0; fd = dup(fdWaiting)) filler.vecFill.push_back(fd);
    sockaddr_in addr = LoopbackAddr(m_nServerPort);
    int nConnect = connect(fdWaiting, reinterpret_cast<sockaddr*>(&addr), sizeof(addr));

    long nBefore = CpuTicks();
    SleepMs(1000);
    long nSpent = CpuTicks() - nBefore;
    filler.Release();
    close(fdStat);

    ASSERT_EQ(nConnect, 0);
    // A spinning loop burns the whole second (100 ticks); backing off costs a few.
    EXPECT_LT(nSpent, 30);
    ASSERT_TRUE(m_serverEvents.WaitCount(BREL_CONNECT_NEW_CLIENT, 2, 3000));
    close(fdWaiting);
}

// Loops stop when idle and start for the next work: race-free while clients connect, serving afterwards.
TEST_F(MultiLoopTest, LoopsStopAndStartAgainWhileClientsConnect)
{
    StartServer();
    EchoThread echo(m_serverRev, m_serverSend);
    ASSERT_EQ(m_client.Start(), 0);
    std::atomic<bool> bRun{true};
    std::thread plain([&] {
        while (bRun) {
            PlainClient c(m_nServerPort);
            if (c.Connected()) {
                c.Write(FramedPacket(50, 1));
                c.ReadPacket(100);
            }
        }
    });
    std::thread async([&] {
        while (bRun) {
            unsigned int nId = 0;
            if (m_client.ConnectToServerAsync(nId, "127.0.0.1", m_nServerPort, 500) == 0) {
                PushTo(m_clientSend, nId, FramedPacket(30, 2));
                if (nId % 3 == 0) m_client.CloseClient(nId);
            }
            SleepMs(2);
        }
    });
    for (int i = 0; i < 6; ++i) {
        SleepMs(150);
        ASSERT_EQ(m_server.Stop(), 0);
        ASSERT_EQ(m_client.Stop(), 0);
        SleepMs(30);
        ASSERT_EQ(StartOnLoopback(m_server, m_nServerPort), m_nServerPort);
        ASSERT_EQ(m_client.Start(), 0);
    }
    bRun = false;
    plain.join();
    async.join();

    PlainClient c(m_nServerPort);
    std::vector<unsigned char> packet = FramedPacket(700, 9);
    ASSERT_TRUE(c.Write(packet));
    EXPECT_EQ(c.ReadPacket(3000), packet);
    int nOk = m_clientEvents.Count(BREL_CONNECT_OK);
    unsigned int nId = 0;
    ASSERT_EQ(m_client.ConnectToServerAsync(nId, "127.0.0.1", m_nServerPort, 3000), 0);
    ASSERT_TRUE(m_clientEvents.WaitFor(nId, BREL_CONNECT_OK, 3000));
    EXPECT_GT(m_clientEvents.Count(BREL_CONNECT_OK), nOk);
}

} // namespace

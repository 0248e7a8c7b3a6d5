// The server link against real TCP peers on 127.0.0.1: connecting, retrying,
// moving between servers, reconnecting with the data state kept, stopping.
#include "network/network_client.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <thread>
#include <vector>

#include "loop_harness.h"
#include "tcp_peer.h"
#include "util.h"

using namespace brel_lib;
using namespace agent_test;

namespace {

class LinkTest : public ::testing::Test {
protected:
    LinkTest() : m_rev(true, 0), m_send(false, 0), m_link(m_rev, m_send, false) {}

    void SetUp() override
    {
        m_link.SetNetCallback(LoopEventRecorder::OnEvent, &m_events);
        m_link.SetConnectTimeout(1000);
        m_link.SetConnectFailedSleepTime(100);
        m_link.SetConnectFailedSwitchTime(300);
    }
    void TearDown() override { m_link.Stop(); }

    int CountLog(const std::string& strText) const { return m_log.Count(strText); }
    bool WaitLog(const std::string& strText, int n, int nTimeoutMs)
    {
        return WaitUntil([&] { return CountLog(strText) == n; }, nTimeoutMs);
    }
    bool WaitEvents(BREL_NET_CALLBACK_TYPE type, int n)
    {
        return WaitUntil([&] { return m_events.Count(type) == n; }, 2000);
    }

    // The link started with the peer as its one server, and the peer's end accepted.
    void ConnectLink(TcpPeer& peer)
    {
        m_link.AddServer("127.0.0.1", peer.Port());
        ASSERT_EQ(m_link.Start(true), 0);
        ASSERT_TRUE(peer.Accept(3000));
    }
    void Push(const std::vector<unsigned char>& packet)
    {
        m_send.Push(packet.data(), static_cast<unsigned int>(packet.size()), BREL_DATA_NORMAL_PRI);
    }
    std::vector<unsigned char> TakeReceived(unsigned int nTimeoutMs)
    {
        int nAppend = 0;
        std::vector<unsigned char> packet;
        return TakePacket(m_rev, nTimeoutMs, nAppend, packet) ? packet : std::vector<unsigned char>();
    }

    TempLog m_log{"link"};
    LoopEventRecorder m_events;  // outlives the link, whose thread calls it
    CDataBufferSTLDeque m_rev, m_send;
    CNetworkClientBrel m_link;
};

// Stop returns far below the 10 s that the link would otherwise wait.
void ExpectStopsSoon(CNetworkClientBrel& link)
{
    uint64_t lStart = GetNowMilliSecond();
    EXPECT_EQ(link.Stop(), 0);
    EXPECT_LT(GetNowMilliSecond() - lStart, 3000u);
}

TEST_F(LinkTest, ConnectsSendsAndReceivesWholePackets)
{
    TcpPeer peer;
    ASSERT_EQ(m_link.AddServer("127.0.0.1", peer.Port()), 0);
    ASSERT_EQ(m_link.AddServer("127.0.0.1", peer.Port()), 0);  // kept once
    ASSERT_EQ(m_link.GetServers().size(), 1u);
    EXPECT_NE(m_link.AddServer("localhost", 1), 0);
    EXPECT_NE(m_link.AddServer("", 1), 0);
    EXPECT_FALSE(m_link.IsConnected());
    // Queued before the link connects: sent once it does.
    std::vector<unsigned char> p1 = FramedPacket(10, 1), p2 = FramedPacket(300, 2);
    Push(p1);
    Push(p2);
    ASSERT_EQ(m_link.Start(true), 0);
    ASSERT_EQ(m_link.Start(true), 0);  // one thread only
    ASSERT_TRUE(peer.Accept(3000));
    ASSERT_TRUE(WaitEvents(BREL_CONNECT_OK, 1));
    EXPECT_TRUE(m_link.IsConnected());
    std::string strIp;
    unsigned short nPort = 0;
    EXPECT_EQ(m_link.GetRemoteIpPort(strIp, nPort), 0);
    EXPECT_EQ(nPort, peer.Port());
    EXPECT_EQ(peer.ReadPacket(3000), p1);
    EXPECT_EQ(peer.ReadPacket(3000), p2);

    // Many packets in one write, and one split across writes.
    std::vector<unsigned char> stream;
    for (int i = 0; i < 120; ++i) {
        std::vector<unsigned char> p = FramedPacket(5, static_cast<unsigned char>(i));
        stream.insert(stream.end(), p.begin(), p.end());
    }
    ASSERT_TRUE(peer.Write(stream));
    for (int i = 0; i < 120; ++i) ASSERT_EQ(TakeReceived(3000), FramedPacket(5, static_cast<unsigned char>(i))) << i;
    std::vector<unsigned char> split = FramedPacket(40, 9);
    ASSERT_TRUE(peer.Write(std::vector<unsigned char>(split.begin(), split.begin() + 3)));
    SleepMs(100);
    EXPECT_TRUE(m_rev.Empty());
    ASSERT_TRUE(peer.Write(std::vector<unsigned char>(split.begin() + 3, split.end())));
    EXPECT_EQ(TakeReceived(3000), split);
}

TEST_F(LinkTest, AddressesAreThoseNotedAtTheConnectNotOfTheDescriptorNumber)
{
    TcpPeer server, stranger;
    ConnectLink(server);
    ASSERT_TRUE(WaitEvents(BREL_CONNECT_OK, 1));
    std::string strIp, strLocalIp;
    unsigned short nPort = 0, nLocalPort = 0;
    ASSERT_EQ(m_link.GetLocalIpPort(strLocalIp, nLocalPort), 0);
    EXPECT_EQ(strLocalIp, "127.0.0.1");
    EXPECT_NE(nLocalPort, 0);

    // The link's descriptor number reused for another socket: the answer still names the link's server.
    int fdStranger = ConnectLoopback(stranger.Port());
    ASSERT_TRUE(fdStranger >= 0 && stranger.Accept(3000));
    int fdLink = m_events.Events().back().fd;
    ASSERT_EQ(dup2(fdStranger, fdLink), fdLink);
    ASSERT_EQ(m_link.GetRemoteIpPort(strIp, nPort), 0);
    EXPECT_EQ(strIp, "127.0.0.1");
    EXPECT_EQ(nPort, server.Port());
    unsigned short nLocalAgain = 0;
    ASSERT_EQ(m_link.GetLocalIpPort(strLocalIp, nLocalAgain), 0);
    EXPECT_EQ(nLocalAgain, nLocalPort);
    m_link.Stop();
    close(fdStranger);

    // Without a connection there is no answer.
    EXPECT_EQ(m_link.GetRemoteIpPort(strIp, nPort), -1);
    EXPECT_EQ(m_link.GetLocalIpPort(strIp, nPort), -1);
}

TEST_F(LinkTest, RefusingServerIsRetriedThenTheNextOneTried)
{
    unsigned short nRefused = RefusedPort();
    TcpPeer second;
    m_link.AddServer("127.0.0.1", nRefused);
    m_link.AddServer("127.0.0.1", second.Port());
    uint64_t lStart = GetNowMilliSecond();
    ASSERT_EQ(m_link.Start(true), 0);
    ASSERT_TRUE(second.Accept(5000));
    uint64_t lElapsed = GetNowMilliSecond() - lStart;
    // 300 ms of switch time at 100 ms of sleep: three attempts, then the next server.
    EXPECT_EQ(CountLog("we will retry again after sleep some time, errno: 111"), 3);
    EXPECT_EQ(CountLog("we retry another server"), 1);
    EXPECT_GE(lElapsed, 280u);
    EXPECT_TRUE(WaitLog("connect the server is ok, server ip: 127.0.0.1, port: " + std::to_string(second.Port()), 1, 2000));
}

TEST_F(LinkTest, FlagsMoveTheLinkBetweenServers)
{
    TcpPeer first, second;
    m_link.AddServer("127.0.0.1", first.Port());
    m_link.AddServer("127.0.0.1", second.Port());
    ASSERT_EQ(m_link.Start(true), 0);
    ASSERT_TRUE(first.Accept(3000));

    m_link.SetFlag(CNetworkClientBrel::NET_FLAG_CONNECT_NEXT_SERVER);
    EXPECT_TRUE(first.WaitClosedByPeer(3000));
    ASSERT_TRUE(second.Accept(3000));
    EXPECT_TRUE(WaitEvents(BREL_CONNECT_CLOSE, 1));

    m_link.SetFlag(CNetworkClientBrel::NET_FLAG_CONNECT_NEW_SERVER);
    EXPECT_TRUE(second.WaitClosedByPeer(3000));
    ASSERT_TRUE(first.Accept(3000));
    EXPECT_TRUE(WaitEvents(BREL_CONNECT_CLOSE, 2));
    EXPECT_EQ(CountLog("receive connect new server flag, we will connect the new server"), 1);
    EXPECT_EQ(CountLog("receive connect next server flag, we will connect the next server"), 1);

    // The whole list replaced in one step, then a move to its first server.
    TcpPeer third;
    ASSERT_EQ(m_link.ReplaceServers({{"127.0.0.1", third.Port()}, {"bad", 1}}), 0);
    m_link.SetFlag(CNetworkClientBrel::NET_FLAG_CONNECT_NEW_SERVER);
    ASSERT_TRUE(third.Accept(3000));
    EXPECT_EQ(m_link.GetServers().size(), 1u);
    EXPECT_EQ(m_link.ReplaceServers({{"bad", 1}}), -1);
}

TEST_F(LinkTest, FlagsActDuringTheSleepBetweenAttempts)
{
    TcpPeer second;
    m_link.SetConnectFailedSleepTime(10000);
    m_link.SetConnectFailedSwitchTime(600000);
    m_link.AddServer("127.0.0.1", RefusedPort());
    m_link.AddServer("127.0.0.1", second.Port());
    ASSERT_EQ(m_link.Start(true), 0);
    ASSERT_TRUE(WaitLog("we will retry again after sleep some time", 1, 3000));
    m_link.SetFlag(CNetworkClientBrel::NET_FLAG_CONNECT_NEW_SERVER);
    ASSERT_TRUE(WaitLog("ConnectToServer(receive connect new server flag", 1, 500));
    ASSERT_TRUE(WaitLog("we will retry again after sleep some time", 2, 1000));

    uint64_t lStart = GetNowMilliSecond();
    m_link.SetFlag(CNetworkClientBrel::NET_FLAG_CONNECT_NEXT_SERVER);
    ASSERT_TRUE(second.Accept(2000));
    EXPECT_LT(GetNowMilliSecond() - lStart, 1000u);
    EXPECT_EQ(CountLog("ConnectToServer(receive connect next server flag"), 1);
}

TEST_F(LinkTest, StopIsNoticedWhileSleepingAndWhileConnecting)
{
    m_link.SetConnectFailedSleepTime(10000);
    m_link.AddServer("127.0.0.1", RefusedPort());
    ASSERT_EQ(m_link.Start(true), 0);
    ASSERT_TRUE(WaitLog("we will retry again after sleep some time", 1, 3000));
    ExpectStopsSoon(m_link);

    FullBacklogListener full;
    ASSERT_TRUE(full.Full());
    CDataBufferSTLDeque rev(true, 0), send(false, 0);
    CNetworkClientBrel link(rev, send, false);
    link.SetConnectTimeout(10000);
    link.AddServer("127.0.0.1", full.Port());
    ASSERT_EQ(link.Start(true), 0);
    SleepMs(300);
    ExpectStopsSoon(link);

    // With an empty list the link waits and still stops at once.
    CNetworkClientBrel empty(rev, send, false);
    ASSERT_EQ(empty.Start(true), 0);
    SleepMs(200);
    ExpectStopsSoon(empty);
    EXPECT_GE(CountLog("ConnectToServer(it is not add any server ip now)"), 1);
}

// CPU time of the whole process, in milliseconds.
long ProcessCpuMs()
{
    rusage ru{};
    getrusage(RUSAGE_SELF, &ru);
    return (ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) * 1000L + (ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1000;
}

TEST_F(LinkTest, FullSocketDoesNotSpinAndAnInterruptedBlockGoesAgainWholeBeforeTheQueuedOnes)
{
    TcpPeer peer;
    ConnectLink(peer);
    // Far more than the socket buffers hold, with blocks queued behind it: the send buffer's
    // descriptor stays readable, and the link must sleep on EPOLLOUT rather than spin on it.
    std::vector<unsigned char> big = FramedPacket(32u << 20, 5);
    Push(big);
    for (int i = 0; i < 3; ++i) Push(FramedPacket(8, static_cast<unsigned char>(100 + i)));
    SleepMs(500);
    long nCpuBefore = ProcessCpuMs();
    SleepMs(1000);
    EXPECT_LT(ProcessCpuMs() - nCpuBefore, 250);  // spinning burns most of a core
    peer.CloseConnection();  // unread data: the link sees a reset

    ASSERT_TRUE(peer.Accept(5000));
    std::vector<unsigned char> got;
    ASSERT_TRUE(peer.ReadExactly(got, big.size(), 20000));
    EXPECT_TRUE(got == big);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(peer.ReadPacket(3000), FramedPacket(8, static_cast<unsigned char>(100 + i)));
}

TEST_F(LinkTest, LargePacketGrowsTheBufferAndAdjustGivesItBack)
{
    TcpPeer peer;
    ConnectLink(peer);
    std::vector<unsigned char> big = FramedPacket(1 << 20, 3);
    ASSERT_TRUE(peer.Write(big));
    EXPECT_EQ(TakeReceived(5000), big);
    EXPECT_GE(CountLog("ReceiveAsnBufData(realloc, new size: "), 8);
    m_link.SetFlag(CNetworkClientBrel::NET_BUFFER_AUTO_ADJUST);
    EXPECT_TRUE(WaitLog("AdjustBufSize(buf adjust before size: 2097152, now size: 8192)", 1, 2000));
    std::vector<unsigned char> small = FramedPacket(20, 4);
    ASSERT_TRUE(peer.Write(small));
    EXPECT_EQ(TakeReceived(3000), small);
}

TEST_F(LinkTest, EmptyListOnSendEndsTheThreadAndForegroundRunBlocks)
{
    TcpPeer peer;
    ConnectLink(peer);
    m_link.ClearServer();
    Push(FramedPacket(3, 1));
    EXPECT_TRUE(WaitUntil([&] { return m_link.GetThreadID() == 0; }, 2000));

    CDataBufferSTLDeque rev(true, 0), send(false, 0);
    CNetworkClientBrel link(rev, send, false);
    link.AddServer("127.0.0.1", peer.Port());
    std::thread stopper([&] {
        SleepMs(300);
        link.Stop();
    });
    uint64_t lStart = GetNowMilliSecond();
    EXPECT_EQ(link.Start(false), 0);
    EXPECT_GE(GetNowMilliSecond() - lStart, 250u);
    stopper.join();
}

} // namespace

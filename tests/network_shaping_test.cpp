// Traffic shaping of a server loop: token periods and epoll masks on a driven clock; on the
// real clock, a limited direction keeps its rate while the other runs at full speed.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "loop_harness.h"
#include "network/network_server.h"
#include "tcp_peer.h"
#include "util.h"

using namespace brel_lib;
using namespace agent_test;

namespace {

// The driven clock: frozen unless the test moves it, or moving one period at every reading.
std::atomic<uint64_t> g_lClock{1000000};
std::atomic<bool> g_bClockRuns{false};

uint64_t DrivenClock()
{
    if (g_bClockRuns) return g_lClock.fetch_add(50) + 50;
    return g_lClock.load();
}

// 20000 bytes per second in periods of 50 ms: 1000 tokens a period.
const unsigned int SPEED = 20000;
const unsigned int QUANTUM = 1000;

class ShapingTest : public ::testing::Test {
protected:
    ShapingTest() : m_rev(true, 0), m_send(false, 0), m_server(m_rev, m_send, 4096) {}

    void SetUp() override
    {
        g_bClockRuns = false;
        g_lClock = 1000000;
        m_events.Attach(m_server);
    }

    void TearDown() override { m_server.Stop(); }

    // Starts the loop on the driven clock and connects one plain client.
    void StartWithClient()
    {
        m_server.SetNetflowClock(DrivenClock);
        ASSERT_NE(m_nPort = StartOnLoopback(m_server), 0);
        m_pClient.reset(new PlainClient(m_nPort));
        ASSERT_TRUE(m_pClient->Connected());
        ASSERT_TRUE(m_events.WaitCount(BREL_CONNECT_NEW_CLIENT, 1, 3000));
        m_connect = m_events.Events(BREL_CONNECT_NEW_CLIENT)[0];
    }

    // Ten packets of 500 bytes from the client.
    void WriteTenPackets()
    {
        std::vector<unsigned char> stream;
        for (int i = 0; i < 10; ++i) {
            std::vector<unsigned char> packet = FramedPacket(496, static_cast<unsigned char>(i));
            stream.insert(stream.end(), packet.begin(), packet.end());
        }
        ASSERT_TRUE(m_pClient->Write(stream));
    }
    // Waits (bounded) for n received packets, then makes sure no more come while the clock stands.
    void ExpectReceivedSettles(size_t n)
    {
        EXPECT_TRUE(WaitUntil([&] { return m_rev.GetDataNum() == n; }, 5000)) << n;
        SleepMs(200);
        EXPECT_EQ(m_rev.GetDataNum(), n);
    }
    long SocketMask() { return EpollMaskOf(m_connect.fd, m_connect.fd); }
    long SendBufferMask() { return EpollMaskOf(m_connect.fd, m_send.GetReadableFd()); }
    // Bytes the client has in all once the flow settles: waits (bounded) for nExpected, then
    // makes sure nothing more comes while the clock stands.
    size_t SettledBytes(size_t nExpected)
    {
        if (m_nReceived < nExpected) m_nReceived += m_pClient->ReadCount(nExpected - m_nReceived, 10000);
        return m_nReceived += m_pClient->ReadCount(1, 200);
    }

    TempLog m_log{"loop"};
    CDataBufferSTLDeque m_rev, m_send;
    CNetworkServerBrel m_server;
    LoopEventRecorder m_events;
    unsigned short m_nPort = 0;
    std::unique_ptr<PlainClient> m_pClient;
    LoopEvent m_connect{};
    size_t m_nReceived = 0;
};

TEST_F(ShapingTest, SendingMovesOneQuantumPerPeriodAndLeavesTheSetMeanwhile)
{
    m_server.SetNetflowSendSpeed(SPEED);
    StartWithClient();
    PushTo(m_send, m_connect.nConnectId, FramedPacket(4996, 1));  // 5000 bytes

    EXPECT_EQ(SettledBytes(QUANTUM), QUANTUM);
    // Out of tokens with data pending: the socket keeps EPOLLIN only, the send buffer is out.
    EXPECT_TRUE(WaitUntil([&] { return SocketMask() == EPOLLIN && SendBufferMask() == 0; }, 5000));
    g_lClock += 49;
    EXPECT_EQ(SettledBytes(QUANTUM), QUANTUM);
    g_lClock += 1;
    EXPECT_EQ(SettledBytes(2 * QUANTUM), 2 * QUANTUM);
    for (unsigned int i = 3; i <= 5; ++i) {
        g_lClock += 50;
        ASSERT_EQ(SettledBytes(i * QUANTUM), i * QUANTUM);
    }
    // All out: nothing pending, both back to their resting masks.
    EXPECT_TRUE(WaitUntil([&] { return SocketMask() == EPOLLIN && SendBufferMask() == EPOLLIN; }, 5000));

    // Shaping switched off while sending is out puts it back at once.
    PushTo(m_send, m_connect.nConnectId, FramedPacket(4996, 2));
    g_lClock += 50;
    EXPECT_EQ(SettledBytes(6 * QUANTUM), 6 * QUANTUM);
    EXPECT_TRUE(WaitUntil([&] { return SendBufferMask() == 0; }, 5000));
    m_server.SetNetflowSendSpeed(0);
    EXPECT_EQ(SettledBytes(10000), 10000u);
    EXPECT_TRUE(WaitUntil([&] { return SendBufferMask() == EPOLLIN; }, 5000));
}

TEST_F(ShapingTest, ReceivingMovesOneQuantumPerPeriodAndLeavesTheSetMeanwhile)
{
    m_server.SetNetflowRecvSpeed(SPEED);
    StartWithClient();
    WriteTenPackets();
    // Two packets a period; nothing pending to send, so the socket leaves the set entirely.
    EXPECT_TRUE(WaitUntil([&] { return m_rev.GetDataNum() == 2 && SocketMask() == 0; }, 5000));
    ExpectReceivedSettles(2);
    g_lClock += 50;
    ExpectReceivedSettles(4);
    // A connection that comes in meanwhile is taken in with mask 0.
    PlainClient late(m_nPort);
    ASSERT_TRUE(m_events.WaitCount(BREL_CONNECT_NEW_CLIENT, 2, 3000));
    LoopEvent lateEvent = m_events.Events(BREL_CONNECT_NEW_CLIENT)[1];
    EXPECT_EQ(EpollMaskOf(m_connect.fd, lateEvent.fd), 0);
    // A refill assigns one quantum rather than adding: idle periods earn nothing.
    g_lClock += 150;
    ExpectReceivedSettles(6);
    for (unsigned int n = 8; n <= 10; n += 2) {
        g_lClock += 50;
        EXPECT_TRUE(WaitUntil([&] { return m_rev.GetDataNum() == n; }, 5000)) << n;
    }
    // The stream is whole and in order.
    for (int i = 0; i < 10; ++i) {
        int nAppend = 0;
        std::vector<unsigned char> packet;
        ASSERT_TRUE(TakePacket(m_rev, 1000, nAppend, packet));
        EXPECT_EQ(packet, FramedPacket(496, static_cast<unsigned char>(i)));
        EXPECT_EQ(static_cast<unsigned int>(nAppend), m_connect.nConnectId);
    }
    // Tokens back and nothing to read: both connections listen again.
    g_lClock += 50;
    EXPECT_TRUE(WaitUntil(
        [&] { return SocketMask() == EPOLLIN && EpollMaskOf(m_connect.fd, lateEvent.fd) == EPOLLIN; }, 5000));
}

TEST_F(ShapingTest, BothDirectionsOutTakeTheSocketOutEntirely)
{
    m_server.SetNetflowSendSpeed(SPEED);
    m_server.SetNetflowRecvSpeed(SPEED);
    StartWithClient();
    WriteTenPackets();
    PushTo(m_send, m_connect.nConnectId, FramedPacket(4996, 1));
    EXPECT_TRUE(WaitUntil([&] { return m_rev.GetDataNum() == 2; }, 5000));
    EXPECT_EQ(SettledBytes(QUANTUM), QUANTUM);
    EXPECT_TRUE(WaitUntil([&] { return SocketMask() == 0 && SendBufferMask() == 0; }, 5000));
    g_lClock += 50;
    EXPECT_EQ(SettledBytes(2 * QUANTUM), 2 * QUANTUM);
    EXPECT_TRUE(WaitUntil([&] { return m_rev.GetDataNum() == 4; }, 5000));
}

// Blocks left in the queue when a send ran short of tokens go out as soon as
// tokens return, without waiting for another push.
TEST_F(ShapingTest, QueuedBlocksGoOutWhenTokensReturnAtOnce)
{
    m_server.SetNetflowSendSpeed(SPEED);
    StartWithClient();
    // Use up the first period's tokens exactly.
    PushTo(m_send, m_connect.nConnectId, FramedPacket(996, 1));  // 1000 bytes
    ASSERT_EQ(SettledBytes(QUANTUM), QUANTUM);
    // Three blocks of 600 bytes wait while the clock stands still.
    for (int i = 0; i < 3; ++i) PushTo(m_send, m_connect.nConnectId, FramedPacket(596, static_cast<unsigned char>(i)));
    EXPECT_TRUE(WaitUntil([&] { return SendBufferMask() == 0; }, 5000));
    // Every look at the clock finds a new period: the third block must follow without a push.
    g_bClockRuns = true;
    EXPECT_EQ(m_pClient->ReadCount(1800, 10000), 1800u);
}

// On the real clock: the limited direction stays within its rate over a few
// seconds, and the unlimited direction of the same loop is not slowed.
TEST_F(ShapingTest, LimitedDirectionKeepsItsRateAndTheOtherRunsFree)
{
    const unsigned int LIMIT = 400000;
    m_server.SetNetflowSendSpeed(LIMIT);
    ASSERT_NE(m_nPort = StartOnLoopback(m_server), 0);
    PlainClient reader(m_nPort), writer(m_nPort);
    ASSERT_TRUE(m_events.WaitCount(BREL_CONNECT_NEW_CLIENT, 2, 3000));
    unsigned int nReaderId = 0;
    for (const LoopEvent& ev : m_events.Events(BREL_CONNECT_NEW_CLIENT)) {
        if (ev.nPeerPort == reader.LocalPort()) nReaderId = ev.nConnectId;
    }
    ASSERT_NE(nReaderId, 0u);

    // Far more than the limit lets through in the time measured.
    std::vector<unsigned char> block = FramedPacket(64 * 1024 - 5, 7);
    for (int i = 0; i < 64; ++i) PushTo(m_send, nReaderId, block);

    // The unlimited direction: 16 MiB from the writer, taken as fast as it comes.
    const size_t FREE_BYTES = 16u << 20;
    std::atomic<size_t> nFreeGot{0};
    std::atomic<int64_t> lFreeMs{0};
    std::thread consumer([&] {
        int64_t lStart = HarnessNowMs();
        while (nFreeGot < FREE_BYTES && HarnessNowMs() - lStart < 60000) {
            int nAppend = 0;
            std::vector<unsigned char> packet;
            if (TakePacket(m_rev, 50, nAppend, packet)) nFreeGot += packet.size();
        }
        lFreeMs = HarnessNowMs() - lStart;
    });
    std::thread producer([&] {
        std::vector<unsigned char> chunk = FramedPacket(60 * 1024, 3);
        for (size_t n = 0; n < FREE_BYTES; n += chunk.size()) {
            if (!writer.Write(chunk)) break;
        }
    });

    size_t nLimited = reader.ReadCount(1, 5000);
    int64_t lFirst = HarnessNowMs();
    nLimited += reader.ReadCount(64u << 20, 2500);
    int64_t lElapsedMs = HarnessNowMs() - lFirst;
    producer.join();
    consumer.join();

    // What the tokens allow from the first byte on, plus two periods of slack for the edges.
    double dAllowed = LIMIT * (lElapsedMs + 50) / 1000.0 + LIMIT / 10.0;
    EXPECT_LE(nLimited, static_cast<size_t>(dAllowed)) << "in " << lElapsedMs << " ms";
    EXPECT_GE(nLimited, static_cast<size_t>(LIMIT / 4)) << "shaped traffic stalled";
    ASSERT_GE(nFreeGot.load(), FREE_BYTES);
    double dFreeRate = static_cast<double>(nFreeGot) * 1000.0 / static_cast<double>(lFreeMs > 0 ? lFreeMs.load() : 1);
    EXPECT_GT(dFreeRate, 10.0 * LIMIT) << "unlimited direction moved " << dFreeRate << " bytes/s";
}

} // namespace

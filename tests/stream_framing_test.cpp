// The stream framing and the send and receive steps, on socket pairs.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "data_buffer.h"
#include "network/connection.h"
#include "network/token_bucket.h"
#include "tcp_peer.h"

using namespace brel_lib;
using agent_test::FramedPacket;

namespace {

int Complete(const std::vector<unsigned char>& v)
{
    return asn_packet_complete(v.data(), static_cast<unsigned int>(v.size()));
}


TEST(Framing, Rules)
{
    EXPECT_EQ(Complete({}), 0);
    EXPECT_EQ(Complete({0x31}), -1);  // one byte condemns the stream
    EXPECT_EQ(Complete({0x30, 0x00}), 0);  // below four bytes nothing is recognised
    EXPECT_EQ(Complete({0x30, 0x00, 0x30, 0x00}), 2);
    EXPECT_EQ(Complete({0x30, 0x00, 0x31, 0x00}), -1);  // the next packet's first byte is checked

    std::vector<unsigned char> p = {0x30, 0x80};
    p.insert(p.end(), 128, 1);
    EXPECT_EQ(Complete(p), 130);  // 0x80 is a plain length here
    p.pop_back();
    EXPECT_EQ(Complete(p), 0);

    std::vector<unsigned char> q = FramedPacket(256, 'x');
    EXPECT_EQ(q[1], 0x82);
    EXPECT_EQ(Complete(q), 260);
    q.pop_back();
    EXPECT_EQ(Complete(q), 0);

    // Exactly MAX_LEN in all is accepted; one more is invalid.
    unsigned int nCont = MAX_LEN - 6;
    std::vector<unsigned char> big = {0x30, 0x84, static_cast<unsigned char>(nCont >> 24),
                                      static_cast<unsigned char>(nCont >> 16), static_cast<unsigned char>(nCont >> 8),
                                      static_cast<unsigned char>(nCont)};
    EXPECT_EQ(Complete(big), 0);
    testing::internal::CaptureStdout();
    big[5] += 1;
    EXPECT_EQ(Complete(big), -1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "pkt_len > MAX_LEN\n");
    // The high length bytes alone can condemn a packet before the rest arrive.
    testing::internal::CaptureStdout();
    EXPECT_EQ(Complete({0x30, 0x84, 0xFF, 0xFF}), -1);
    testing::internal::GetCapturedStdout();
    // More than four length bytes can't be held: invalid.
    EXPECT_EQ(Complete({0x30, 0x85, 0, 0, 0, 0, 1, 0}), -1);
    // A short length head: more bytes needed, nothing beyond the data is read.
    EXPECT_EQ(Complete({0x30, 0x84, 0x00, 0x00}), 0);
}

struct SocketPair {
    int fd[2];
    SocketPair() { socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, fd); }
    ~SocketPair()
    {
        close(fd[0]);
        close(fd[1]);
    }
};

// One connection's record on a socket pair's end, as the loops hold it.
struct Connection : ConnectInfo {
    explicit Connection(int fd, unsigned int nSize = 64)
    {
        nConnectId = 7;
        sockFd = fd;
        strIp = "peer";
        nPort = 1;
        AllocReceiveBuf(nSize);
    }
    ~Connection()
    {
        FreeReceiveBuf();
        FreeSendData();
    }
    int Receive(CDataBufferSTLDeque& rev, CNetflowTokenBucket* pBucket = nullptr)
    {
        std::atomic<unsigned int> nRun{1};
        return ReceiveAsnBufData(nRun, *this, asn_packet_complete, rev, pBucket);
    }
    // Takes the next block of sendBuf as the one being sent.
    void TakeBlock(CDataBufferSTLDeque& sendBuf)
    {
        pSendData = static_cast<char*>(sendBuf.GetFrontAndPop(nSendDataLen, 0));
        nSendDataUsedLen = 0;
    }
    int Send(CDataBufferSTLDeque& sendBuf, CNetflowTokenBucket* pBucket = nullptr)
    {
        std::atomic<unsigned int> nRun{1};
        return SendAsnBufData(nRun, *this, sendBuf, pBucket);
    }
};

std::vector<std::vector<unsigned char>> TakeAll(CDataBufferSTLDeque& rev)
{
    std::vector<std::vector<unsigned char>> out;
    while (true) {
        unsigned int nSize = 0;
        int nAppend = 0;
        char* p = static_cast<char*>(rev.GetFrontAndPop2(nSize, nAppend, 0));
        if (p == nullptr) return out;
        EXPECT_EQ(nAppend, 7);
        out.emplace_back(p, p + nSize);
        CDataBufferSTLDeque::FreePopData(p);
    }
}

bool WriteAll(int fd, const std::vector<unsigned char>& v)
{
    return write(fd, v.data(), v.size()) == static_cast<ssize_t>(v.size());
}

TEST(ReceiveStep, PacketsSplitAtEveryByteArriveWholeAndInOrder)
{
    std::vector<unsigned char> stream;
    std::vector<std::vector<unsigned char>> packets = {FramedPacket(3, 'a'), FramedPacket(200, 'b'), FramedPacket(0, 'x'), FramedPacket(70, 'c')};
    for (auto& p : packets) stream.insert(stream.end(), p.begin(), p.end());
    for (size_t nCut = 1; nCut < stream.size(); ++nCut) {
        SocketPair sp;
        CDataBufferSTLDeque rev(false, 0);
        Connection conn(sp.fd[0]);
        ASSERT_TRUE(WriteAll(sp.fd[1], std::vector<unsigned char>(stream.begin(), stream.begin() + nCut)));
        EXPECT_EQ(conn.Receive(rev), 0);
        ASSERT_TRUE(WriteAll(sp.fd[1], std::vector<unsigned char>(stream.begin() + nCut, stream.end())));
        EXPECT_EQ(conn.Receive(rev), 0);
        EXPECT_EQ(TakeAll(rev), packets) << "cut at " << nCut;
        EXPECT_TRUE(conn.ReceiveBufEmpty());
    }
}

TEST(ReceiveStep, ManyPacketsInOneReadAndTheBudget)
{
    SocketPair sp;
    CDataBufferSTLDeque rev(false, 0);
    Connection conn(sp.fd[0]);
    std::vector<unsigned char> stream;
    for (int i = 0; i < 200; ++i) {
        std::vector<unsigned char> p = FramedPacket(10, static_cast<unsigned char>(i));
        stream.insert(stream.end(), p.begin(), p.end());
    }
    ASSERT_TRUE(WriteAll(sp.fd[1], stream));
    int ret = 0, nCalls = 0;
    do {
        ret = conn.Receive(rev);
        ++nCalls;
    } while (ret == BREL_STEP_BUDGET && nCalls < 100);
    EXPECT_EQ(ret, 0);
    std::vector<std::vector<unsigned char>> got = TakeAll(rev);
    ASSERT_EQ(got.size(), 200u);
    for (int i = 0; i < 200; ++i) EXPECT_EQ(got[i][2], static_cast<unsigned char>(i));
}

TEST(ReceiveStep, BadStreamLimitAndClose)
{
    {
        SocketPair sp;
        CDataBufferSTLDeque rev(false, 0);
        Connection conn(sp.fd[0]);
        std::vector<unsigned char> bad = FramedPacket(3, 'x');
        bad.push_back(0x31);
        ASSERT_TRUE(WriteAll(sp.fd[1], bad));
        EXPECT_EQ(conn.Receive(rev), BREL_STEP_BAD_STREAM);
        EXPECT_TRUE(rev.Empty());  // the good packet before the bad byte is not delivered
    }
    {
        SetBrelRecvPacketMaxSize(100);
        SocketPair sp;
        CDataBufferSTLDeque rev(false, 0);
        Connection conn(sp.fd[0], 8192);
        std::vector<unsigned char> big = FramedPacket(1000, 'x');
        // Complete within one read: passes, however large.
        ASSERT_TRUE(WriteAll(sp.fd[1], big));
        EXPECT_EQ(conn.Receive(rev), 0);
        EXPECT_EQ(TakeAll(rev).size(), 1u);
        // Incomplete beyond the limit: the connection is to be closed.
        ASSERT_TRUE(WriteAll(sp.fd[1], std::vector<unsigned char>(big.begin(), big.begin() + 500)));
        EXPECT_EQ(conn.Receive(rev), BREL_STEP_BAD_STREAM);
        SetBrelRecvPacketMaxSize(0);
    }
    {
        SocketPair sp;
        CDataBufferSTLDeque rev(false, 0);
        Connection conn(sp.fd[0]);
        ASSERT_TRUE(WriteAll(sp.fd[1], {0x30, 0x05, 1}));
        close(sp.fd[1]);
        sp.fd[1] = socket(AF_UNIX, SOCK_STREAM, 0);
        EXPECT_EQ(conn.Receive(rev), 0);  // a short read: drained for now
        EXPECT_EQ(conn.Receive(rev), BREL_STEP_PEER_CLOSED);
        EXPECT_EQ(conn.nReceiveBufLen - conn.nReceiveBufUnusedLen, 3u);  // the rest stays in the buffer
    }
}

TEST(SendStep, PartialWritesContinueAtTheRightByte)
{
    SocketPair sp;
    int nSmall = 4096;
    setsockopt(sp.fd[0], SOL_SOCKET, SO_SNDBUF, &nSmall, sizeof(nSmall));
    CDataBufferSTLDeque sendBuf(false, 0);
    std::vector<unsigned char> block(1 << 20);
    for (size_t i = 0; i < block.size(); ++i) block[i] = static_cast<unsigned char>(i * 7);
    sendBuf.Push(block.data(), static_cast<unsigned int>(block.size()), BREL_DATA_NORMAL_PRI);
    Connection conn(sp.fd[0]);
    conn.TakeBlock(sendBuf);
    std::vector<unsigned char> received;
    int nRounds = 0;
    while (conn.pSendData != nullptr && nRounds++ < 100000) {
        int ret = conn.Send(sendBuf);
        if (conn.pSendData != nullptr) {
            EXPECT_EQ(ret, BREL_STEP_AGAIN);
        }
        unsigned char buf[65536];
        ssize_t n;
        while ((n = read(sp.fd[1], buf, sizeof(buf))) > 0) received.insert(received.end(), buf, buf + n);
    }
    EXPECT_EQ(conn.pSendData, nullptr);
    EXPECT_EQ(conn.nSendDataUsedLen, 0u);
    unsigned char buf[65536];
    ssize_t n;
    while ((n = read(sp.fd[1], buf, sizeof(buf))) > 0) received.insert(received.end(), buf, buf + n);
    EXPECT_EQ(received, block);
}

uint64_t g_lFakeNow = 1000000;
uint64_t FakeClock() { return g_lFakeNow; }

TEST(SendStep, TokensLimitTheWrite)
{
    SocketPair sp;
    CDataBufferSTLDeque sendBuf(false, 0);
    std::vector<unsigned char> block(1000, 'z');
    sendBuf.Push(block.data(), 1000, BREL_DATA_NORMAL_PRI);
    Connection conn(sp.fd[0]);
    conn.TakeBlock(sendBuf);
    CNetflowTokenBucket bucket;
    bucket.SetClock(FakeClock);
    bucket.SetSpeed(8000);  // 400 bytes a 50 ms period
    EXPECT_EQ(conn.Send(sendBuf, &bucket), BREL_STEP_NO_TOKEN);
    EXPECT_EQ(conn.nSendDataUsedLen, 400u);
    EXPECT_EQ(conn.Send(sendBuf, &bucket), BREL_STEP_NO_TOKEN);
    EXPECT_EQ(conn.nSendDataUsedLen, 400u);  // no period has passed
    g_lFakeNow += 50;
    EXPECT_EQ(conn.Send(sendBuf, &bucket), BREL_STEP_NO_TOKEN);
    EXPECT_EQ(conn.nSendDataUsedLen, 800u);
    g_lFakeNow += 50;
    EXPECT_EQ(conn.Send(sendBuf, &bucket), 0);
    EXPECT_EQ(conn.pSendData, nullptr);
    EXPECT_EQ(bucket.GetTokenCount(), 200u);
}

TEST(TokenBucket, GrantsRefillsReturnsAndClockGoingBack)
{
    g_lFakeNow = 5000000;
    CNetflowTokenBucket bucket;
    bucket.SetClock(FakeClock);
    bucket.SetSpeed(10000);  // quantum 500
    EXPECT_TRUE(bucket.IsEmptyToken());
    bucket.GenNewToken();
    EXPECT_EQ(bucket.GetTokenCount(), 500u);
    EXPECT_EQ(bucket.GetToken(200), 200u);
    EXPECT_EQ(bucket.GetToken(1000), 300u);  // all that is left
    EXPECT_TRUE(bucket.IsEmptyToken());
    bucket.GenNewToken();
    EXPECT_EQ(bucket.GetTokenCount(), 0u);  // within the period
    EXPECT_EQ(bucket.DisMilliSecondNextCanGenNewToken(), 50u);
    g_lFakeNow += 30;
    EXPECT_EQ(bucket.DisMilliSecondNextCanGenNewToken(), 20u);
    g_lFakeNow += 20;
    bucket.GenNewToken();
    EXPECT_EQ(bucket.GetTokenCount(), 500u);  // assigned, not added
    g_lFakeNow += 10000;
    bucket.GenNewToken();
    EXPECT_EQ(bucket.GetTokenCount(), 500u);  // idle time earns nothing

    // Returns are cut to a quantum and capped at one second's worth.
    bucket.ReturnSomeToken(9999);
    EXPECT_EQ(bucket.GetTokenCount(), 1000u);
    for (int i = 0; i < 30; ++i) bucket.ReturnSomeToken(500);
    EXPECT_EQ(bucket.GetTokenCount(), 10000u);

    // A clock set back restarts the period from the new time.
    bucket.GetToken(10000);
    g_lFakeNow -= 100000;
    bucket.GenNewToken();
    EXPECT_EQ(bucket.GetTokenCount(), 0u);
    g_lFakeNow += 50;
    bucket.GenNewToken();
    EXPECT_EQ(bucket.GetTokenCount(), 500u);

    // A step's take: what is at hand, else a refill once a period has passed.
    bucket.GetToken(10000);
    EXPECT_EQ(bucket.TakeToken(100), 0u);
    g_lFakeNow += 50;
    EXPECT_EQ(bucket.TakeToken(100), 100u);
    EXPECT_EQ(bucket.TakeToken(1000), 400u);
}

} // namespace

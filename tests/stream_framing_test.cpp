// The stream framing and the send and receive steps, on socket pairs.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <random>
#include <string>
#include <thread>
#include <vector>

#include "data_buffer.h"
#include "loop_harness.h"
#include "network/connection.h"
#include "network/token_bucket.h"
#include "tcp_peer.h"

using namespace brel_lib;
using agent_test::FramedPacket;
using agent_test::PatternPacket;

namespace {

int Complete(const std::vector<unsigned char>& v)
{
    return asn_packet_complete(v.data(), static_cast<unsigned int>(v.size()));
}

// What the framing makes of a stream's start: the length of the first whole packet, 0 for
// more bytes needed, -1 for a stream to close; and the length known from the head alone.
TEST(Framing, Rules)
{
    const int ANY = -2;
    struct {
        std::vector<unsigned char> bytes;
        int nComplete, nLength;
    } cases[] = {
        {{}, 0, 0},
        {{0x30}, ANY, 0},
        {{0x31}, -1, ANY},  // one byte condemns the stream
        {{0x31, 0x00}, ANY, -1},
        {{0x30, 0x00}, 0, ANY},  // below four bytes nothing is recognised
        {{0x30, 0x05}, ANY, 7},
        {{0x30, 0x80}, ANY, 130},  // 0x80 is a plain length here
        {{0x30, 0x00, 0x30, 0x00}, 2, ANY},
        {{0x30, 0x00, 0x31, 0x00}, -1, ANY},  // the next packet's first byte is checked
        {{0x30, 0x84, 0x00, 0x00}, 0, ANY},  // a short length head: nothing beyond the data is read
        {{0x30, 0x84, 0x00, 0x01}, ANY, 0},
        {{0x30, 0x84, 0x00, 0x01, 0x00, 0x00}, ANY, 6 + 65536},
        {{0x30, 0x85, 0, 0, 0, 0, 1}, ANY, -1},  // more than four length bytes can't be held
        {{0x30, 0x85, 0, 0, 0, 0, 1, 0}, -1, ANY},
        {{0x30, 0x84, 0x08, 0x00, 0x00, 0x00}, ANY, -1},  // above the largest packet
        {{0x30, 0x84, 0x07, 0xff, 0xff, 0xfa}, 0, static_cast<int>(MAX_LEN)},  // exactly the largest
        {{0x30, 0x84, 0xFF, 0xFF}, -1, ANY},  // the high length bytes alone condemn it
    };
    for (auto& c : cases) {
        SCOPED_TRACE("row " + std::to_string(&c - cases));
        testing::internal::CaptureStdout();
        if (c.nComplete != ANY) {
            EXPECT_EQ(Complete(c.bytes), c.nComplete);
        }
        if (c.nLength != ANY) {
            EXPECT_EQ(asn_packet_length(c.bytes.data(), static_cast<unsigned int>(c.bytes.size())), c.nLength);
        }
        testing::internal::GetCapturedStdout();
    }
    testing::internal::CaptureStdout();
    EXPECT_EQ(Complete({0x30, 0x84, 0x07, 0xff, 0xff, 0xfb}), -1);  // one more than the largest
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "pkt_len > MAX_LEN\n");
    // Lengths in one and two bytes, counted to the packet's last byte.
    std::vector<unsigned char> p = {0x30, 0x80};
    p.insert(p.end(), 128, 1);
    EXPECT_EQ(Complete(p), 130);
    p.pop_back();
    EXPECT_EQ(Complete(p), 0);
    std::vector<unsigned char> q = FramedPacket(256, 'x');
    EXPECT_EQ(q[1], 0x82);
    EXPECT_EQ(Complete(q), 260);
    q.pop_back();
    EXPECT_EQ(Complete(q), 0);
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

// A connection on one end of a socket pair, the test writing at the other,
// with the receive buffer that its packets go to.
struct Wire {
    explicit Wire(unsigned int nSize = 64) : conn(sp.fd[0], nSize) {}
    bool Write(const std::vector<unsigned char>& v)
    {
        return write(sp.fd[1], v.data(), v.size()) == static_cast<ssize_t>(v.size());
    }
    int Receive() { return conn.Receive(rev); }

    SocketPair sp;
    CDataBufferSTLDeque rev{false, 0};
    Connection conn;
};

TEST(ReceiveStep, PacketsSplitAtEveryByteArriveWholeAndInOrder)
{
    std::vector<unsigned char> stream;
    std::vector<std::vector<unsigned char>> packets = {FramedPacket(3, 'a'), FramedPacket(200, 'b'), FramedPacket(0, 'x'), FramedPacket(70, 'c')};
    for (auto& p : packets) stream.insert(stream.end(), p.begin(), p.end());
    for (size_t nCut = 1; nCut < stream.size(); ++nCut) {
        Wire w;
        ASSERT_TRUE(w.Write(std::vector<unsigned char>(stream.begin(), stream.begin() + nCut)));
        EXPECT_EQ(w.Receive(), 0);
        ASSERT_TRUE(w.Write(std::vector<unsigned char>(stream.begin() + nCut, stream.end())));
        EXPECT_EQ(w.Receive(), 0);
        EXPECT_EQ(TakeAll(w.rev), packets) << "cut at " << nCut;
        EXPECT_TRUE(w.conn.ReceiveBufEmpty());
    }
}

TEST(ReceiveStep, BadStreamLimitAndClose)
{
    {
        Wire w;
        std::vector<unsigned char> bad = FramedPacket(3, 'x');
        bad.push_back(0x31);
        ASSERT_TRUE(w.Write(bad));
        EXPECT_EQ(w.Receive(), BREL_STEP_BAD_STREAM);
        EXPECT_TRUE(w.rev.Empty());  // the good packet before the bad byte is not delivered
    }
    {
        // A large packet read up to its end goes; a bad byte behind it fails the next read.
        Wire w(64 * 1024);
        std::vector<unsigned char> a = PatternPacket(40000, 9), b = PatternPacket(40000, 10);
        b.push_back(0x31);
        ASSERT_TRUE(w.Write(a));
        EXPECT_EQ(w.Receive(), 0);
        EXPECT_EQ(TakeAll(w.rev).size(), 1u);
        ASSERT_TRUE(w.Write(b));
        EXPECT_EQ(w.Receive(), BREL_STEP_BAD_STREAM);
    }
    {
        SetBrelRecvPacketMaxSize(100);
        Wire w(8192);
        std::vector<unsigned char> big = FramedPacket(1000, 'x');
        // Complete within one read: passes, however large.
        ASSERT_TRUE(w.Write(big));
        EXPECT_EQ(w.Receive(), 0);
        EXPECT_EQ(TakeAll(w.rev).size(), 1u);
        // Incomplete beyond the limit: the connection is to be closed.
        ASSERT_TRUE(w.Write(std::vector<unsigned char>(big.begin(), big.begin() + 500)));
        EXPECT_EQ(w.Receive(), BREL_STEP_BAD_STREAM);
        SetBrelRecvPacketMaxSize(0);
    }
    {
        Wire w;
        ASSERT_TRUE(w.Write({0x30, 0x05, 1}));
        close(w.sp.fd[1]);
        w.sp.fd[1] = socket(AF_UNIX, SOCK_STREAM, 0);
        EXPECT_EQ(w.Receive(), 0);  // a short read: drained for now
        EXPECT_EQ(w.Receive(), BREL_STEP_PEER_CLOSED);
        EXPECT_EQ(w.conn.nReceiveBufLen - w.conn.nReceiveBufUnusedLen, 3u);  // the rest stays in the buffer
    }
}

// Takes one packet; its block's address in pBlock.
std::vector<unsigned char> TakeOne(CDataBufferSTLDeque& rev, const void** pBlock = nullptr)
{
    unsigned int nSize = 0;
    char* p = static_cast<char*>(rev.GetFrontAndPop(nSize, 0));
    if (pBlock != nullptr) *pBlock = p;
    std::vector<unsigned char> v;
    if (p != nullptr) v.assign(p, p + nSize);
    CDataBufferSTLDeque::FreePopData(p);
    return v;
}

// Receives until nPackets have arrived from a writer thread, or 20 s have passed.
std::vector<std::vector<unsigned char>> ReceiveFromWriter(Wire& w, const std::vector<unsigned char>& stream,
                                                          size_t nPackets)
{
    int fdWrite = w.sp.fd[1];
    std::thread writer([&] {
        for (size_t nDone = 0; nDone < stream.size();) {
            ssize_t n = write(fdWrite, stream.data() + nDone, stream.size() - nDone);
            if (n > 0) nDone += static_cast<size_t>(n);
            else if (n < 0 && errno != EAGAIN) return;
            else usleep(200);
        }
    });
    std::vector<std::vector<unsigned char>> got;
    for (int i = 0; i < 100000 && got.size() < nPackets; ++i) {
        int ret = w.Receive();
        EXPECT_TRUE(ret == 0 || ret == BREL_STEP_BUDGET) << ret;
        if (ret != 0 && ret != BREL_STEP_BUDGET) break;
        for (auto& p : TakeAll(w.rev)) got.push_back(std::move(p));
        if (got.size() < nPackets) usleep(200);
    }
    writer.join();
    return got;
}

std::vector<unsigned char> Cat(std::vector<unsigned char> a, const std::vector<unsigned char>& b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// A large packet goes over in the receive buffer itself (no copy) when the read ends with it.
TEST(ReceiveStep, ReadStopsAtTheEndOfALargePacketOnceItsLengthIsKnown)
{
    const unsigned int nBuf = 64 * 1024;
    Wire w(nBuf);
    std::vector<unsigned char> full = PatternPacket(nBuf, 1);  // fills the buffer exactly
    ASSERT_TRUE(w.Write(full));
    const char* pBefore = w.conn.pReceiveBuf;
    const void* pBlock = nullptr;
    EXPECT_EQ(w.Receive(), 0);
    EXPECT_EQ(TakeOne(w.rev, &pBlock), full);
    EXPECT_EQ(pBlock, pBefore);
    EXPECT_NE(w.conn.pReceiveBuf, pBefore);
    EXPECT_EQ(w.conn.nReceiveBufLen, nBuf);
    EXPECT_TRUE(w.conn.ReceiveBufEmpty());

    // The first read takes a and the head of b: a is copied out, b's length known from then on.
    std::vector<unsigned char> a = PatternPacket(40000, 3), b = PatternPacket(40000, 4), c = PatternPacket(20000, 5);
    ASSERT_TRUE(w.Write(Cat(a, std::vector<unsigned char>(b.begin(), b.begin() + 30000))));
    EXPECT_EQ(w.Receive(), 0);
    EXPECT_EQ(TakeOne(w.rev), a);
    EXPECT_EQ(w.conn.nReceiveBufLen - w.conn.nReceiveBufUnusedLen, 30000u);  // all of b that came
    // The rest of b and a third packet: the read ends with b, which goes over in the buffer.
    ASSERT_TRUE(w.Write(Cat(std::vector<unsigned char>(b.begin() + 30000, b.end()), c)));
    pBefore = w.conn.pReceiveBuf;
    EXPECT_EQ(w.Receive(), 0);
    EXPECT_EQ(TakeOne(w.rev, &pBlock), b);
    EXPECT_EQ(pBlock, pBefore);
    EXPECT_EQ(TakeOne(w.rev), c);
    EXPECT_TRUE(w.rev.Empty());

    // At a packet's start the read stops where a packet as large as the last large one would
    // end: a small packet behind it in the same write does not keep it from going over.
    std::vector<unsigned char> d = PatternPacket(40000, 6), e = PatternPacket(40000, 7), small = FramedPacket(10, 's');
    ASSERT_TRUE(w.Write(d));
    EXPECT_EQ(w.Receive(), 0);
    EXPECT_EQ(TakeOne(w.rev), d);
    ASSERT_TRUE(w.Write(Cat(e, small)));
    pBefore = w.conn.pReceiveBuf;
    EXPECT_EQ(w.Receive(), 0);
    EXPECT_EQ(TakeOne(w.rev, &pBlock), e);
    EXPECT_EQ(pBlock, pBefore);
    EXPECT_EQ(TakeOne(w.rev), small);
    EXPECT_TRUE(w.conn.ReceiveBufEmpty());
}

TEST(ReceiveStep, PacketLargerThanTheBufferGrowsItAndArrivesWhole)
{
    // The buffer doubles as far as the packet needs, beyond the spare pool's largest class too.
    struct {
        unsigned int nBuf, nBig;
        std::vector<unsigned char> after;
        unsigned int nGrown;
    } cases[] = {{16 * 1024, 100000, FramedPacket(7, 't'), 128 * 1024},
                 {64 * 1024, 5u << 20, PatternPacket(30000, 8), 8u << 20}};
    for (auto& c : cases) {
        Wire w(c.nBuf);
        std::vector<unsigned char> big = PatternPacket(c.nBig, 6);
        std::vector<std::vector<unsigned char>> got = ReceiveFromWriter(w, Cat(big, c.after), 2);
        ASSERT_EQ(got.size(), 2u);
        EXPECT_TRUE(got[0] == big);
        EXPECT_TRUE(got[1] == c.after);
        EXPECT_EQ(w.conn.nReceiveBufLen, c.nGrown);
        EXPECT_TRUE(w.conn.ReceiveBufEmpty());
    }
}

// Packets of every kind of size, cut into pieces at random places: each
// arrives whole and in order, whatever went over in the buffer and whatever was copied.
TEST(ReceiveStep, MixedSizesInRandomPiecesArriveWholeAndInOrder)
{
    std::mt19937 rng(16);
    std::vector<std::vector<unsigned char>> packets;
    std::vector<unsigned char> stream;
    const unsigned int sizes[] = {7, 40000, 40000, 12, 65536, 65536, 65535, 16384, 16383, 100000, 8, 32768, 32769};
    for (int nRound = 0; nRound < 4; ++nRound) {
        for (unsigned int nSize : sizes) packets.push_back(PatternPacket(nSize, static_cast<unsigned int>(packets.size())));
        // A run of small packets, many to a read.
        for (int i = 0; i < 2000; ++i) packets.push_back(FramedPacket(i % 30, static_cast<unsigned char>(i)));
    }
    for (auto& p : packets) stream.insert(stream.end(), p.begin(), p.end());

    Wire w(64 * 1024);
    std::vector<std::vector<unsigned char>> got;
    for (size_t nDone = 0; nDone < stream.size();) {
        size_t nPiece = std::min<size_t>(stream.size() - nDone, 1 + rng() % 90000);
        ASSERT_TRUE(w.Write(std::vector<unsigned char>(stream.begin() + nDone, stream.begin() + nDone + nPiece)));
        nDone += nPiece;
        int ret;
        do {
            ret = w.Receive();
        } while (ret == BREL_STEP_BUDGET);
        ASSERT_EQ(ret, 0);
        for (auto& p : TakeAll(w.rev)) got.push_back(std::move(p));
    }
    ASSERT_EQ(got.size(), packets.size());
    for (size_t i = 0; i < packets.size(); ++i) ASSERT_TRUE(got[i] == packets[i]) << "packet " << i;
    EXPECT_TRUE(w.conn.ReceiveBufEmpty());
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
        EXPECT_EQ(ret, conn.pSendData != nullptr ? BREL_STEP_AGAIN : 0);
        unsigned char buf[65536];
        ssize_t n;
        while ((n = read(sp.fd[1], buf, sizeof(buf))) > 0) received.insert(received.end(), buf, buf + n);
    }
    EXPECT_EQ(conn.pSendData, nullptr);
    EXPECT_EQ(conn.nSendDataUsedLen, 0u);
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

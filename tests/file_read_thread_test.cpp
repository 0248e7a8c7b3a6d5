// The read threads of the file source, driven through their queue with the
// answers taken from the send buffer: what the end-to-end source tests can not
// see (the connection id, the end of whole blocks, the edges of the refusals,
// digests switched off) and a connection whose peer takes nothing while
// another is served.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <map>
#include <mutex>
#include <string>

#include "common/agent_globals.h"
#include "data_buffer.h"
#include "file_peer.h"
#include "file_trans_svr/file_read_thread.h"
#include "install_tree.h"
#include "md5.h"
#include "test_work_server.h"
#include "zik_pkt.h"

namespace {

using agent_test::WriteFile;

struct Answer : agent_test::FileBlock {
    int nConnectId = 0;
};

unsigned long long Join(int nHigh, int nLow)
{
    return (static_cast<unsigned long long>(static_cast<unsigned int>(nHigh)) << 32) | static_cast<unsigned int>(nLow);
}

// Peers of the fake sockets: what each has taken, set by the test.
std::map<int, long long>& TakenByFd()
{
    static std::map<int, long long> s_map;
    return s_map;
}
std::mutex g_takenMutex;
long long FakeTaken(int fd)
{
    std::lock_guard<std::mutex> lock(g_takenMutex);
    auto it = TakenByFd().find(fd);
    return it == TakenByFd().end() ? -1 : it->second;
}
void SetTaken(int fd, long long lTaken)
{
    std::lock_guard<std::mutex> lock(g_takenMutex);
    TakenByFd()[fd] = lTaken;
}

class ReadThreadTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        CFileReadThread::SetPeerTakenFun(FakeTaken);
        ASSERT_EQ(m_thread.Start(), 0);
    }
    void TearDown() override
    {
        m_thread.Stop();
        CFileReadThread::SetPeerTakenFun(nullptr);
        g_bEnableMd5Calc = true;
    }

    std::string File(const std::string& strName, const std::string& strData)
    {
        std::string strPath = m_strDir + "/" + strName;
        WriteFile(strPath, strData);
        return strPath;
    }

    void Get(const std::string& strPath, unsigned long long lPos, int nGetSize, int nGetNum,
             unsigned int nConnectId = 7, bool bPreGet = false, int nSockFd = -1)
    {
        auto* pReq = new CFileReadThreadReqRead;
        pReq->m_nSrcWorkId = 11;
        pReq->m_nDstWorkId = 22;
        pReq->m_strSrcFile = strPath;
        pReq->m_nBeginPosHigh = static_cast<unsigned int>(lPos >> 32) | (bPreGet ? 0x80000000U : 0);
        pReq->m_nBeginPosLow = static_cast<unsigned int>(lPos);
        pReq->m_nGetSize = nGetSize;
        pReq->m_nGetNum = nGetNum;
        pReq->m_nNowAppend = 5;
        pReq->m_nNowConnectId = nConnectId;
        pReq->m_nSockFd = nSockFd;
        m_thread.AddReq(pReq);
    }

    unsigned long long StalledBytes(const std::string& strPath, int nBlock, int nNum, int nStalledFd, int nLiveFd);

    // The next answer; false when none comes within the time.
    bool Next(Answer& out, int nTimeoutMs = 3000)
    {
        unsigned int nSize = 0;
        int nAppend = 0;
        char* p = static_cast<char*>(m_send.GetFrontAndPop2(nSize, nAppend, static_cast<unsigned int>(nTimeoutMs)));
        if (p == nullptr) return false;
        agent_test::TestWorkServer::Received received;
        received.bytes.assign(p, p + nSize);
        brel_lib::CDataBufferSTLDeque::FreePopData(p);
        ZikPacket packet;
        unsigned int nUsed = 0;
        EXPECT_EQ(brel_lib::ParseFromBuffer(packet, nUsed, reinterpret_cast<char*>(received.bytes.data()), nSize), 0);
        EXPECT_EQ(nUsed, nSize);
        RspWorkFileAgentGet rsp;
        EXPECT_TRUE(agent_test::DecodeBody(received, rsp));
        out.nConnectId = nAppend;
        out.nAppend = packet.append;
        out.ret = rsp.ret;
        out.strContent.assign(rsp.content.octs == nullptr ? "" : rsp.content.octs, rsp.content.octetLen);
        out.strMd5.assign(rsp.md5.octs == nullptr ? "" : rsp.md5.octs, rsp.md5.octetLen);
        out.lPos = Join(rsp.beginPosHigh, rsp.beginPosLow);
        out.nAccessBit = static_cast<unsigned int>(rsp.srcFileAccessBit.value);
        return true;
    }

    // Takes the answers until none comes for 300 ms.
    void Drain()
    {
        Answer a;
        while (Next(a, 300)) {
        }
    }

    bool NothingMore(int nMs = 300)
    {
        Answer a;
        return !Next(a, nMs);
    }

    agent_test::TempDir m_dir{"read_thread_test_"};
    std::string m_strDir = m_dir.Root();
    brel_lib::CDataBufferSTLDeque m_send{true, 0};  // the loop takes without waiting; the test waits
    CFileReadThread m_thread{m_send, nullptr};
};

std::string Pattern(size_t n)
{
    std::string str(n, '\0');
    for (size_t i = 0; i < n; ++i) str[i] = static_cast<char>('a' + (i * 7 + i / 251) % 26);
    return str;
}

// Whole blocks end without an end mark; a get from elsewhere than 0 carries no
// permission bits, an empty file from 0 an empty answer with them.
TEST_F(ReadThreadTest, WholeBlocksEndWithoutAMarkAndOnlyAGetFromZeroCarriesTheMode)
{
    std::string strData = Pattern(2000);
    std::string strPath = File("f", strData);
    chmod(strPath.c_str(), 0640);
    Get(strPath, 0, 1000, 4);
    for (unsigned long long lPos : {0ULL, 1000ULL}) {
        Answer a;
        ASSERT_TRUE(Next(a));
        EXPECT_EQ(a.ret, 0);
        EXPECT_EQ(a.nConnectId, 7);
        EXPECT_EQ(a.nAppend, 5);
        EXPECT_EQ(a.lPos, lPos);
        EXPECT_EQ(a.strContent, strData.substr(lPos, 1000));
        EXPECT_EQ(a.strMd5, brel_lib::md5(a.strContent));
        EXPECT_EQ(a.nAccessBit, 0640u);
    }
    EXPECT_TRUE(NothingMore());
    Answer a;
    Get(strPath, 1, 10, 1);
    ASSERT_TRUE(Next(a));
    EXPECT_EQ(a.strContent, strData.substr(1, 10));
    EXPECT_EQ(a.nAccessBit, 0u);

    std::string strEmpty = File("empty", "");
    chmod(strEmpty.c_str(), 0600);
    Get(strEmpty, 0, 50, 3);
    ASSERT_TRUE(Next(a));
    EXPECT_EQ(a.ret, 0);
    EXPECT_EQ(a.strContent, "");
    EXPECT_EQ(a.nAccessBit, 0600u);
    EXPECT_TRUE(NothingMore());

    g_bEnableMd5Calc = false;  // digests switched off: the block comes without one
    Get(strPath, 0, 100, 1);
    ASSERT_TRUE(Next(a));
    EXPECT_EQ(a.strContent.size(), 100u);
    EXPECT_EQ(a.strMd5, "");
}

// No path or a link: 314; a block size above the packet limit, however
// written: 334, the limit itself allowed; no block wanted: no answer.
TEST_F(ReadThreadTest, TheEdgesOfTheRefusals)
{
    std::string strPath = File("f", Pattern(100));
    std::string strLink = m_strDir + "/link";
    ASSERT_EQ(symlink(strPath.c_str(), strLink.c_str()), 0);
    const struct {
        std::string strPath;
        int nGetSize, nGetNum, nRet;  // -1: no answer
        size_t nContent;
    } rows[] = {{"", 10, 1, 314, 0},         {strLink, 10, 1, 314, 0},       {strPath, -1, 1, 334, 0},
                {strPath, 0x7FFFFFFF, 1, 334, 0}, {strPath, 0x8000001, 1, 334, 0}, {strPath, 0x8000000, 1, 0, 100},
                {strPath, 10, 0, -1, 0},     {strPath, 10, -3, -1, 0}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.strPath + " " + std::to_string(row.nGetSize) + " x " + std::to_string(row.nGetNum));
        Get(row.strPath, 0, row.nGetSize, row.nGetNum);
        Answer a;
        if (row.nRet == -1) {
            EXPECT_TRUE(NothingMore());
            continue;
        }
        ASSERT_TRUE(Next(a));
        EXPECT_EQ(a.ret, row.nRet);
        EXPECT_EQ(a.strContent.size(), row.nContent);
    }
}

// Connection 1 (stalled, takes nothing) asks for nNum blocks of the file, connection 2
// for two after it; returns what the stalled one got once connection 2 was served and
// nothing more came.
unsigned long long ReadThreadTest::StalledBytes(const std::string& strPath, int nBlock, int nNum, int nStalledFd,
                                                int nLiveFd)
{
    SetTaken(nStalledFd, 0);
    SetTaken(nLiveFd, 0);
    Get(strPath, 0, nBlock, nNum, 1, false, nStalledFd);
    Get(strPath, 0, nBlock, 2, 2, false, nLiveFd);
    // Bounds far above what a loaded sanitized run needs: they only end a failing one.
    unsigned long long lStalledBytes = 0;
    int nLive = 0;
    int64_t lDeadline = agent_test::SteadyMs() + 60000;
    while (nLive < 2 && agent_test::SteadyMs() < lDeadline) {
        Answer a;
        if (!Next(a, 100)) continue;
        if (a.nConnectId == 1) lStalledBytes += a.strContent.size();
        if (a.nConnectId == 2) ++nLive;
    }
    EXPECT_EQ(nLive, 2);
    Answer more;
    while (Next(more, 1000)) {
        if (more.nConnectId == 1) lStalledBytes += more.strContent.size();
    }
    return lStalledBytes;
}

TEST_F(ReadThreadTest, APeerThatTakesNothingWaitsWhileOthersAreServed)
{
    std::string strPath = File("big", Pattern(64 << 20));
    const int nStalledFd = 1000, nLiveFd = 1001;
    // The stalled connection stopped at its bound, one block beyond at most.
    unsigned long long lStalledBytes = StalledBytes(strPath, 512 * 1024, 128, nStalledFd, nLiveFd);
    EXPECT_GE(lStalledBytes, CFileReadThread::CONNECT_QUEUE_MAX - 512 * 1024);
    EXPECT_LE(lStalledBytes, CFileReadThread::CONNECT_QUEUE_MAX + 512 * 1024);
    EXPECT_EQ(m_thread.HeldRequests(), 1u);

    // The peer takes what it has: the rest follows, in order.
    SetTaken(nStalledFd, 1LL << 40);
    while (lStalledBytes < (64ULL << 20)) {
        Answer a;
        ASSERT_TRUE(Next(a, 20000));
        ASSERT_EQ(a.lPos, lStalledBytes);
        lStalledBytes += a.strContent.size();
    }
    EXPECT_TRUE(NothingMore());
    EXPECT_EQ(m_thread.HeldRequests(), 0u);
}

TEST_F(ReadThreadTest, LargeBlocksQueueNoMoreThanTheCeiling)
{
    // A peer asking for 16 MiB blocks and not reading them: eight of them
    // would be 128 MiB; the ceiling stops it at 64 MiB and the block in hand.
    std::string strPath = File("holes", "");
    ASSERT_EQ(truncate(strPath.c_str(), 256LL << 20), 0);
    const int nBlock = 16 << 20;
    unsigned long long lStalledBytes = StalledBytes(strPath, nBlock, 16, 1002, 1003);
    EXPECT_GE(lStalledBytes, CFileReadThread::CONNECT_QUEUE_CEILING);
    EXPECT_LE(lStalledBytes, CFileReadThread::CONNECT_QUEUE_CEILING + nBlock);
}
// A connection's requests wait behind its bound, up to a limit: one more drops
// them all; so does the connection's end.
TEST_F(ReadThreadTest, TooManyWaitingRequestsOrAGoneConnectionDropThemAll)
{
    std::string strPath = File("big", Pattern(32 << 20));
    SetTaken(1003, 0);
    for (size_t i = 0; i < CFileReadThread::CONNECT_HELD_MAX; ++i) Get(strPath, 0, 512 * 1024, 32, 4, false, 1003);
    EXPECT_TRUE(agent_test::WaitUntil([&] { return m_thread.HeldRequests() == CFileReadThread::CONNECT_HELD_MAX; }, 5000));
    Drain();
    Get(strPath, 0, 512 * 1024, 32, 4, false, 1003);
    EXPECT_TRUE(agent_test::WaitUntil([&] { return m_thread.HeldRequests() == 0; }, 5000));
    Drain();

    SetTaken(1002, 0);
    Get(strPath, 0, 512 * 1024, 64, 3, false, 1002);
    Get(strPath, 0, 512 * 1024, 64, 3, false, 1002);
    Drain();
    EXPECT_EQ(m_thread.HeldRequests(), 2u);
    m_thread.AddReq(new CFileReadThreadReqForget(3));
    EXPECT_TRUE(agent_test::WaitUntil([&] { return m_thread.HeldRequests() == 0; }, 3000));
    EXPECT_TRUE(NothingMore());
}

} // namespace

// The file source of the real agent, read by test peers built on the
// project's codec: blocks with their digests, positions beyond 4 GiB, the end
// of the file, look-aheads, heartbeats, the refusals of a get, unknown works,
// hostile peers, and a peer that stops reading while another is served.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <random>

#include "file_transfer_e2e.h"
#include "md5.h"
#include "zik_sample.h"

using namespace agent_test;

namespace {

const unsigned int BLOCK = 512 * 1024;

std::vector<unsigned char> Int(int n) { return Bytes({0x02, 0x01, n}); }

std::vector<unsigned char> Cat(std::initializer_list<std::vector<unsigned char>> parts)
{
    std::vector<unsigned char> all;
    for (const auto& part : parts) all.insert(all.end(), part.begin(), part.end());
    return all;
}

class AgentFileSource : public AgentEndToEnd {
protected:
    void SetUp() override
    {
        AgentEndToEnd::SetUp();
        if (IsSkipped()) return;
        m_nBeginPort = FreePortPair();
        ASSERT_NE(m_nBeginPort, 0);
        Tree().Config()["heartbeat_second"] = "5";
        Tree().Config()["file_trans_svr_begin_bind_port"] = std::to_string(m_nBeginPort);
        Server().SetAnswerHeartbeats(true);
        m_pid = StartAgent();
    }
    void TearDown() override
    {
        if (!IsSkipped()) Stop(m_pid);
    }

    std::string File(const std::string& strName, const std::string& strData, mode_t nMode = 0644)
    {
        std::string strPath = Tree().Path(strName);
        WriteFile(strPath, strData);
        chmod(strPath.c_str(), nMode);
        return strPath;
    }

    unsigned short Offer(unsigned int nWorkId, const std::string& strPath) { return OfferFile(Server(), nWorkId, strPath); }
    // The next answer's content; empty when none came in time.
    static std::string NextContent(FilePeer& peer)
    {
        FileBlock block;
        return peer.Next(block, 15000) ? block.strContent : "";
    }

    // Reads the blocks of one get and checks each against the data.
    void ExpectBlocks(FilePeer& peer, const std::string& strData, unsigned long long lFrom, unsigned long long lTo,
                      unsigned int nBlock, unsigned long long lTotal)
    {
        for (unsigned long long lPos = lFrom; lPos < lTo; lPos += nBlock) {
            FileBlock block;
            ASSERT_TRUE(peer.Next(block, 10000)) << lPos;
            ASSERT_EQ(block.ret, 0);
            ASSERT_EQ(block.lPos, lPos);
            ASSERT_EQ(block.lTotal, lTotal);
            size_t nLen = static_cast<size_t>(std::min<unsigned long long>(nBlock, lTo - lPos));
            ASSERT_EQ(block.strContent.size(), nLen);
            ASSERT_TRUE(block.strContent == strData.substr(static_cast<size_t>(lPos - lFrom), nLen)) << lPos;
            ASSERT_EQ(block.strMd5, brel_lib::md5(block.strContent));
        }
    }

    bool Silent(FilePeer& peer, int nMs = 500)
    {
        FileBlock block;
        return !peer.Next(block, nMs);
    }

    unsigned short m_nBeginPort = 0;
    pid_t m_pid = -1;
};

TEST_F(AgentFileSource, AFileIsServedBlockByBlockWithItsDigests)
{
    std::string strData = Pattern(3 * BLOCK + 1000, 1);
    std::string strPath = File("data", strData, 0640);
    // No bind address: the listener takes the searched port on every address.
    unsigned short nPort = Offer(1, strPath);
    ASSERT_EQ(nPort, m_nBeginPort);
    FilePeer peer;
    ASSERT_TRUE(peer.Connect(nPort, 3000));

    ASSERT_TRUE(peer.Get(1, 101, strPath, 0, BLOCK, 10, false, 77));
    FileBlock first;
    ASSERT_TRUE(peer.Next(first, 10000));
    EXPECT_EQ(first.nAppend, 77);
    EXPECT_EQ(first.nSrcWorkId, 1u);
    EXPECT_EQ(first.nDstWorkId, 101u);
    EXPECT_EQ(first.nAccessBit, 0640u);
    EXPECT_TRUE(first.strContent == strData.substr(0, BLOCK));
    ExpectBlocks(peer, strData.substr(BLOCK), BLOCK, strData.size(), BLOCK, strData.size());
    EXPECT_TRUE(Silent(peer));  // the short block ended the request

    // At the end: one empty answer with ret 0; a look-ahead inside the file is served.
    for (bool bPreGet : {false, true}) {
        unsigned long long lPos = bPreGet ? 1000 : strData.size();
        ASSERT_TRUE(peer.Get(1, 101, strPath, lPos, bPreGet ? 100 : BLOCK, bPreGet ? 1 : 4, bPreGet));
        FileBlock block;
        ASSERT_TRUE(peer.Next(block, 5000));
        EXPECT_EQ(block.ret, 0);
        EXPECT_EQ(block.lPos, bPreGet ? lPos : 0u);
        EXPECT_TRUE(block.strContent == strData.substr(static_cast<size_t>(lPos), 100));
        EXPECT_TRUE(Silent(peer));
    }
    // A look-ahead beyond the end, a heartbeat and a get of size 0 get no answers.
    ASSERT_TRUE(peer.Get(1, 101, strPath, strData.size() + 1, 100, 1, true));
    ASSERT_TRUE(peer.Heartbeat(1, 101));
    ASSERT_TRUE(peer.Get(1, 101, strPath, 0, 0, 5));
    EXPECT_TRUE(Silent(peer));
    // The connection still serves.
    ASSERT_TRUE(peer.Get(1, 101, strPath, 5, 10, 1));
    EXPECT_TRUE(NextContent(peer) == strData.substr(5, 10));
    EXPECT_TRUE(Tree().WaitForLog("CFileReadThread::ReqFileAgentGet(pre get, over file size", 3000));
    EXPECT_TRUE(Tree().WaitForLog("CFileReadThread::ReqFileAgentGet(file transit heartbeat, work id: 1", 3000));
}

TEST_F(AgentFileSource, PositionsBeyond4GiBOfASparseFile)
{
    std::string strPath = Tree().Path("sparse");
    const unsigned long long lPos = (6ULL << 30) + 777;
    std::string strTail = Pattern(2 * BLOCK, 2);
    int fd = open(strPath.c_str(), O_CREAT | O_WRONLY, 0644);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(pwrite(fd, strTail.data(), strTail.size(), static_cast<off_t>(lPos)),
              static_cast<ssize_t>(strTail.size()));
    close(fd);
    unsigned short nPort = Offer(2, strPath);
    FilePeer peer;
    ASSERT_TRUE(peer.Connect(nPort, 3000));
    ASSERT_TRUE(peer.Get(2, 5, strPath, lPos, BLOCK, 2));
    ExpectBlocks(peer, strTail, lPos, lPos + strTail.size(), BLOCK, lPos + strTail.size());
    EXPECT_TRUE(Silent(peer));
}

TEST_F(AgentFileSource, TheRefusalsOfAGetLeaveTheConnectionServing)
{
    std::string strPath = File("data", Pattern(1000, 3));
    unsigned short nPort = Offer(3, strPath);
    std::string strDir = Tree().Path("dir");
    ASSERT_EQ(mkdir(strDir.c_str(), 0755), 0);
    std::string strFifo = Tree().Path("fifo");
    ASSERT_EQ(mkfifo(strFifo.c_str(), 0644), 0);
    FilePeer peer;
    ASSERT_TRUE(peer.Connect(nPort, 3000));
    struct Case {
        std::string strPath;
        unsigned long long lPos;
        int nGetSize;
        int nRet;
    };
    // The path read is the get's own, whatever the work offered.
    std::vector<Case> vecCases = {
        {Tree().Path("missing"), 0, 100, 314}, {strDir, 0, 100, 314}, {strFifo, 0, 100, 314}, {strPath, 1001, 100, 316},
        {strPath, 0, 0x8000001, 334},          {strPath, 0, 100, 0},
    };
    for (const Case& c : vecCases) {
        ASSERT_TRUE(peer.Get(3, 9, c.strPath, c.lPos, c.nGetSize, 1));
        FileBlock block;
        ASSERT_TRUE(peer.Next(block, 5000)) << c.strPath;
        EXPECT_EQ(block.ret, c.nRet) << c.strPath;
    }
}

TEST_F(AgentFileSource, AnUnknownWorkClosesTheConnection)
{
    std::string strPath = File("data", Pattern(1000, 4));
    unsigned short nPort = Offer(4, strPath);
    FilePeer get, beat;
    ASSERT_TRUE(get.Connect(nPort, 3000));
    ASSERT_TRUE(beat.Connect(nPort, 3000));
    ASSERT_TRUE(get.Get(44, 9, strPath, 0, 100, 1));
    EXPECT_TRUE(get.WaitClosedBySource(5000));
    ASSERT_TRUE(beat.Heartbeat(44, 9));
    EXPECT_TRUE(beat.WaitClosedBySource(5000));
    EXPECT_TRUE(Tree().WaitForLog("can not find src work id, work id: 44", 3000));
}

// A good peer pulls a file again and again in a thread of its own while the
// test plays the hostile ones; its blocks must all arrive, and correct.
class GoodPeer {
public:
    GoodPeer(unsigned short nPort, unsigned int nWorkId, const std::string& strPath, const std::string& strData)
        : m_thread([=] { Pull(nPort, nWorkId, strPath, strData); })
    {
    }
    ~GoodPeer() { Finish(); }
    int Finish()
    {
        m_bStop = true;
        if (m_thread.joinable()) m_thread.join();
        return m_nRounds;
    }
    bool Failed() const { return m_bFailed; }

private:
    void Pull(unsigned short nPort, unsigned int nWorkId, const std::string& strPath, const std::string& strData)
    {
        FilePeer peer;
        if (!peer.Connect(nPort, 3000)) m_bFailed = true;
        while (!m_bStop && !m_bFailed) {
            if (!peer.Get(nWorkId, 1, strPath, 0, BLOCK, static_cast<int>(strData.size() / BLOCK))) m_bFailed = true;
            for (size_t lPos = 0; lPos < strData.size() && !m_bFailed; lPos += BLOCK) {
                FileBlock block;
                if (!peer.Next(block, 20000) || block.lPos != lPos || block.strMd5 != brel_lib::md5(block.strContent) ||
                    block.strContent != strData.substr(lPos, BLOCK)) {
                    m_bFailed = true;
                }
            }
            ++m_nRounds;
        }
    }

    std::atomic<bool> m_bStop{false};
    std::atomic<bool> m_bFailed{false};
    std::atomic<int> m_nRounds{0};
    std::thread m_thread;
};

TEST_F(AgentFileSource, HostilePeersAreClosedWhileAnotherIsServed)
{
    std::string strData = Pattern(16 * BLOCK, 5);
    std::string strPath = File("data", strData);
    unsigned short nPort = Offer(5, strPath);
    long lRssBefore = ResidentKiB(m_pid);
    GoodPeer good(nPort, 5, strPath, strData);

    std::mt19937 gen(17);
    std::vector<unsigned char> random(200);
    for (unsigned char& c : random) c = static_cast<unsigned char>(gen());
    std::vector<unsigned char> stream = random;
    stream[0] = 0x31;
    // A packet announced larger than any request (closed on its header alone),
    // an envelope without a body, random bytes as a stream and framed as a packet.
    for (const std::vector<unsigned char>& bytes :
         {Bytes({0x30, 0x83, 0x01, 0x00, 0x01}), Bytes({0x30, 0x84, 0x07, 0xff, 0xff, 0xf0}),
          Bytes({0x30, 0x06, 0x02, 0x01, 0x04, 0x02, 0x01, 0x05}), stream, Tlv({0x30}, random)}) {
        FilePeer peer;
        ASSERT_TRUE(peer.Connect(nPort, 10000));
        ASSERT_TRUE(peer.WriteRaw(bytes));
        EXPECT_TRUE(peer.WaitClosedBySource(20000)) << bytes.size();
    }
    // A get (212) whose path is a constructed string of 30,000 empty segments.
    {
        std::vector<unsigned char> bomb = PacketOf(
            212, Cat({Int(1), Int(5), Tlv({0x24}, Repeat({0x04, 0x00}, 30000)), Int(0), Int(0), Int(100), Int(1)}));
        ASSERT_LT(bomb.size(), 65536u);
        FilePeer peer;
        ASSERT_TRUE(peer.Connect(nPort, 10000));
        int64_t lStart = SteadyMs();
        ASSERT_TRUE(peer.WriteRaw(bomb));
        // Refused as a get of an empty path, or closed: either way at once.
        FileBlock block;
        bool bAnswered = peer.Next(block, 20000);
        if (bAnswered) {
            EXPECT_EQ(block.ret, 314);
        } else {
            EXPECT_TRUE(peer.WaitClosedBySource(20000));
        }
        RecordProperty("constructed_string_ms", static_cast<int>(SteadyMs() - lStart));
    }
    // A message of another kind with a list of 20,000 tiny elements: not
    // served, and the connection stays for the next get.
    {
        std::vector<unsigned char> bomb = PacketOf(
            604, Cat({Int(1), Bytes({0x04, 0x01, 'a', 0x04, 0x01, 'b'}), Tlv({0x30}, Repeat({0x02, 0x01, 0x07}, 20000)),
                      Repeat({0x02, 0x01, 0x00}, 5), Bytes({0x04, 0x00}), Repeat({0x02, 0x01, 0x00}, 6)}));
        ASSERT_LT(bomb.size(), 65536u);
        FilePeer peer;
        ASSERT_TRUE(peer.Connect(nPort, 10000));
        ASSERT_TRUE(peer.WriteRaw(bomb));
        ASSERT_TRUE(peer.Get(5, 2, strPath, 0, 10, 1));
        EXPECT_TRUE(NextContent(peer) == strData.substr(0, 10));
        EXPECT_TRUE(Tree().WaitForLog("we recevie a data, but we don't know it, the choiceid: 55", 10000));
    }
    int nRounds = good.Finish();
    EXPECT_FALSE(good.Failed());
    EXPECT_GT(nRounds, 0);
    long lRssAfter = ResidentKiB(m_pid);
    EXPECT_LT(lRssAfter - lRssBefore, 64 * 1024) << lRssBefore << " KiB before, " << lRssAfter << " after";
}

TEST_F(AgentFileSource, APeerThatStopsReadingDoesNotHoldUpAnother)
{
    // 1 GiB of holes for the stopped peer, 32 MiB of data for the other.
    std::string strSparse = Tree().Path("sparse");
    ASSERT_EQ(truncate(File("sparse", "").c_str(), 1LL << 30), 0);
    std::string strData = Pattern(64 * BLOCK, 6);
    std::string strPath = File("data", strData);
    unsigned short nPort = Offer(6, strSparse);
    ASSERT_EQ(Offer(7, strPath), nPort);
    long lRssBefore = ResidentKiB(m_pid);

    // The stopping peer is a process of its own: it asks for all of it, reads
    // a little, and is stopped.
    int pipeFd[2];
    ASSERT_EQ(pipe(pipeFd), 0);
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        FilePeer peer;
        if (!peer.Connect(nPort, 3000) || !peer.Get(6, 1, strSparse, 0, BLOCK, 2048)) _exit(1);
        FileBlock block;
        if (!peer.Next(block, 10000)) _exit(2);
        if (write(pipeFd[1], "r", 1) != 1) _exit(3);
        while (true) peer.Next(block, 1000);
    }
    close(pipeFd[1]);
    char c = 0;
    ASSERT_EQ(read(pipeFd[0], &c, 1), 1);
    close(pipeFd[0]);
    kill(child, SIGSTOP);

    FilePeer peer;
    ASSERT_TRUE(peer.Connect(nPort, 3000));
    int64_t lStart = SteadyMs();
    ASSERT_TRUE(peer.Get(7, 2, strPath, 0, BLOCK, 64));
    ExpectBlocks(peer, strData, 0, strData.size(), BLOCK, strData.size());
    int64_t lMs = std::max<int64_t>(1, SteadyMs() - lStart);
    RecordProperty("served_mib_per_second", static_cast<int>(32 * 1000 / lMs));
    // Time for an unbounded source to pile up far more than the bound: a
    // slower machine only makes the check weaker, never false.
    SleepMs(3000);
    long lRssAfter = ResidentKiB(m_pid);
    kill(child, SIGKILL);
    int nStatus = 0;
    waitpid(child, &nStatus, 0);
    // Without a bound the stopped peer's gigabyte would pile up in the agent.
    // ThreadSanitizer's shadow of every page the agent touches counts in its
    // resident set too, some four times the page.
#if defined(__SANITIZE_THREAD__)
    const long lBoundKiB = 4 * 64 * 1024;
#else
    const long lBoundKiB = 64 * 1024;
#endif
    EXPECT_LT(lRssAfter - lRssBefore, lBoundKiB) << lRssBefore << " KiB before, " << lRssAfter << " after";
}

TEST_F(AgentFileSource, APeerThatAsksWithoutReadingIsClosed)
{
    std::string strData = Pattern(BLOCK, 7);
    std::string strPath = File("data", strData);
    unsigned short nPort = Offer(8, strPath);
    FilePeer peer;
    ASSERT_TRUE(peer.Connect(nPort, 3000));
    // Far more requests than a destination keeps open, and nothing read.
    std::vector<unsigned char> bytes;
    for (int i = 0; i < 3000; ++i) {
        ReqWorkFileAgentGet get;
        get.srcWorkId = 8;
        get.dstWorkId = 1;
        get.srcFile.Set(strPath.data(), strPath.size());
        get.getSize = 65536;
        get.getNum = 1;
        std::vector<unsigned char> one = EncodeMessage(get, i);
        bytes.insert(bytes.end(), one.begin(), one.end());
    }
    ASSERT_TRUE(peer.WriteRaw(bytes));
    EXPECT_TRUE(Tree().WaitForLog("too many requests wait for the client, we close it", 10000));
    EXPECT_TRUE(peer.WaitClosedBySource(10000));
    // The source goes on serving others.
    FilePeer other;
    ASSERT_TRUE(other.Connect(nPort, 3000));
    ASSERT_TRUE(other.Get(8, 2, strPath, 0, 100, 1));
    EXPECT_TRUE(NextContent(other) == strData.substr(0, 100));
}

// The source's part in the agent's start and reload.
class AgentFileSourceStart : public AgentEndToEnd {};

TEST_F(AgentFileSourceStart, NoUsableInterfaceEndsTheAgentAtStartAndAtReload)
{
    Tree().Config()["file_trans_svr_bind_eth"] = "nosuch0 | 999.1.1.1";
    EXPECT_EQ(RunToExit(), 1);
    EXPECT_TRUE(Tree().WaitForLog("file_trans_svr_bind_eth in cfg file is error: nosuch0 | 999.1.1.1", 1000));

    Tree().Config()["file_trans_svr_bind_eth"] = "nosuch0|127.0.0.1";  // the second piece serves
    pid_t pid = StartAgent();
    Tree().Config()["file_trans_svr_bind_eth"] = "nosuch0";
    Tree().WriteConfig();
    kill(pid, SIGUSR1);
    EXPECT_EQ(Tree().WaitExit(pid, 5000), 1);
}

TEST_F(AgentFileSourceStart, TheStartWipesTheCacheDirectoryAndNothingElse)
{
    std::string strCache = Tree().Path("cache");
    ASSERT_EQ(mkdir((strCache + "/sub").c_str(), 0755), 0);
    WriteFile(strCache + "/sub/old", "x");
    WriteFile(strCache + "/old", "x");
    WriteFile(Tree().Path("beside"), "x");
    pid_t pid = StartAgent();
    struct stat st;
    EXPECT_EQ(stat(strCache.c_str(), &st), 0);
    EXPECT_NE(stat((strCache + "/old").c_str(), &st), 0);
    EXPECT_NE(stat((strCache + "/sub").c_str(), &st), 0);
    EXPECT_EQ(ReadFile(Tree().Path("beside")), "x");
    Stop(pid);
}

TEST_F(AgentFileSourceStart, AReloadWithPrintAgentInfoDumpsTheWorks)
{
    Server().SetAnswerHeartbeats(true);
    pid_t pid = StartAgent();
    std::string strPath = Tree().Path("data");
    WriteFile(strPath, "x");
    ASSERT_NE(OfferFile(Server(), 61, strPath), 0);
    Tree().Config()["print_agent_info"] = "1";
    Tree().WriteConfig();
    kill(pid, SIGUSR1);
    std::string strDump;
    EXPECT_TRUE(WaitUntil(
        [&] {
            strDump = ReadFile(Tree().Path("log/file_svr_info"));
            return strDump.find("[End] Read Thread") != std::string::npos;
        },
        5000));
    EXPECT_NE(strDump.find("m_mapWork.size: 1\n"), std::string::npos);
    EXPECT_NE(strDump.find("nWorkId: 61\n"), std::string::npos);
    EXPECT_NE(strDump.find("strSrcFile: " + strPath + "\n"), std::string::npos);
    Stop(pid);
}

} // namespace

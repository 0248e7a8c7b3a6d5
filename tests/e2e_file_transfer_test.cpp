// Files pulled by a real destination agent from a real source agent on
// 127.0.0.1, driven as the work server would: the result report, the bytes
// on disk.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include "file_transfer_e2e.h"

using namespace agent_test;

namespace {

const unsigned int BLOCK = 512 * 1024;

class FileTransferTest : public AgentFileTransfer {
protected:
    void SetUp() override
    {
        AgentFileTransfer::SetUp();
        if (IsSkipped()) return;
        // The 4 GiB file goes without digests, which other cases check, so
        // that its time stays far below the test's bound on a loaded machine.
        if (std::string(::testing::UnitTest::GetInstance()->current_test_info()->name()).find("FourGiB") !=
            std::string::npos) {
            SrcConfig()["file_trans_svr_enable_md5_calc"] = "0";
            DstConfig()["file_trans_client_enable_md5_check"] = "0";
        }
        StartAgents();
    }
};

TEST_F(FileTransferTest, SmallFilesArriveByteIdenticalWithRetZero)
{
    struct Case {
        const char* szName;
        size_t nSize;
    } cases[] = {{"empty", 0}, {"one", 1}, {"two_blocks", 2 * BLOCK}, {"odd", 3 * BLOCK + 77}};
    unsigned int nWorkId = 100;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.szName);
        std::string strSrc = SrcTree().Path(std::string("src_") + c.szName);
        WriteFile(strSrc, Pattern(c.nSize, nWorkId));
        chmod(strSrc.c_str(), 0640);
        std::string strDst = Tree().Path(std::string("dst_") + c.szName);
        EXPECT_EQ(Transfer(++nWorkId, strSrc, strDst), 0);
        EXPECT_TRUE(SameFile(strSrc, strDst));
        struct stat st;
        ASSERT_EQ(stat(strDst.c_str(), &st), 0);
        EXPECT_EQ(st.st_mode & 0777, 0640u & ~0022u) << "a new file takes the source's bits under the umask";
    }
}

TEST_F(FileTransferTest, AFewHundredMiBArriveByteIdentical)
{
    TempDir dir("agent_test_", "/dev/shm");  // the large files in memory
    std::string strSrc = dir.Path("big_src");
    {
        std::string strChunk = Pattern(16 << 20, 3);
        int fd = open(strSrc.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        ASSERT_GE(fd, 0);
        int nChunks = kSanitized ? 3 : 18;
        for (int i = 0; i < nChunks; ++i) {
            strChunk[0] = static_cast<char>(i);
            ASSERT_EQ(write(fd, strChunk.data(), strChunk.size()), static_cast<ssize_t>(strChunk.size()));
        }
        ASSERT_EQ(write(fd, "tail", 4), 4);
        close(fd);
    }
    std::string strDst = dir.Path("big_dst");
    EXPECT_EQ(Transfer(200, strSrc, strDst, 90000), 0);
    EXPECT_TRUE(SameFile(strSrc, strDst));
}

TEST_F(FileTransferTest, ASparseFileBeyondFourGiBArrivesByteIdentical)
{
    if (kSanitized) GTEST_SKIP() << "4 GiB through a sanitized agent (twenty times slower) takes too long";
    TempDir dir("agent_test_", "/dev/shm");  // the large files in memory
    std::string strSrc = dir.Path("sparse_src");
    const off_t lSize = (4LL << 30) + 3 * BLOCK + 123;
    {
        int fd = open(strSrc.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(ftruncate(fd, lSize), 0);
        std::string strMark = Pattern(BLOCK + 5, 9);
        // Data at the start, across the 4 GiB line and at the end.
        ASSERT_EQ(pwrite(fd, strMark.data(), strMark.size(), 0), static_cast<ssize_t>(strMark.size()));
        ASSERT_EQ(pwrite(fd, strMark.data(), strMark.size(), (4LL << 30) - 1000), static_cast<ssize_t>(strMark.size()));
        ASSERT_EQ(pwrite(fd, "end", 3, lSize - 3), 3);
        close(fd);
    }
    std::string strDst = dir.Path("sparse_dst");
    EXPECT_EQ(Transfer(300, strSrc, strDst, 110000), 0);
    EXPECT_TRUE(SameFile(strSrc, strDst));
    unlink(strDst.c_str());
}

} // namespace

// After a transfer both agents run every thread they have: the source's
// listener and read threads, the destination's loop and write threads. Idle,
// each waits for events until a deadline mostly a minute away (ten seconds for
// the loops, the heartbeat's five for the session), so only a stop that wakes
// every thread ends both agents in a few seconds, under any load.
TEST_F(FileTransferTest, BothAgentsStopAtOnceWithEveryThreadRunning)
{
    std::string strSrc = SrcTree().Path("src_stop");
    WriteFile(strSrc, Pattern(BLOCK + 1, 9));
    ASSERT_EQ(Transfer(900, strSrc, Tree().Path("dst_stop")), 0);
    SleepMs(1000);  // every thread back in its wait
    int64_t lBegin = SteadyMs();
    kill(m_nDstPid, SIGINT);
    kill(m_nSrcPid, SIGINT);
    EXPECT_EQ(Tree().WaitExit(m_nDstPid, 60000), 0);
    EXPECT_EQ(SrcTree().WaitExit(m_nSrcPid, 60000), 0);
    EXPECT_LT(SteadyMs() - lBegin, 4000) << "a thread waited for its deadline instead of being woken";
    EXPECT_NE(Tree().ReadLog().find("we end"), std::string::npos);
    EXPECT_NE(SrcTree().ReadLog().find("we end"), std::string::npos);
}

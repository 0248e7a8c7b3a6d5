// A real destination agent pulling from a real source agent that stalls, dies,
// comes back or never does, with the destination's timers shrunk to seconds:
// repeats and reconnects, time limits, the reports and expiry of finished
// works, and the works of one cache id that share one pull. The sweep runs
// every 5 seconds, so each case asserts the order of events and their codes.
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>

#include "file_transfer_e2e.h"
#include "loop_harness.h"

using namespace agent_test;

namespace {

// The begin position of the first block written for the work at or after
// the offset of the log; -1 if none.
long long FirstBlockPos(const std::string& strLog, unsigned int nWorkId, size_t nFrom)
{
    std::string strWhat = "RspFileAgentGet(work id: " + std::to_string(nWorkId) + ", begin pos: ";
    size_t i = strLog.find(strWhat, nFrom);
    return i == std::string::npos ? -1 : atoll(strLog.c_str() + i + strWhat.size());
}

const size_t SIZE = 2 << 20;

class FileRetryTest : public AgentFileTransfer {
protected:
    // The destination pulls slowly, in small requests, so that a case can act
    // half-way; then both agents start.
    void StartSlow(const std::map<std::string, std::string>& mapKeys, int nSpeed = 131072)
    {
        DstConfig()["file_trans_enable_speed"] = "1";
        DstConfig()["file_trans_client_max_recv_speed"] = std::to_string(nSpeed);
        DstConfig()["file_trans_client_get_size_per_req"] = "16384";
        DstConfig()["file_trans_client_enable_auto_adjust_speed"] = "0";
        for (const auto& item : mapKeys) DstConfig()[item.first] = item.second;
        StartAgents();
    }

    void TearDown() override
    {
        if (m_nSrcPid > 0) kill(m_nSrcPid, SIGCONT);
        AgentFileTransfer::TearDown();
    }

    // A source file of n bytes, offered under the work id; its port.
    unsigned short OfferPattern(unsigned int nSrcWorkId, size_t n, std::string& strSrc)
    {
        strSrc = SrcTree().Path("src_" + std::to_string(nSrcWorkId));
        WriteFile(strSrc, Pattern(n, nSrcWorkId));
        return Offer(nSrcWorkId, strSrc);
    }

    // Offers a file of n bytes, creates and starts a plain work for it; false if a step fails.
    bool StartPlain(unsigned int nWorkId, size_t n)
    {
        m_nPort = OfferPattern(nWorkId, n, m_strSrc);
        m_strDst = Tree().Path("dst_" + std::to_string(nWorkId));
        size_t nMark = Mark();
        SendCreate(nWorkId, m_strSrc, m_strDst, m_nPort, nWorkId);
        if (m_nPort == 0 || WaitReply<RspWorkFileDstCreate>(nWorkId, nMark, 5000) != 0) return false;
        SendSetAction(nWorkId);
        return true;
    }
    bool Reached(const std::string& strPath, long long lSize)
    {
        return WaitUntil([&] { return FileSize(strPath) >= lSize; }, 20000);
    }
    // A plain work of a file of SIZE bytes, with its first 256 KiB on disk.
    bool UnderWay(unsigned int nWorkId) { return StartPlain(nWorkId, SIZE) && Reached(m_strDst, 256 << 10); }
    std::string m_strSrc, m_strDst;  // of the plain work
    unsigned short m_nPort = 0;

    // Works nFirst.. of one cache id, for the file of the source work nFirst - 1 (offered here), with
    // their own time limits; each is answered 331. The packet mark before them.
    size_t CreateCached(unsigned int nFirst, const std::string& strCacheId, size_t nSize, std::vector<int> vecTimeout)
    {
        unsigned short nPort = m_nPort = OfferPattern(nFirst - 1, nSize, m_strSrc);
        EXPECT_NE(nPort, 0);
        size_t nMark = Mark();
        for (unsigned int n = 0; n < vecTimeout.size(); ++n)
            SendCreate2(nFirst + n, m_strSrc, strCacheId, nPort, nFirst - 1, 0x400, nSize, {Loopback()}, vecTimeout[n]);
        for (unsigned int n = nFirst; n < nFirst + vecTimeout.size(); ++n)
            EXPECT_EQ(WaitReply<RspWorkFileDstCreate>(n, nMark, 5000), 331) << n;
        return nMark;
    }

    void KillSource()
    {
        kill(m_nSrcPid, SIGKILL);
        SrcTree().WaitExit(m_nSrcPid, 5000);
        m_nSrcPid = -1;
    }

    // The index of the n-th result of the work after packet nFrom; -1 if none.
    long IndexOfResult(unsigned int nWorkId, size_t nFrom, size_t n = 1)
    {
        auto vec = Server().Messages<RspWorkFileDstQuery>(ResultOf(nWorkId), nFrom);
        return vec.size() < n ? -1 : static_cast<long>(vec[n - 1].nIndex);
    }
};

TEST_F(FileRetryTest, AStalledSourceGetsRepeatsAndThen318)
{
    StartSlow({{"file_trans_client_reget_timeout_second", "1"}, {"file_trans_client_reget_failed_timeout_second", "6"}});
    size_t nMark = Mark();
    ASSERT_TRUE(UnderWay(500));
    const std::string strRepeat = "(retry get, work id: 500";
    kill(m_nSrcPid, SIGSTOP);
    ASSERT_TRUE(Tree().WaitForLog(strRepeat, 20000));
    kill(m_nSrcPid, SIGCONT);
    long long lResumed = FileSize(m_strDst);
    ASSERT_TRUE(Reached(m_strDst, lResumed + (256 << 10))) << "the pull went on after the repeat";
    int nRepeats = CountOf(Tree().ReadLog(), strRepeat);

    kill(m_nSrcPid, SIGSTOP);
    RspWorkFileDstQuery result;
    ASSERT_TRUE(WaitResult(500, nMark, 60000, result));
    EXPECT_EQ(result.ret.value, 318);
    EXPECT_LT(static_cast<size_t>(result.okSizeLow.value), SIZE);
    std::string strLog = Tree().ReadLog();
    size_t nEnd = strLog.find("task is timeout out of max retry count, work id: 500");
    ASSERT_NE(nEnd, std::string::npos);
    EXPECT_GT(CountOf(strLog.substr(0, nEnd), strRepeat), nRepeats) << "repeats came first";
    std::string strGot = ReadFile(m_strDst);
    EXPECT_EQ(strGot.size(), static_cast<size_t>(result.okSizeLow.value));
    EXPECT_TRUE(strGot == ReadFile(m_strSrc).substr(0, strGot.size())) << "no block twice, none missing";
}

// The source's agent dies and comes back with the same source work on the same
// port within the allowance of reconnects: the work goes on where it stood.
TEST_F(FileRetryTest, AKilledSourceThatComesBackLetsTheWorkResumeByteIdentical)
{
    StartSlow({{"file_trans_client_retry_connect_second", "60"}});
    size_t nMark = Mark();
    ASSERT_TRUE(UnderWay(510));
    KillSource();
    ASSERT_TRUE(Tree().WaitForLog("need retry connect, async connecting the file svr, work id: 510", 15000));
    size_t nRetry = Tree().ReadLog().find("need retry connect, async connecting the file svr, work id: 510");

    int nBefore = SrcServer().Count(Zik::reqWorkAgentHeartbeatCid);
    m_nSrcPid = SrcTree().StartForeground();
    ASSERT_TRUE(SrcServer().WaitFor(Zik::reqWorkAgentHeartbeatCid, 5000, nullptr, static_cast<size_t>(nBefore) + 1));
    ASSERT_EQ(Offer(510, m_strSrc), m_nPort);
    RspWorkFileDstQuery result;
    ASSERT_TRUE(WaitResult(510, nMark, 60000, result));
    EXPECT_EQ(result.ret.value, 0);
    EXPECT_TRUE(SameFile(m_strSrc, m_strDst));
    EXPECT_GT(FirstBlockPos(Tree().ReadLog(), 510, nRetry), 0) << "the pull went on from its position";
}

// With 15 seconds, two sweeps try to connect and the third gives up.
TEST_F(FileRetryTest, ASourceThatNeverComesBackIs317AfterThreeSweeps)
{
    StartSlow({{"file_trans_client_retry_connect_second", "15"}});
    size_t nMark = Mark();
    ASSERT_TRUE(UnderWay(520));
    KillSource();
    RspWorkFileDstQuery result;
    ASSERT_TRUE(WaitResult(520, nMark, 60000, result));
    EXPECT_EQ(result.ret.value, 317);
    EXPECT_GT(result.okSizeLow.value, 0);
    EXPECT_EQ(CountOf(Tree().ReadLog(), "need retry connect"), 2);
}

// A master, a slave with a short time of its own and one with none: the short
// one ends alone, and again with the master's 324, which the other shares.
TEST_F(FileRetryTest, ATimeLimitGives324ToEveryWorkSlavesIncluded)
{
    StartSlow({}, 65536);
    size_t nMark = CreateCached(601, Tree().Path("cache/timed"), SIZE, {11, 1, 0});
    ASSERT_TRUE(WaitUntil([&] { return IndexOfResult(602, nMark, 2) >= 0; }, 60000));
    EXPECT_LT(IndexOfResult(602, nMark), IndexOfResult(601, nMark)) << "the slave's own time ran out first";
    for (unsigned int n = 601; n <= 603; ++n) EXPECT_EQ(Results(n, nMark, 5000, 0), std::vector<int>(n == 602 ? 2 : 1, 324)) << n;
}

// Reports at the end and once per period until the keep time drops the work;
// a work never started goes without a word.
TEST_F(FileRetryTest, ResultsRepeatAtTheirPeriodUntilExpiryAndAnUnstartedWorkGoesSilently)
{
    StartSlow({{"task_finish_send_result_dis_second_before_auto_delete", "5"},
               {"file_trans_client_finish_keep_second_before_auto_delete", "12"},
               {"file_trans_client_not_begin_keep_second_before_auto_delete", "5"}});
    size_t nMark = Mark();
    std::string strSrc;
    unsigned short nPort = OfferPattern(700, 100 << 10, strSrc);
    SendCreate(701, strSrc, Tree().Path("dst_idle"), nPort, 700);
    ASSERT_EQ(WaitReply<RspWorkFileDstCreate>(701, nMark, 5000), 0);
    ASSERT_TRUE(StartPlain(702, 100 << 10));
    RspWorkFileDstQuery result;
    ASSERT_TRUE(WaitResult(702, nMark, 20000, result));
    EXPECT_EQ(result.ret.value, 0);
    ASSERT_TRUE(Tree().WaitForLog("auto delete finish task, work id: 702", 60000));
    EXPECT_TRUE(Tree().WaitForLog("auto delete not begin task, work id: 701", 1000));
    std::vector<int> vecRet;
    ASSERT_TRUE(WaitUntil([&] { return (vecRet = Results(702, nMark, 0, 0)).size() >= 3; }, 5000))
        << "the end, a period, and the drop";
    EXPECT_EQ(vecRet, std::vector<int>(vecRet.size(), 0));
    EXPECT_TRUE(Results(701, nMark, 0, 0).empty());
    size_t nQuery = Mark();
    SendQuery(701);
    SendQuery(702);
    EXPECT_EQ(WaitReply<RspWorkFileDstQuery>(701, nQuery, 5000), 300);
    EXPECT_EQ(WaitReply<RspWorkFileDstQuery>(702, nQuery, 5000), 300);
}

TEST_F(FileRetryTest, ThreeWorksOfOneCacheIdShareOneConnectionAndOneResult)
{
    StartAgents();
    std::string strCacheId = Tree().Path("cache/shared");
    size_t nMark = CreateCached(801, strCacheId, 600 << 10, {0, 0, 0});
    for (unsigned int n = 801; n <= 803; ++n) {
        RspWorkFileDstQuery result;
        ASSERT_TRUE(WaitResult(n, nMark, 20000, result)) << n;
        EXPECT_EQ(result.ret.value, 0) << n;
        EXPECT_EQ(result.okSizeLow.value, 600 << 10) << n;
    }
    EXPECT_TRUE(SameFile(m_strSrc, strCacheId));
    EXPECT_EQ(CountOf(Tree().ReadLog(), "async connect the file svr is sucess"), 1);
    // A further create of the finished id is answered from the cache.
    nMark = Mark();
    SendCreate2(804, m_strSrc, strCacheId, m_nPort, 800, 0x400, 600 << 10, {Loopback()});
    EXPECT_EQ(WaitReply<RspWorkFileDstCreate>(804, nMark, 5000), 330);
}

TEST_F(FileRetryTest, DeletingTheMasterHalfWayHandsThePullToASlaveWithoutTruncating)
{
    StartSlow({});
    std::string strCacheId = Tree().Path("cache/handed");
    size_t nMark = CreateCached(901, strCacheId, SIZE, {0, 0, 0});
    ASSERT_TRUE(Reached(strCacheId, SIZE / 2));
    size_t nDelete = Mark();
    SendDelete(901);
    EXPECT_EQ(WaitReply<RspWorkFileDstDelete>(901, nDelete, 5000), 0);
    for (unsigned int n = 902; n <= 903; ++n) {
        RspWorkFileDstQuery result;
        ASSERT_TRUE(WaitResult(n, nMark, 60000, result)) << n;
        EXPECT_EQ(result.ret.value, 0) << n;
    }
    EXPECT_TRUE(SameFile(m_strSrc, strCacheId));
    EXPECT_TRUE(Results(901, nMark, 0, 0).empty());
    std::string strLog = Tree().ReadLog();
    EXPECT_NE(strLog.find("the slave become master, async connecting the file svr, work id: 901"), std::string::npos);
    EXPECT_GE(FirstBlockPos(strLog, 902, 0), static_cast<long long>(SIZE / 2)) << "the new master went on";
}

} // namespace

// The file destination's replies and results through the server session, run
// in-process on a clock the test moves, against a test peer that stands in
// for the source agent: the sweep's codes on the moved clock, the flags, the
// pipeline, master and slave, and the encrypted requests. The codes that the
// real agent shows from outside are in e2e_file_dst_codes_test.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "file_peer.h"
#include "md5.h"
#include "session_harness.h"

using namespace agent_test;

namespace {

const unsigned int LOOPBACK = SessionHarness::Loopback();
const char* const NO_REGET_TIMEOUTS =
    "file_trans_client_reget_timeout_second = 100000\nfile_trans_client_reget_failed_timeout_second = 100000\n";

// The session with the destination, and a peer listening where the source would.
class FileDstSession : public ::testing::Test {
protected:
    void Begin(const std::string& strConfig = "", bool bKeys = false)
    {
        m_pSession = std::make_unique<SessionHarness>("work_history_keep_second = 10\n" + strConfig);
        if (bKeys) {
            ASSERT_TRUE(S().MakeKeys());
        }
        m_pSession->Start();
    }
    SessionHarness& S() { return *m_pSession; }

    void SendCreate(unsigned int nWorkId, const std::string& strDstPath, int nFlag = 0, int nTimeout = 0,
                    unsigned short nPort = 0)
    {
        ReqWorkFileDstCreate req;
        req.workId = static_cast<int>(nWorkId);
        req.srcFile = "/src/file";
        req.dstPath.Set(strDstPath.data(), strDstPath.size());
        req.srcServerIp = static_cast<int>(LOOPBACK);
        req.srcServerPort = nPort == 0 ? m_source.Port() : nPort;
        req.srcWorkId = 9;
        req.flag = nFlag;
        req.timeout = nTimeout;
        req.routeSrcServerIp = 21;
        req.routeSrcServerId = 22;
        S().Send(req, static_cast<int>(nWorkId));
    }
    // A slave-capable create of the cache file (flag 0x400) from the loopback source.
    void SendCreate2(unsigned int nWorkId, const std::string& strDstPath, unsigned long long lSize, int nTimeout = 0)
    {
        ReqWorkFileDstCreate2 req;
        req.workId = static_cast<int>(nWorkId);
        req.srcFile = "/src/file";
        req.dstPath.Set(strDstPath.data(), strDstPath.size());
        *req.srcServerIp.Append() = static_cast<int>(LOOPBACK);
        req.srcServerPort = m_source.Port();
        req.srcWorkId = 9;
        req.flag = 0x400;
        req.firstSrcFile = "/first/name";
        req.totalSizeHigh = static_cast<int>(lSize >> 32);
        req.totalSizeLow = static_cast<int>(lSize & 0xFFFFFFFFU);
        req.timeout = nTimeout;
        S().Send(req, static_cast<int>(nWorkId));
    }
    int CreateRet(unsigned int nWorkId, int nTimeoutMs = 3000)
    {
        return S().RetFor<RspWorkFileDstCreate>(nWorkId, nTimeoutMs);
    }
    template <class TReq, class TRsp>
    int Ask(unsigned int nWorkId, TRsp* pOut = nullptr)
    {
        TReq req;
        return S().Ask<TRsp>(req, nWorkId, 3000, pOut, 40);
    }
    int Action(unsigned int nWorkId) { return Ask<ReqWorkFileDstSetAction, RspWorkFileDstSetAction>(nWorkId); }
    int Delete(unsigned int nWorkId) { return Ask<ReqWorkFileDstDelete, RspWorkFileDstDelete>(nWorkId); }
    int Query(unsigned int nWorkId, RspWorkFileDstQuery* pOut = nullptr)
    {
        return Ask<ReqWorkFileDstQuery, RspWorkFileDstQuery>(nWorkId, pOut);
    }
    // A plain create and its start; false unless both answer 0.
    bool CreateAndStart(unsigned int nWorkId, const std::string& strDst, int nTimeout = 0)
    {
        SendCreate(nWorkId, strDst, 0, nTimeout);
        return CreateRet(nWorkId) == 0 && Action(nWorkId) == 0;
    }
    // The work's unasked report with status 2: its ret, -1 when none came.
    int Result(unsigned int nWorkId, int nTimeoutMs = 5000, RspWorkFileDstQuery* pOut = nullptr)
    {
        RspWorkFileDstQuery rsp;
        auto done = [&](const RspWorkFileDstQuery& m) {
            return static_cast<unsigned int>(m.workId.value) == nWorkId && m.status.value == 2;
        };
        if (!S().NextWhere(rsp, done, nTimeoutMs)) return -1;
        if (pOut != nullptr) *pOut = rsp;
        return rsp.ret.value;
    }

    // Creates and starts the work, serves the whole file as one block with its
    // digest, and gives the work's result; -1 when a step does not come.
    int ServeWhole(unsigned int nWorkId, const std::string& strDst, const std::string& strContent, int nFlag = 0)
    {
        size_t nGets = static_cast<size_t>(m_source.Count(Zik::reqWorkFileAgentGetCid));
        SendCreate(nWorkId, strDst, nFlag);
        ReqWorkFileAgentGet get;
        if (CreateRet(nWorkId) != 0 || Action(nWorkId) != 0 || !WaitGet(get, nGets + 1)) return -1;
        Answer(nWorkId, 0, strContent, strContent.size());
        return Result(nWorkId);
    }

    // The first get that came on the peer's n-th connection.
    bool GetOn(int nConnection, ReqWorkFileAgentGet& get, int nTimeoutMs = 5000)
    {
        return WaitUntil(
            [&] {
                for (const TestWorkServer::Received& received : m_source.Packets())
                    if (received.nConnection == nConnection && DecodeBody(received, get)) return true;
                return false;
            },
            nTimeoutMs);
    }
    // The source's side: waits for the n-th get.
    bool WaitGet(ReqWorkFileAgentGet& get, size_t n = 1)
    {
        TestWorkServer::Received received;
        return m_source.WaitFor(Zik::reqWorkFileAgentGetCid, 5000, &received, n) && DecodeBody(received, get);
    }
    void Answer(unsigned int nDstWorkId, unsigned long long lPos, const std::string& strContent,
                unsigned long long lTotal, int ret = 0)
    {
        EXPECT_TRUE(AnswerGet(m_source, nDstWorkId, lPos, strContent, lTotal, nullptr, ret));
    }
    bool FileSize(const std::string& strPath, size_t nSize)
    {
        return WaitUntil([&] { return ReadFile(strPath).size() == nSize; }, 5000);
    }

    TestWorkServer m_source;
    std::unique_ptr<SessionHarness> m_pSession;
    ReqWorkFileAgentGet m_get;
};

// A directory made on request with 0x2000; an existing file truncated, keeping
// its mode; with no-follow on, a link at the destination refused and its target kept.
TEST_F(FileDstSession, WholeFilesLandWhereAskedAndNeverThroughALinkWhenNoFollowIsOn)
{
    Begin("file_trans_client_dst_no_follow = 1\n");
    std::string strDst = S().Path("made/on/request/file");
    EXPECT_EQ(ServeWhole(10, strDst, "abc", 0x2000), 0);
    EXPECT_EQ(ReadFile(strDst), "abc");

    std::string strKept = S().Path("kept");
    WriteFile(strKept, std::string(5000, 'z'));
    chmod(strKept.c_str(), 0600);
    EXPECT_EQ(ServeWhole(40, strKept, "new"), 0);
    EXPECT_EQ(ReadFile(strKept), "new");
    struct stat st;
    ASSERT_EQ(stat(strKept.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);

    std::string strTarget = S().Path("target");
    WriteFile(strTarget, "keep");
    ASSERT_EQ(symlink(strTarget.c_str(), S().Path("link").c_str()), 0);
    EXPECT_EQ(ServeWhole(70, S().Path("link"), "evil"), 320);
    EXPECT_EQ(ReadFile(strTarget), "keep");
}

// Blocks that wait in the queue together are summed together: each keeps its
// own digest, and the bad one in the middle ends the work after the first. A
// failure the source answers becomes the work's result.
TEST_F(FileDstSession, BlocksSummedTogetherKeepTheirOwnDigestsAndASourceFailureIsTheResult)
{
    Begin();
    std::string strDst = S().Path("batch");
    ASSERT_TRUE(CreateAndStart(12, strDst));
    ASSERT_TRUE(WaitGet(m_get));
    std::string strA(100, 'a'), strB(100, 'b'), strC(100, 'c');
    std::string strWrong = brel_lib::md5(strC);
    Answer(12, 0, strA, 300);
    EXPECT_TRUE(AnswerGet(m_source, 12, 100, strB, 300, &strWrong));
    Answer(12, 200, strC, 300);
    RspWorkFileDstQuery result;
    EXPECT_EQ(Result(12, 5000, &result), 342);
    EXPECT_EQ(result.okSizeLow.value, 100);
    EXPECT_EQ(ReadFile(strDst), strA);

    ASSERT_TRUE(CreateAndStart(13, S().Path("srcfail")));
    ASSERT_TRUE(WaitGet(m_get, 2));
    Answer(13, 0, "", 0, 314);
    EXPECT_EQ(Result(13), 314);
}

// 0x80 silences the start's reply, 0x40 the delete's, yet the pull runs; a
// second start is answered without a second get; a source nobody listens for
// is 317 at the create, and the work is gone.
TEST_F(FileDstSession, FlagsSilenceRepliesButTheWorkRunsAndASecondStartGetsNoSecondGet)
{
    Begin("connect_timeout_second = 1\n");
    unsigned short nPort = 0;
    {
        TestWorkServer gone;
        nPort = gone.Port();
    }
    SendCreate(8, S().Path("nowhere"), 0, 0, nPort);
    EXPECT_EQ(CreateRet(8, 5000), 317);
    EXPECT_EQ(Query(8), 300);

    SendCreate(50, S().Path("quiet"), 0x80 | 0x40);
    ASSERT_EQ(CreateRet(50), 0);
    EXPECT_EQ(Action(50), -1);
    ASSERT_TRUE(WaitGet(m_get)) << "the pull starts all the same";
    EXPECT_EQ(Delete(50), -1);
    EXPECT_EQ(Query(50), 300);

    ASSERT_TRUE(CreateAndStart(51, S().Path("twice")));
    ASSERT_TRUE(WaitGet(m_get, 2));
    EXPECT_EQ(m_get.beginPosLow.value, 0);
    EXPECT_EQ(static_cast<unsigned int>(m_get.getSize.value), 0x80000u);
    EXPECT_EQ(m_get.getNum.value, 4);
    EXPECT_EQ(Action(51), 0);
    usleep(300000);
    EXPECT_EQ(m_source.Count(Zik::reqWorkFileAgentGetCid), 2);
}

// A block out of order is dropped, the first brings a look-ahead from behind
// the first batch; a delete in mid-transfer takes the partial file, while a
// finished file stays.
TEST_F(FileDstSession, BlocksOutOfOrderAreDroppedThePipelineAsksAheadAndADeleteTakesOnlyAPartialFile)
{
    Begin();
    std::string strPartial = S().Path("partial");
    ASSERT_TRUE(CreateAndStart(54, strPartial));
    ASSERT_TRUE(WaitGet(m_get));
    const unsigned long long lTotal = 10ULL * 0x80000;
    Answer(54, 0x80000, std::string(0x80000, 'x'), lTotal);
    Answer(54, 0, std::string(0x80000, 'a'), lTotal);
    ASSERT_TRUE(WaitGet(m_get, 2));
    EXPECT_EQ(static_cast<unsigned int>(m_get.beginPosHigh.value), 0x80000000u);
    EXPECT_EQ(static_cast<unsigned int>(m_get.beginPosLow.value), 4u * 0x80000);
    RspWorkFileDstQuery query;
    EXPECT_EQ(Query(54, &query), 0);
    EXPECT_EQ(query.status.value, 1);
    EXPECT_EQ(query.okSizeLow.value, 0x80000);
    EXPECT_EQ(query.totalSizeLow.value, static_cast<int>(lTotal));
    ASSERT_TRUE(FileSize(strPartial, 0x80000));
    EXPECT_EQ(Delete(54), 0);
    EXPECT_FALSE(Exists(strPartial));

    std::string strDone = S().Path("done");
    EXPECT_EQ(ServeWhole(53, strDone, "all"), 0);
    EXPECT_EQ(Delete(53), 0);
    EXPECT_EQ(ReadFile(strDone), "all");
}

TEST_F(FileDstSession, EncryptedCreatesAndSetActionServeAsThePlainOnes)
{
    Begin("heartbeat_second = 100000\nsession_key_update_second = 100000\n", true);
    const std::string strKey = "0123456789abcdef";
    unsigned int nKeySn = S().EstablishKey(strKey);
    ASSERT_NE(nKeySn, 0u);
    auto send = [&](auto tag, auto& data, unsigned int nWorkId) {
        S().SendSealed<decltype(tag)>(AesEncrypt(strKey, EncodeRecord(data)), nKeySn, nWorkId, 44, [](auto& req) {
            req.routeSrcServerIp = 31;
            req.routeSrcServerId = 32;
        });
    };
    std::string strDst = S().Path("secret");
    ReqWorkFileDstCreateEncData create;
    create.srcFile = "/src/file";
    create.dstPath.Set(strDst.data(), strDst.size());
    create.srcServerIp = static_cast<int>(LOOPBACK);
    create.srcServerPort = m_source.Port();
    create.srcWorkId = 9;
    send(ReqWorkFileDstCreateEnc(), create, 80);
    RspWorkFileDstCreate created;
    ASSERT_EQ(S().RetFor<RspWorkFileDstCreate>(80, 3000, &created), 0);
    EXPECT_EQ(created.routeDstServerIp.value, 31) << "the route comes from the clear part";
    ReqWorkFileDstSetActionEncData action;
    action.action = 1;
    send(ReqWorkFileDstSetActionEnc(), action, 80);
    EXPECT_EQ(S().RetFor<RspWorkFileDstSetAction>(80), 0);
    ASSERT_TRUE(WaitGet(m_get));
    EXPECT_EQ(m_get.srcWorkId.value, 9);
    Answer(80, 0, "hidden", 6);
    EXPECT_EQ(Result(80), 0);
    EXPECT_EQ(ReadFile(strDst), "hidden");

    // The list of addresses is copied element by element: a 0 in it refuses.
    unsigned short nClosed = 0;
    {
        TestWorkServer gone;
        nClosed = gone.Port();
    }
    std::string strDst2 = S().Path("secret2");
    for (bool bZero : {true, false}) {
        ReqWorkFileDstCreate2EncData create2;
        create2.srcFile = "/src/file";
        create2.dstPath.Set(strDst2.data(), strDst2.size());
        *create2.srcServerIp.Append() = static_cast<int>(LOOPBACK);
        if (bZero) *create2.srcServerIp.Append() = 0;
        create2.srcServerPort = bZero ? nClosed : m_source.Port();
        send(ReqWorkFileDstCreate2Enc(), create2, bZero ? 81 : 82);
        EXPECT_EQ(S().RetFor<RspWorkFileDstCreate>(bZero ? 81 : 82), bZero ? 1000 : 0) << bZero;
    }
}

// A silent source: the get is repeated with 5 packets of 51200 bytes, and
// after 95 seconds without an answer the work fails with 318.
TEST_F(FileDstSession, ASilentSourceGetsSmallRepeatsAndThen318)
{
    Begin();
    ASSERT_TRUE(CreateAndStart(91, S().Path("silent")));
    ASSERT_TRUE(WaitGet(m_get, 1));
    S().AdvanceClock(35);
    ASSERT_TRUE(WaitGet(m_get, 2));
    EXPECT_EQ(static_cast<unsigned int>(m_get.dstWorkId.value), 91u);
    EXPECT_EQ(m_get.getSize.value, 51200);
    EXPECT_EQ(m_get.getNum.value, 5);
    for (int i = 0; i < 4; ++i) S().AdvanceClock(30);
    EXPECT_EQ(Result(91), 318);
}

// Slaves end by their own time limits while the master pulls on: one is dropped
// at its keep time and leaves the list, the other reports again with the
// master's result when the master ends.
TEST_F(FileDstSession, SlavesTimedOutAloneReportAgainAtTheMastersEndOrLeaveTheListWhenDropped)
{
    Begin(std::string("file_trans_client_finish_keep_second_before_auto_delete = 100\n") + NO_REGET_TIMEOUTS);
    std::string strCacheId = S().Path("cache/lonely");
    const std::string strContent(3000, 'x');
    SendCreate2(100, strCacheId, strContent.size());
    EXPECT_EQ(CreateRet(100), 331);
    ASSERT_TRUE(WaitGet(m_get));
    SendCreate2(101, strCacheId, strContent.size(), 20);   // dropped before the master ends
    SendCreate2(102, strCacheId, strContent.size());       // ends with the master only
    SendCreate2(103, strCacheId, strContent.size(), 100);  // ends alone, then with the master
    for (unsigned int n = 101; n <= 103; ++n) EXPECT_EQ(CreateRet(n), 331) << n;
    S().AdvanceClock(25);
    EXPECT_EQ(Result(101), 324);
    S().AdvanceClock(110);
    EXPECT_EQ(Result(103), 324);
    EXPECT_NE(Result(101), -1) << "the last word of a dropped work is its report";
    EXPECT_EQ(Query(101), 300);

    Answer(100, 0, strContent, strContent.size());
    for (unsigned int n : {100u, 102u, 103u}) EXPECT_EQ(Result(n), 0) << n;
    EXPECT_EQ(ReadFile(strCacheId), strContent);
}

// A slave that comes after the connect is answered at once and shows its
// master's position. A file changed behind the master's back ends it twice
// with 322; the second end finds no slaves any more: the slave ends once.
TEST_F(FileDstSession, ASlaveShowsItsMastersProgressAndAMasterEndedTwiceEndsItOnce)
{
    Begin();
    std::string strCacheId = S().Path("cache/changed");
    SendCreate2(110, strCacheId, 3000);
    EXPECT_EQ(CreateRet(110), 331);
    ASSERT_TRUE(WaitGet(m_get));
    SendCreate2(111, strCacheId, 3000);
    EXPECT_EQ(CreateRet(111), 331);
    const std::string strBlock(1000, 'c');
    Answer(110, 0, strBlock, 3000);
    ASSERT_TRUE(FileSize(strCacheId, 1000));
    RspWorkFileDstQuery query;
    EXPECT_EQ(Query(111, &query), 0);
    EXPECT_EQ(query.status.value, 1);
    EXPECT_EQ(query.okSizeLow.value, 1000);
    WriteFile(strCacheId, strBlock + "meddled");
    Answer(110, 1000, strBlock, 3000);
    for (int i = 0; i < 2; ++i) EXPECT_EQ(Result(110), 322) << i;
    EXPECT_EQ(Result(111), 322);
    EXPECT_EQ(Result(111, 500), -1) << "the slave ends once";
    EXPECT_EQ(Query(111), 322);
}

// Connects that succeed don't give back the allowance of reconnects, a response
// does: at 15 seconds the third sweep without a connection ends the work, 317.
TEST_F(FileDstSession, OnlyAResponseRestoresTheReconnectsAndTheirEndIs317)
{
    Begin(std::string("file_trans_client_retry_connect_second = 15\n") + NO_REGET_TIMEOUTS);
    std::string strDst = S().Path("reconnected");
    ASSERT_TRUE(CreateAndStart(130, strDst));
    ASSERT_TRUE(GetOn(1, m_get));
    const std::string strBlock(1000, 'r');
    Answer(130, 0, strBlock, 3000);
    ASSERT_TRUE(FileSize(strDst, 1000));
    int nConnection = 1;
    // The peer drops the link, and a sweep after its loss connects again.
    auto lose = [&] {
        m_source.DropConnection();
        ASSERT_TRUE(WaitUntil(
            [&] { return S().LogCount("the connect is closed, work id: 130") >= static_cast<size_t>(nConnection); },
            5000));
        S().AdvanceClock(5);
    };
    for (int i = 0; i < 2; ++i) {
        lose();
        ASSERT_TRUE(GetOn(++nConnection, m_get));
        EXPECT_EQ(m_get.beginPosLow.value, 1000) << "the work goes on where it stood";
    }
    Answer(130, 1000, strBlock, 3000);
    ASSERT_TRUE(FileSize(strDst, 2000));  // taken: only then may the link drop
    for (int i = 0; i < 2; ++i) {
        lose();
        ASSERT_TRUE(GetOn(++nConnection, m_get)) << "the response gave the allowance back";
        EXPECT_EQ(m_get.beginPosLow.value, 2000);
    }
    lose();
    RspWorkFileDstQuery result;
    EXPECT_EQ(Result(130, 5000, &result), 317);
    EXPECT_EQ(result.okSizeLow.value, 2000);
    EXPECT_EQ(m_source.Connections(), nConnection);
}

// A clock set back an hour pulls the stored times back with it: neither the
// time limit nor the keep time of a finished work fires early, nor stalls.
TEST_F(FileDstSession, AClockSetBackNeitherStallsNorHastensTheSweep)
{
    Begin(std::string("file_trans_client_finish_keep_second_before_auto_delete = 20\n") + NO_REGET_TIMEOUTS);
    ASSERT_EQ(ServeWhole(140, S().Path("done"), "done"), 0);
    ASSERT_TRUE(CreateAndStart(141, S().Path("limited"), 20));
    S().AdvanceClock(-3600);
    S().AdvanceClock(6);
    S().AdvanceClock(6);
    EXPECT_EQ(Result(141, 300), -1) << "no time-out before its time";
    EXPECT_EQ(Query(140), 0) << "no drop before its time";
    for (int i = 0; i < 3; ++i) S().AdvanceClock(6);
    EXPECT_EQ(Result(141), 324);
    EXPECT_NE(Result(140), -1) << "the report at the drop";
    EXPECT_EQ(Query(140), 300) << "the keep time has passed since the set-back";
}

// A reconnect of the sweep is routed through the work of the thread's last
// request: when that work has been deleted, the new connection has no route,
// and the work waits for its time limit.
TEST_F(FileDstSession, AReconnectRoutedThroughADeletedWorkWaitsForTheTimeLimit)
{
    Begin("file_trans_client_max_file_write_thread = 1\n");
    ASSERT_TRUE(CreateAndStart(150, S().Path("orphan"), 30));
    ASSERT_TRUE(GetOn(1, m_get));
    m_source.DropConnection();
    ASSERT_TRUE(S().Logged("the connect is closed, work id: 150", 5000));
    SendCreate(151, S().Path("passing"));
    ASSERT_EQ(CreateRet(151), 0);
    EXPECT_EQ(Delete(151), 0);
    S().AdvanceClock(5);
    ASSERT_TRUE(m_source.WaitConnections(3, 5000)) << "151's own connect, then the reconnect";
    EXPECT_TRUE(S().Logged("need retry connect, async connecting the file svr, work id: 151"));
    S().AdvanceClock(5);
    EXPECT_FALSE(GetOn(3, m_get, 1000)) << "the connection's events found no route";
    S().AdvanceClock(25);
    EXPECT_EQ(Result(150), 324);
}

} // namespace

// The file destination's replies and results through the server session, run
// in-process on a clock the test moves, against a test peer that stands in
// for the source agent: the sweep's codes on the moved clock, the flags, the
// pipeline, master and slave, and the encrypted requests. The codes that the
// real agent shows from outside are in e2e_file_dst_codes_test.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "file_peer.h"
#include "md5.h"
#include "server_crypto.h"
#include "session_harness.h"

using namespace agent_test;

namespace {

unsigned int Loopback()
{
    unsigned int nIp = 0;
    inet_pton(AF_INET, "127.0.0.1", &nIp);
    return nIp;
}

size_t Occurrences(const std::string& strText, const std::string& strWhat)
{
    size_t n = 0;
    for (size_t i = strText.find(strWhat); i != std::string::npos; i = strText.find(strWhat, i + 1)) ++n;
    return n;
}

// The session with the destination, and a peer listening where the source would.
class FileDstSession : public ::testing::Test {
protected:
    void Begin(const std::string& strConfig = "", bool bKeys = false)
    {
        m_pSession = std::make_unique<SessionHarness>("work_history_keep_second = 10\n" + strConfig);
        if (bKeys) {
            ASSERT_TRUE(MakeRsaKeyPair(S().Path("private.pem"), S().Path("etc/publickey.pem")));
        }
        m_pSession->Start();
    }

    // Answers the session's first key request with m_strKey.
    void EstablishKey()
    {
        ReqSessionKey req;
        ASSERT_TRUE(S().Next(req, 5000));
        ReqSessionKeyEncData data;
        ASSERT_TRUE(DecodeRecord(
            RsaPrivateDecrypt(S().Path("private.pem"), std::string(req.encData.octs, req.encData.octetLen)), data));
        RspSessionKeyEncData answer;
        answer.keyData.ReSet(m_strKey.data(), m_strKey.size());
        answer.keyId = 77;
        answer.keySn = data.keySn;
        answer.validSecond = 1000000;
        std::string strEnc = AesEncrypt(std::string(data.oldKeyData.octs, data.oldKeyData.octetLen), EncodeRecord(answer));
        RspSessionKey rsp;
        rsp.moduleType = 2;
        rsp.keyId = 77;
        rsp.encData.ReSet(strEnc.data(), strEnc.size());
        S().Send(rsp);
        RspSessionKeyUsed used;
        ASSERT_TRUE(S().Next(used, 3000));
        m_nKeySn = static_cast<unsigned int>(data.keySn.value);
    }
    template <class TEnc, class TData>
    void SendEnc(TData& data, unsigned int nWorkId)
    {
        std::string strEnc = AesEncrypt(m_strKey, EncodeRecord(data));
        TEnc req;
        req.encData.ReSet(strEnc.data(), strEnc.size());
        req.keySn = static_cast<int>(m_nKeySn);
        req.workId = static_cast<int>(nWorkId);
        req.routeSrcServerIp = 31;
        req.routeSrcServerId = 32;
        S().Send(req, 44);
    }
    std::string m_strKey = "0123456789abcdef";
    unsigned int m_nKeySn = 0;
    SessionHarness& S() { return *m_pSession; }

    void SendCreate(unsigned int nWorkId, const std::string& strDstPath, int nFlag = 0, unsigned int nIp = Loopback(),
                    unsigned short nPort = 0, int nTimeout = 0)
    {
        ReqWorkFileDstCreate req;
        req.workId = static_cast<int>(nWorkId);
        req.srcFile = "/src/file";
        req.dstPath.Set(strDstPath.data(), strDstPath.size());
        req.srcServerIp = static_cast<int>(nIp);
        req.srcServerPort = nPort == 0 ? m_source.Port() : nPort;
        req.srcWorkId = 9;
        req.flag = nFlag;
        req.timeout = nTimeout;
        req.routeSrcServerIp = 21;
        req.routeSrcServerId = 22;
        S().Send(req, static_cast<int>(nWorkId));
    }
    void SendCreate2(unsigned int nWorkId, const std::string& strDstPath, int nFlag, unsigned long long lSize,
                     const std::vector<unsigned int>& vecIp, int nTimeout = 0)
    {
        ReqWorkFileDstCreate2 req;
        req.workId = static_cast<int>(nWorkId);
        req.srcFile = "/src/file";
        req.dstPath.Set(strDstPath.data(), strDstPath.size());
        for (unsigned int nIp : vecIp) *req.srcServerIp.Append() = static_cast<int>(nIp);
        req.srcServerPort = m_source.Port();
        req.srcWorkId = 9;
        req.flag = nFlag;
        req.firstSrcFile = "/first/name";
        req.totalSizeHigh = static_cast<int>(lSize >> 32);
        req.totalSizeLow = static_cast<int>(lSize & 0xFFFFFFFFU);
        req.timeout = nTimeout;
        S().Send(req, static_cast<int>(nWorkId));
    }
    template <class TRsp>
    int RetFor(unsigned int nWorkId, int nTimeoutMs = 3000, TRsp* pOut = nullptr)
    {
        TRsp rsp;
        if (!S().NextWhere(rsp, [&](const TRsp& m) { return static_cast<unsigned int>(m.workId.value) == nWorkId; },
                           nTimeoutMs))
            return -1;
        if (pOut != nullptr) *pOut = rsp;
        return rsp.ret.value;
    }
    int CreateRet(unsigned int nWorkId, int nTimeoutMs = 3000) { return RetFor<RspWorkFileDstCreate>(nWorkId, nTimeoutMs); }
    template <class TReq, class TRsp>
    int Ask(unsigned int nWorkId, TRsp* pOut = nullptr)
    {
        TReq req;
        req.workId = static_cast<int>(nWorkId);
        S().Send(req, 40);
        return RetFor<TRsp>(nWorkId, 3000, pOut);
    }
    bool Result(unsigned int nWorkId, RspWorkFileDstQuery& out, int nTimeoutMs = 5000)
    {
        return S().NextWhere(
            out,
            [&](const RspWorkFileDstQuery& m) {
                return static_cast<unsigned int>(m.workId.value) == nWorkId && m.status.value == 2;
            },
            nTimeoutMs);
    }

    // Starts the work, serves the whole file as one block with its digest, and gives the
    // work's result; -1 when a step does not come.
    int StartAndServeWhole(unsigned int nWorkId, const std::string& strContent)
    {
        if ((Ask<ReqWorkFileDstSetAction, RspWorkFileDstSetAction>(nWorkId)) != 0) return -1;
        ReqWorkFileAgentGet get;
        if (!WaitGet(get)) return -1;
        Answer(nWorkId, 0, strContent, strContent.size());
        RspWorkFileDstQuery result;
        return Result(nWorkId, result) ? result.ret.value : -1;
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

    // The source's side: waits for the n-th get, then answers with one block.
    bool WaitGet(ReqWorkFileAgentGet& get, size_t n = 1)
    {
        TestWorkServer::Received received;
        if (!m_source.WaitFor(Zik::reqWorkFileAgentGetCid, 5000, &received, n)) return false;
        return DecodeBody(received, get);
    }
    void Answer(unsigned int nDstWorkId, unsigned long long lPos, const std::string& strContent,
                unsigned long long lTotal, int ret = 0)
    {
        EXPECT_TRUE(AnswerGet(m_source, nDstWorkId, lPos, strContent, lTotal, nullptr, ret));
    }

    TestWorkServer m_source;
    std::unique_ptr<SessionHarness> m_pSession;
};

TEST_F(FileDstSession, AnUnreachableSourceIs317AndTheWorkIsGone)
{
    Begin("connect_timeout_second = 1\n");
    unsigned short nPort = 0;
    {
        TestWorkServer gone;  // a port that nobody listens on once it is gone
        nPort = gone.Port();
    }
    SendCreate(8, S().Path("nowhere"), 0, Loopback(), nPort);
    EXPECT_EQ(CreateRet(8, 5000), 317);
    EXPECT_EQ((Ask<ReqWorkFileDstQuery, RspWorkFileDstQuery>(8)), 300);
}

TEST_F(FileDstSession, ADirectoryMadeOnRequestWith0x2000)
{
    Begin();
    std::string strDst = S().Path("made/on/request/file");
    SendCreate(10, strDst, 0x2000);
    ASSERT_EQ(CreateRet(10), 0);
    EXPECT_EQ(StartAndServeWhole(10, "abc"), 0);
    EXPECT_EQ(ReadFile(strDst), "abc");
}

// Blocks that wait in the queue together are summed together: each keeps its
// own digest, and the bad one in the middle ends the work after the first.
TEST_F(FileDstSession, BlocksSummedTogetherKeepTheirOwnDigests)
{
    Begin();
    std::string strDst = S().Path("batch");
    SendCreate(12, strDst);
    ASSERT_EQ(CreateRet(12), 0);
    EXPECT_EQ((Ask<ReqWorkFileDstSetAction, RspWorkFileDstSetAction>(12)), 0);
    ReqWorkFileAgentGet get;
    ASSERT_TRUE(WaitGet(get));
    std::string strA(100, 'a'), strB(100, 'b'), strC(100, 'c');
    std::string strWrong = brel_lib::md5(strC);
    Answer(12, 0, strA, 300);
    EXPECT_TRUE(AnswerGet(m_source, 12, 100, strB, 300, &strWrong));
    Answer(12, 200, strC, 300);
    RspWorkFileDstQuery result;
    ASSERT_TRUE(Result(12, result));
    EXPECT_EQ(result.ret.value, 342);
    EXPECT_EQ(result.okSizeLow.value, 100);
    EXPECT_EQ(ReadFile(strDst), strA);
}

TEST_F(FileDstSession, ASourceFailureBecomesTheWorksResult)
{
    Begin();
    std::string strDst = S().Path("srcfail");
    SendCreate(12, strDst);
    ASSERT_EQ(CreateRet(12), 0);
    EXPECT_EQ((Ask<ReqWorkFileDstSetAction, RspWorkFileDstSetAction>(12)), 0);
    ReqWorkFileAgentGet get;
    ASSERT_TRUE(WaitGet(get));
    Answer(12, 0, "", 0, 314);
    RspWorkFileDstQuery result;
    ASSERT_TRUE(Result(12, result));
    EXPECT_EQ(result.ret.value, 314);
}

TEST_F(FileDstSession, AnExistingFileIsTruncatedAndKeepsOwnerAndMode)
{
    Begin();
    std::string strDst = S().Path("kept");
    WriteFile(strDst, std::string(5000, 'z'));
    chmod(strDst.c_str(), 0600);
    SendCreate(40, strDst);
    ASSERT_EQ(CreateRet(40), 0);
    EXPECT_EQ(StartAndServeWhole(40, "new"), 0);
    EXPECT_EQ(ReadFile(strDst), "new");
    struct stat st;
    ASSERT_EQ(stat(strDst.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
}

TEST_F(FileDstSession, FlagsSilenceSetActionAndDeleteRepliesButTheWorkStillRuns)
{
    Begin();
    std::string strDst = S().Path("quiet");
    SendCreate(50, strDst, 0x80 | 0x40);
    ASSERT_EQ(CreateRet(50), 0);
    EXPECT_EQ((Ask<ReqWorkFileDstSetAction, RspWorkFileDstSetAction>(50)), -1) << "0x80: no reply";
    ReqWorkFileAgentGet get;
    ASSERT_TRUE(WaitGet(get)) << "the pull starts all the same";
    EXPECT_EQ((Ask<ReqWorkFileDstDelete, RspWorkFileDstDelete>(50)), -1) << "0x40: no reply";
    EXPECT_EQ((Ask<ReqWorkFileDstQuery, RspWorkFileDstQuery>(50)), 300);
}

TEST_F(FileDstSession, ASecondSetActionIsAnsweredWithoutASecondGet)
{
    Begin();
    SendCreate(51, S().Path("twice"));
    ASSERT_EQ(CreateRet(51), 0);
    EXPECT_EQ((Ask<ReqWorkFileDstSetAction, RspWorkFileDstSetAction>(51)), 0);
    ReqWorkFileAgentGet get;
    ASSERT_TRUE(WaitGet(get));
    EXPECT_EQ(get.beginPosLow.value, 0);
    EXPECT_EQ(static_cast<unsigned int>(get.getSize.value), 0x80000u);
    EXPECT_EQ(get.getNum.value, 4);
    EXPECT_EQ((Ask<ReqWorkFileDstSetAction, RspWorkFileDstSetAction>(51)), 0);
    usleep(300000);
    EXPECT_EQ(m_source.Count(Zik::reqWorkFileAgentGetCid), 1);
}

TEST_F(FileDstSession, ADeleteInMidTransferTakesThePartialFileAndAFinishedFileStays)
{
    Begin();
    std::string strPartial = S().Path("partial");
    SendCreate(52, strPartial);
    ASSERT_EQ(CreateRet(52), 0);
    EXPECT_EQ((Ask<ReqWorkFileDstSetAction, RspWorkFileDstSetAction>(52)), 0);
    ReqWorkFileAgentGet get;
    ASSERT_TRUE(WaitGet(get));
    Answer(52, 0, "first", 100);
    ASSERT_TRUE(WaitUntil([&] { return ReadFile(strPartial) == "first"; }, 3000));
    RspWorkFileDstQuery query;
    EXPECT_EQ((Ask<ReqWorkFileDstQuery, RspWorkFileDstQuery>(52, &query)), 0);
    EXPECT_EQ(query.status.value, 1);
    EXPECT_EQ(query.okSizeLow.value, 5);
    EXPECT_EQ(query.totalSizeLow.value, 100);
    EXPECT_EQ((Ask<ReqWorkFileDstDelete, RspWorkFileDstDelete>(52)), 0);
    struct stat st;
    EXPECT_NE(stat(strPartial.c_str(), &st), 0);

    std::string strDone = S().Path("done");
    SendCreate(53, strDone);
    ASSERT_EQ(CreateRet(53), 0);
    EXPECT_EQ((Ask<ReqWorkFileDstSetAction, RspWorkFileDstSetAction>(53)), 0);
    ASSERT_TRUE(WaitGet(get, 2));
    Answer(53, 0, "all", 3);
    RspWorkFileDstQuery result;
    ASSERT_TRUE(Result(53, result));
    EXPECT_EQ((Ask<ReqWorkFileDstDelete, RspWorkFileDstDelete>(53)), 0);
    EXPECT_EQ(ReadFile(strDone), "all");
}

TEST_F(FileDstSession, BlocksOutOfOrderAreDroppedAndThePipelineAsksAhead)
{
    Begin();
    std::string strDst = S().Path("order");
    SendCreate(54, strDst);
    ASSERT_EQ(CreateRet(54), 0);
    EXPECT_EQ((Ask<ReqWorkFileDstSetAction, RspWorkFileDstSetAction>(54)), 0);
    ReqWorkFileAgentGet get;
    ASSERT_TRUE(WaitGet(get));
    const unsigned long long lTotal = 10ULL * 0x80000;
    Answer(54, 0x80000, std::string(0x80000, 'x'), lTotal);
    Answer(54, 0, std::string(0x80000, 'a'), lTotal);
    // The first block brings a look-ahead from behind the first batch, marked as such.
    ReqWorkFileAgentGet pre;
    ASSERT_TRUE(WaitGet(pre, 2));
    EXPECT_EQ(static_cast<unsigned int>(pre.beginPosHigh.value), 0x80000000u);
    EXPECT_EQ(static_cast<unsigned int>(pre.beginPosLow.value), 4u * 0x80000);
    RspWorkFileDstQuery query;
    EXPECT_EQ((Ask<ReqWorkFileDstQuery, RspWorkFileDstQuery>(54, &query)), 0);
    EXPECT_EQ(query.okSizeLow.value, 0x80000) << "the block out of order was dropped";
}

TEST_F(FileDstSession, ASlaveReportsItsMastersProgressAndTakesOverWhenTheMasterIsDeleted)
{
    Begin();
    std::string strCacheId = S().Path("cache/shared");
    const unsigned long long lTotal = 3000;
    SendCreate2(60, strCacheId, 0x400, lTotal, {Loopback()});
    EXPECT_EQ(CreateRet(60), 331);
    ReqWorkFileAgentGet get;
    ASSERT_TRUE(WaitGet(get));
    SendCreate2(61, strCacheId, 0x400, lTotal, {Loopback()});
    EXPECT_EQ(CreateRet(61), 331) << "a slave that comes after the connect is answered at once";
    Answer(60, 0, std::string(1000, 'm'), lTotal);
    ASSERT_TRUE(WaitUntil([&] { return ReadFile(strCacheId).size() == 1000; }, 3000));
    RspWorkFileDstQuery query;
    EXPECT_EQ((Ask<ReqWorkFileDstQuery, RspWorkFileDstQuery>(61, &query)), 0);
    EXPECT_EQ(query.status.value, 1);
    EXPECT_EQ(query.okSizeLow.value, 1000) << "the slave shows the master's position";

    // The master goes: the slave connects for itself and goes on from there.
    size_t nGets = static_cast<size_t>(m_source.Count(Zik::reqWorkFileAgentGetCid));
    EXPECT_EQ((Ask<ReqWorkFileDstDelete, RspWorkFileDstDelete>(60)), 0);
    ASSERT_TRUE(WaitGet(get, nGets + 1));
    EXPECT_EQ(static_cast<unsigned int>(get.dstWorkId.value), 61u);
    EXPECT_EQ(get.beginPosLow.value, 1000);
    Answer(61, 1000, std::string(2000, 's'), lTotal);
    RspWorkFileDstQuery result;
    ASSERT_TRUE(Result(61, result));
    EXPECT_EQ(result.ret.value, 0);
    EXPECT_EQ(ReadFile(strCacheId), std::string(1000, 'm') + std::string(2000, 's'));
    SendCreate2(62, strCacheId, 0x400, lTotal, {Loopback()});
    EXPECT_EQ(CreateRet(62), 330);
}

TEST_F(FileDstSession, ALinkAtTheDestinationIsRefusedWhenNoFollowIsOn)
{
    Begin("file_trans_client_dst_no_follow = 1\n");
    std::string strTarget = S().Path("target");
    WriteFile(strTarget, "keep");
    std::string strLink = S().Path("link");
    ASSERT_EQ(symlink(strTarget.c_str(), strLink.c_str()), 0);
    SendCreate(70, strLink);
    ASSERT_EQ(CreateRet(70), 0);
    EXPECT_EQ(StartAndServeWhole(70, "evil"), 320);
    EXPECT_EQ(ReadFile(strTarget), "keep");
}

TEST_F(FileDstSession, EncryptedCreatesAndSetActionServeAsThePlainOnes)
{
    Begin("heartbeat_second = 100000\nsession_key_update_second = 100000\n", true);
    EstablishKey();
    std::string strDst = S().Path("secret");
    ReqWorkFileDstCreateEncData create;
    create.srcFile = "/src/file";
    create.dstPath.Set(strDst.data(), strDst.size());
    create.srcServerIp = static_cast<int>(Loopback());
    create.srcServerPort = m_source.Port();
    create.srcWorkId = 9;
    SendEnc<ReqWorkFileDstCreateEnc>(create, 80);
    RspWorkFileDstCreate created;
    ASSERT_EQ(RetFor<RspWorkFileDstCreate>(80, 3000, &created), 0);
    EXPECT_EQ(created.routeDstServerIp.value, 31) << "the route comes from the clear part";
    ReqWorkFileDstSetActionEncData action;
    action.action = 1;
    SendEnc<ReqWorkFileDstSetActionEnc>(action, 80);
    EXPECT_EQ(RetFor<RspWorkFileDstSetAction>(80), 0);
    ReqWorkFileAgentGet get;
    ASSERT_TRUE(WaitGet(get));
    EXPECT_EQ(get.srcWorkId.value, 9);
    Answer(80, 0, "hidden", 6);
    RspWorkFileDstQuery result;
    ASSERT_TRUE(Result(80, result));
    EXPECT_EQ(result.ret.value, 0);
    EXPECT_EQ(ReadFile(strDst), "hidden");

    // The list of addresses is copied element by element: the first refuses.
    unsigned short nClosed = 0;
    {
        TestWorkServer gone;
        nClosed = gone.Port();
    }
    std::string strDst2 = S().Path("secret2");
    ReqWorkFileDstCreate2EncData create2;
    create2.srcFile = "/src/file";
    create2.dstPath.Set(strDst2.data(), strDst2.size());
    *create2.srcServerIp.Append() = static_cast<int>(Loopback());
    *create2.srcServerIp.Append() = 0;
    create2.srcServerPort = nClosed;
    SendEnc<ReqWorkFileDstCreate2Enc>(create2, 81);
    EXPECT_EQ(RetFor<RspWorkFileDstCreate>(81), 1000) << "a 0 in the list";
    ReqWorkFileDstCreate2EncData create3;
    create3.srcFile = "/src/file";
    create3.dstPath.Set(strDst2.data(), strDst2.size());
    *create3.srcServerIp.Append() = static_cast<int>(Loopback());
    create3.srcServerPort = m_source.Port();
    SendEnc<ReqWorkFileDstCreate2Enc>(create3, 82);
    EXPECT_EQ(RetFor<RspWorkFileDstCreate>(82), 0);
}

// The test peer keeps one connection at a time: the works here come one after the other.
TEST_F(FileDstSession, TheSweepTimesOutRepeatsSilentGetsAndDropsUnstartedWorks)
{
    Begin();
    // A work whose time runs out: 324.
    SendCreate(90, S().Path("timed"), 0, Loopback(), 0, 20);
    ASSERT_EQ(CreateRet(90), 0);
    EXPECT_EQ((Ask<ReqWorkFileDstSetAction, RspWorkFileDstSetAction>(90)), 0);
    ReqWorkFileAgentGet get;
    ASSERT_TRUE(WaitGet(get, 1));
    S().AdvanceClock(25);
    RspWorkFileDstQuery result;
    ASSERT_TRUE(Result(90, result));
    EXPECT_EQ(result.ret.value, 324);

    // A work whose source says nothing: its get is repeated with 5 packets of
    // 51200 bytes, and after 95 seconds without an answer it fails with 318.
    SendCreate(91, S().Path("silent"));
    ASSERT_EQ(CreateRet(91), 0);
    EXPECT_EQ((Ask<ReqWorkFileDstSetAction, RspWorkFileDstSetAction>(91)), 0);
    ASSERT_TRUE(WaitGet(get, 2));
    S().AdvanceClock(35);
    ASSERT_TRUE(WaitGet(get, 3));
    EXPECT_EQ(static_cast<unsigned int>(get.dstWorkId.value), 91u);
    EXPECT_EQ(get.getSize.value, 51200);
    EXPECT_EQ(get.getNum.value, 5);
    for (int i = 0; i < 4; ++i) S().AdvanceClock(30);
    ASSERT_TRUE(Result(91, result));
    EXPECT_EQ(result.ret.value, 318);

    // A work never started goes after 600 seconds, without a word.
    SendCreate(92, S().Path("unstarted"));
    ASSERT_EQ(CreateRet(92), 0);
    S().AdvanceClock(601);
    EXPECT_EQ((Ask<ReqWorkFileDstQuery, RspWorkFileDstQuery>(92)), 300);
    // Meanwhile the finished work has repeated its report for the period.
    ASSERT_TRUE(Result(90, result, 3000));
    EXPECT_EQ(result.ret.value, 324);
}

// Slaves end by their own time limits while the master pulls on: one is dropped
// at its keep time and leaves the list, the other reports again with the
// master's result when the master ends.
TEST_F(FileDstSession, SlavesTimedOutAloneReportAgainAtTheMastersEndOrLeaveTheListWhenDropped)
{
    Begin("file_trans_client_finish_keep_second_before_auto_delete = 100\n"
          "file_trans_client_reget_timeout_second = 100000\nfile_trans_client_reget_failed_timeout_second = 100000\n");
    std::string strCacheId = S().Path("cache/lonely");
    const std::string strContent(3000, 'x');
    SendCreate2(100, strCacheId, 0x400, strContent.size(), {Loopback()});
    EXPECT_EQ(CreateRet(100), 331);
    ReqWorkFileAgentGet get;
    ASSERT_TRUE(WaitGet(get));
    SendCreate2(101, strCacheId, 0x400, strContent.size(), {Loopback()}, 20);   // dropped before the master ends
    SendCreate2(102, strCacheId, 0x400, strContent.size(), {Loopback()});       // ends with the master only
    SendCreate2(103, strCacheId, 0x400, strContent.size(), {Loopback()}, 100);  // ends alone, then with the master
    for (unsigned int n = 101; n <= 103; ++n) EXPECT_EQ(CreateRet(n), 331) << n;
    S().AdvanceClock(25);
    RspWorkFileDstQuery result;
    ASSERT_TRUE(Result(101, result));
    EXPECT_EQ(result.ret.value, 324);
    S().AdvanceClock(110);
    ASSERT_TRUE(Result(103, result));
    EXPECT_EQ(result.ret.value, 324);
    ASSERT_TRUE(Result(101, result)) << "the last word of a dropped work is its report";
    EXPECT_EQ((Ask<ReqWorkFileDstQuery, RspWorkFileDstQuery>(101)), 300);

    Answer(100, 0, strContent, strContent.size());
    for (unsigned int n : {100u, 102u, 103u}) {
        ASSERT_TRUE(Result(n, result)) << n;
        EXPECT_EQ(result.ret.value, 0) << n;
    }
    EXPECT_EQ(ReadFile(strCacheId), strContent);
}

// A file changed behind the master's back ends it twice with 322; the second
// end finds no slaves any more, and the slave has ended once, with 322.
TEST_F(FileDstSession, AMasterEndedTwiceEndsItsSlaveOnce)
{
    Begin();
    std::string strCacheId = S().Path("cache/changed");
    SendCreate2(110, strCacheId, 0x400, 3000, {Loopback()});
    EXPECT_EQ(CreateRet(110), 331);
    ReqWorkFileAgentGet get;
    ASSERT_TRUE(WaitGet(get));
    SendCreate2(111, strCacheId, 0x400, 3000, {Loopback()});
    EXPECT_EQ(CreateRet(111), 331);
    const std::string strBlock(1000, 'c');
    Answer(110, 0, strBlock, 3000);
    ASSERT_TRUE(WaitUntil([&] { return ReadFile(strCacheId).size() == 1000; }, 3000));
    WriteFile(strCacheId, strBlock + "meddled");
    Answer(110, 1000, strBlock, 3000);
    RspWorkFileDstQuery result;
    for (int i = 0; i < 2; ++i) {
        ASSERT_TRUE(Result(110, result)) << i;
        EXPECT_EQ(result.ret.value, 322);
    }
    ASSERT_TRUE(Result(111, result));
    EXPECT_EQ(result.ret.value, 322);
    EXPECT_FALSE(Result(111, result, 500)) << "the slave ends once";
    EXPECT_EQ((Ask<ReqWorkFileDstQuery, RspWorkFileDstQuery>(111)), 322);
}

// Connects that succeed don't give back the allowance of reconnects, a response
// does: at 15 seconds the third sweep without a connection ends the work, 317.
TEST_F(FileDstSession, OnlyAResponseRestoresTheReconnectsAndTheirEndIs317)
{
    Begin("file_trans_client_retry_connect_second = 15\n"
          "file_trans_client_reget_timeout_second = 100000\nfile_trans_client_reget_failed_timeout_second = 100000\n");
    SendCreate(130, S().Path("reconnected"));
    ASSERT_EQ(CreateRet(130), 0);
    EXPECT_EQ((Ask<ReqWorkFileDstSetAction, RspWorkFileDstSetAction>(130)), 0);
    ReqWorkFileAgentGet get;
    ASSERT_TRUE(GetOn(1, get));
    const std::string strBlock(1000, 'r');
    Answer(130, 0, strBlock, 3000);
    ASSERT_TRUE(WaitUntil([&] { return ReadFile(S().Path("reconnected")).size() == 1000; }, 3000));
    int nConnection = 1;
    // The peer drops the link, and a sweep after its loss connects again.
    auto lose = [&] {
        m_source.DropConnection();
        ASSERT_TRUE(WaitUntil(
            [&] {
                return Occurrences(S().ReadLog(), "the connect is closed, work id: 130") >=
                       static_cast<size_t>(nConnection);
            },
            5000));
        S().AdvanceClock(5);
    };
    for (int i = 0; i < 2; ++i) {
        lose();
        ASSERT_TRUE(GetOn(++nConnection, get));
        EXPECT_EQ(get.beginPosLow.value, 1000) << "the work goes on where it stood";
    }
    Answer(130, 1000, strBlock, 3000);
    // The response counts once it is taken: the link may not drop before that.
    ASSERT_TRUE(WaitUntil([&] { return ReadFile(S().Path("reconnected")).size() == 2000; }, 5000));
    for (int i = 0; i < 2; ++i) {
        lose();
        ASSERT_TRUE(GetOn(++nConnection, get)) << "the response gave the allowance back";
        EXPECT_EQ(get.beginPosLow.value, 2000);
    }
    lose();
    RspWorkFileDstQuery result;
    ASSERT_TRUE(Result(130, result));
    EXPECT_EQ(result.ret.value, 317);
    EXPECT_EQ(result.okSizeLow.value, 2000);
    EXPECT_EQ(m_source.Connections(), nConnection);
}

// A clock set back an hour pulls the stored times back with it: neither the
// time limit nor the keep time of a finished work fires early, nor stalls.
TEST_F(FileDstSession, AClockSetBackNeitherStallsNorHastensTheSweep)
{
    Begin("file_trans_client_finish_keep_second_before_auto_delete = 20\n"
          "file_trans_client_reget_timeout_second = 100000\nfile_trans_client_reget_failed_timeout_second = 100000\n");
    SendCreate(140, S().Path("done"));
    ASSERT_EQ(CreateRet(140), 0);
    ASSERT_EQ(StartAndServeWhole(140, "done"), 0);
    SendCreate(141, S().Path("limited"), 0, Loopback(), 0, 20);
    ASSERT_EQ(CreateRet(141), 0);
    EXPECT_EQ((Ask<ReqWorkFileDstSetAction, RspWorkFileDstSetAction>(141)), 0);
    S().AdvanceClock(-3600);
    S().AdvanceClock(6);
    S().AdvanceClock(6);
    RspWorkFileDstQuery result;
    EXPECT_FALSE(Result(141, result, 300)) << "no time-out before its time";
    EXPECT_EQ((Ask<ReqWorkFileDstQuery, RspWorkFileDstQuery>(140)), 0) << "no drop before its time";
    for (int i = 0; i < 3; ++i) S().AdvanceClock(6);
    ASSERT_TRUE(Result(141, result));
    EXPECT_EQ(result.ret.value, 324);
    ASSERT_TRUE(Result(140, result)) << "the report at the drop";
    EXPECT_EQ((Ask<ReqWorkFileDstQuery, RspWorkFileDstQuery>(140)), 300) << "the keep time has passed since the set-back";
}

// A reconnect of the sweep is routed through the work of the thread's last
// request: when that work has been deleted, the new connection has no route,
// and the work waits for its time limit.
TEST_F(FileDstSession, AReconnectRoutedThroughADeletedWorkWaitsForTheTimeLimit)
{
    Begin("file_trans_client_max_file_write_thread = 1\n");
    SendCreate(150, S().Path("orphan"), 0, Loopback(), 0, 30);
    ASSERT_EQ(CreateRet(150), 0);
    EXPECT_EQ((Ask<ReqWorkFileDstSetAction, RspWorkFileDstSetAction>(150)), 0);
    ReqWorkFileAgentGet get;
    ASSERT_TRUE(GetOn(1, get));
    m_source.DropConnection();
    ASSERT_TRUE(WaitUntil([&] { return S().ReadLog().find("the connect is closed, work id: 150") != std::string::npos; }, 5000));
    SendCreate(151, S().Path("passing"));
    ASSERT_EQ(CreateRet(151), 0);
    EXPECT_EQ((Ask<ReqWorkFileDstDelete, RspWorkFileDstDelete>(151)), 0);
    S().AdvanceClock(5);
    ASSERT_TRUE(m_source.WaitConnections(3, 5000)) << "151's own connect, then the reconnect";
    EXPECT_TRUE(WaitUntil(
        [&] { return S().ReadLog().find("need retry connect, async connecting the file svr, work id: 151") != std::string::npos; },
        3000));
    S().AdvanceClock(5);
    EXPECT_FALSE(GetOn(3, get, 1000)) << "the connection's events found no route";
    S().AdvanceClock(25);
    RspWorkFileDstQuery result;
    ASSERT_TRUE(Result(150, result));
    EXPECT_EQ(result.ret.value, 324);
}

} // namespace

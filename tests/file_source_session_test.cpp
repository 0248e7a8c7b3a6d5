// The file source behind the server session, run in-process on a clock the
// test moves: every reply code of a create and a delete, the port search,
// the encrypted create with its expected MD5, repeats, the expiry of works
// and the closing of an idle listener.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>

#include <memory>
#include <type_traits>

#include "file_peer.h"
#include "file_trans_cache/file_trans_cache.h"
#include "md5.h"
#include "session_harness.h"

using namespace agent_test;

namespace {

const int SERVER_IP = 0x0A0B0C0D;
const int SERVER_ID = 42;

const unsigned int LOOPBACK = SessionHarness::Loopback();

class FileSource : public ::testing::Test {
protected:
    void Start(const std::string& strExtra = "", unsigned short nBeginPort = 0, bool bKeyPair = false)
    {
        m_nPort = nBeginPort != 0 ? nBeginPort : FreePortPair();
        ASSERT_NE(m_nPort, 0);
        m_pSession = std::make_unique<SessionHarness>(
            "heartbeat_second = 100000\nwork_history_keep_second = 100\nfile_trans_svr_bind_ip = 127.0.0.1\n"
            "file_trans_svr_begin_bind_port = " +
            std::to_string(m_nPort) + "\n" + strExtra);
        if (bKeyPair) {
            ASSERT_TRUE(Session().MakeKeys());
        }
        Session().Start();
    }

    SessionHarness& Session() { return *m_pSession; }

    std::string File(const std::string& strName, const std::string& strData, mode_t nMode = 0644)
    {
        std::string strPath = Session().Path(strName);
        WriteFile(strPath, strData);
        chmod(strPath.c_str(), nMode);
        return strPath;
    }

    // The request about the work from the server, and the ret of the next reply
    // of type TRsp, which must answer it on its route; -1 for no reply.
    template <class TRsp, class TReq>
    int Reply(TReq& req, unsigned int nWorkId, int nAppend, int nTimeoutMs = 3000, TRsp* pOut = nullptr)
    {
        req.workId = static_cast<int>(nWorkId);
        req.routeDstAgentId = 77;
        req.routeSrcServerIp = SERVER_IP;
        req.routeSrcServerId = SERVER_ID;
        Session().Send(req, nAppend);
        TRsp rsp;
        if (!Session().Next(rsp, nTimeoutMs)) return -1;
        EXPECT_EQ(static_cast<unsigned int>(rsp.workId.value), nWorkId);
        EXPECT_EQ(rsp.routeDstServerIp.value, SERVER_IP);
        EXPECT_EQ(rsp.routeDstServerId.value, SERVER_ID);
        EXPECT_EQ(rsp.routeSrcAgentId.value, 77);
        if (pOut != nullptr) *pOut = rsp;
        return rsp.ret;
    }

    // A create; flag 0x200 asks for the answer of the second form.
    template <class TRsp = RspWorkFileSrcCreate>
    int Create(unsigned int nWorkId, const std::string& strPath, int nFlag = 0,
               std::common_type_t<TRsp>* pRsp = nullptr, int nTimeoutMs = 3000, unsigned int nDstIp = 0)
    {
        ReqWorkFileSrcCreate req;
        req.srcFile.Set(strPath.data(), strPath.size());
        req.dstIp = static_cast<int>(nDstIp);
        req.flag = nFlag;
        return Reply<TRsp>(req, nWorkId, 31, nTimeoutMs, pRsp);
    }

    int Delete(unsigned int nWorkId, int nTimeoutMs = 3000)
    {
        ReqWorkFileSrcDelete req;
        return Reply<RspWorkFileSrcDelete>(req, nWorkId, 32, nTimeoutMs);
    }

    std::unique_ptr<SessionHarness> m_pSession;
    unsigned short m_nPort = 0;
};

TEST_F(FileSource, CreatesAnswerWithTheListenerAndTheFileAndDeletesWithTheirCodes)
{
    Start();
    std::string strPath = File("f", std::string(5000, 'x'));
    struct stat st;
    ASSERT_EQ(stat(strPath.c_str(), &st), 0);
    RspWorkFileSrcCreate2 rsp2;
    ASSERT_EQ(Create<RspWorkFileSrcCreate2>(1, strPath, 0x200, &rsp2), 0);
    ASSERT_EQ(rsp2.srcServerIp.Count(), 1);
    EXPECT_EQ(static_cast<unsigned int>(rsp2.srcServerIp.First()->value), LOOPBACK);
    EXPECT_EQ(rsp2.srcServerPort.value, m_nPort);
    EXPECT_EQ(rsp2.modifyTime.value, static_cast<int>(st.st_mtime));
    EXPECT_EQ(rsp2.totalSizeHigh.value, 0);
    EXPECT_EQ(rsp2.totalSizeLow.value, 5000);
    EXPECT_EQ(rsp2.routeDstServerIp.value, SERVER_IP);
    // A second work shares the listener; a repeated create is answered by silence.
    RspWorkFileSrcCreate rsp;
    ASSERT_EQ(Create(2, strPath, 0, &rsp), 0);
    EXPECT_EQ(static_cast<unsigned int>(rsp.srcServerIp.value), LOOPBACK);
    EXPECT_EQ(rsp.srcServerPort.value, m_nPort);
    FilePeer peer;
    EXPECT_TRUE(peer.Connect(m_nPort, 2000));
    EXPECT_EQ(Create(2, strPath, 0, nullptr, 500), -1);

    // A file that can not be stated: 329 without a listener, remembered all the same.
    EXPECT_EQ(Create<RspWorkFileSrcCreate2>(3, Session().Path("missing"), 0x200, &rsp2), 329);
    EXPECT_EQ(rsp2.srcServerIp.Count(), 0);
    EXPECT_EQ(rsp2.srcServerPort.value, 0);
    EXPECT_EQ(Create(4, Session().Path("missing"), 0, &rsp), 329);
    EXPECT_EQ(rsp.srcServerIp.value, 0);
    EXPECT_EQ(Create(4, Session().Path("missing"), 0, nullptr, 500), -1);

    // 0x8000: the user daemon must read the file, unless it is the cache's (0x400).
    std::string strPrivate = File("private", "x", 0600);  // root's
    EXPECT_EQ(Create(5, strPrivate, 0x8000), 338);
    EXPECT_EQ(Create(6, File("open", "x", 0604), 0x8000), 0);
    EXPECT_EQ(Create(7, strPrivate, 0), 0);
    EXPECT_EQ(Create(8, strPrivate, 0x8400), 0);

    // Deletes: 300 for an unknown work and then silence; nothing at all for flag 0x40.
    EXPECT_EQ(Delete(19), 300);
    EXPECT_EQ(Delete(19, 500), -1);
    EXPECT_EQ(Delete(1), 0);
    ASSERT_EQ(Create(20, strPath, 0x40), 0);
    EXPECT_EQ(Delete(20, 500), -1);
    EXPECT_TRUE(Session().Logged("CFileTransSvrManager::Delete(work id: 20)"));
}

TEST_F(FileSource, TheLimitOfWorksGives302)
{
    Start("file_trans_svr_max_concurrent = 2\n");
    std::string strPath = File("f", "x");
    EXPECT_EQ(Create(1, strPath), 0);
    EXPECT_EQ(Create(2, strPath), 0);
    EXPECT_EQ(Create(3, strPath), 302);
    EXPECT_EQ(Delete(1), 0);
    EXPECT_EQ(Create(4, strPath), 0);
}

TEST_F(FileSource, ATakenPortMakesTheSearchTryTheNextLowerOne)
{
    unsigned short nPort = FreePortPair();
    ASSERT_NE(nPort, 0);
    PortHolder holder(nPort);
    ASSERT_TRUE(holder.Own());
    Start("", nPort);
    RspWorkFileSrcCreate rsp;
    ASSERT_EQ(Create(1, File("f", "x"), 0, &rsp), 0);
    EXPECT_EQ(rsp.srcServerPort.value, nPort - 1);
    FilePeer peer;
    EXPECT_TRUE(peer.Connect(static_cast<unsigned short>(nPort - 1), 2000));
}

TEST_F(FileSource, AllPortsTakenGives313AndTheWorkStays)
{
    // The search ends at 1025: from 1030 down, every port is held (by the
    // test, or by whoever has it already).
    std::vector<std::unique_ptr<PortHolder>> vecHolders;
    for (unsigned short nPort = 1025; nPort <= 1030; ++nPort) vecHolders.push_back(std::make_unique<PortHolder>(nPort));
    Start("", 1030);
    std::string strPath = File("f", "x");
    RspWorkFileSrcCreate rsp;
    EXPECT_EQ(Create(1, strPath, 0, &rsp), 313);
    EXPECT_EQ(rsp.srcServerPort.value, 0);
    EXPECT_EQ(Create(1, strPath, 0, nullptr, 500), -1);  // remembered
    // The history forgets the id while the work itself is still there.
    Session().AdvanceClock(200);
    EXPECT_EQ(Create(1, strPath), 323);
}

TEST_F(FileSource, WorksThatNobodyReadsExpireButATwinInUseIsSpared)
{
    Start("file_trans_svr_not_get_keep_second_before_auto_delete = 100\n");
    std::string strPath = File("f", "x");
    ASSERT_EQ(Create(1, strPath), 0);
    ASSERT_EQ(Create(2, strPath), 0);  // twins: same file, same destination
    ASSERT_EQ(Create(3, File("g", "y")), 0);
    FilePeer peer;
    ASSERT_TRUE(peer.Connect(m_nPort, 2000));
    Session().AdvanceClock(50);
    ASSERT_TRUE(peer.Heartbeat(1, 500));
    ASSERT_TRUE(Session().Logged("UpdateClientInfo(work id: 1, dst work id: 500"));
    Session().AdvanceClock(60);  // 110 s: work 3 goes, work 2 is spared by its twin
    ASSERT_TRUE(Session().Logged("auto delete work, it not get data in very many time, work id: 3"));
    Session().AdvanceClock(11);
    EXPECT_EQ(Session().ReadLog().find("very many time, work id: 2"), std::string::npos);
    // Work 1 goes quiet: it goes, with its connection, and its twin with it.
    Session().AdvanceClock(50);
    EXPECT_TRUE(Session().Logged("very many time, work id: 1"));
    EXPECT_TRUE(Session().Logged("very many time, work id: 2"));
    EXPECT_TRUE(peer.WaitClosedBySource(3000));
    EXPECT_EQ(Delete(2), 300);
}

TEST_F(FileSource, AnIdleListenerClosesAfterItsKeepTime)
{
    Start("file_trans_svr_thread_keep_timeout_second = 100\n");
    std::string strPath = File("f", "x");
    ASSERT_EQ(Create(1, strPath), 0);
    ASSERT_EQ(Delete(1), 0);
    Session().AdvanceClock(50);
    FilePeer peer;
    EXPECT_TRUE(peer.Connect(m_nPort, 2000));
    Session().AdvanceClock(60);
    ASSERT_TRUE(Session().Logged("we close the server listen, timeout: 100s"));
    EXPECT_TRUE(peer.WaitClosedBySource(3000));
    EXPECT_FALSE(peer.Connect(m_nPort, 2000));
    // The next create opens it again.
    RspWorkFileSrcCreate rsp;
    ASSERT_EQ(Create(2, strPath, 0, &rsp), 0);
    EXPECT_EQ(rsp.srcServerPort.value, m_nPort);
    EXPECT_TRUE(peer.Connect(m_nPort, 2000));
}

// With the opt-in check a work serves only its path to its destination;
// without it, any path to anyone for a known work.
TEST_F(FileSource, TheOptInCheckServesAWorkOnlyItsPathAndItsDestination)
{
    for (bool bCheck : {true, false}) {
        SCOPED_TRACE(bCheck);
        m_pSession.reset();
        Start(bCheck ? "file_trans_svr_check_client = 1\n" : "");
        std::string strPath = File("f", "data");
        std::string strOther = File("g", "other");
        ASSERT_EQ(Create(1, strPath, 0, nullptr, 3000, LOOPBACK), 0);
        ASSERT_EQ(Create(2, strPath, 0, nullptr, 3000, 0x0900000A), 0);  // 10.0.0.9, as inet_pton leaves it
        const struct {
            unsigned int nWorkId;
            std::string strPath, strServed;  // empty: the source closes the connection
        } rows[] = {{1, strPath, "data"}, {1, strOther, bCheck ? "" : "other"}, {2, strPath, bCheck ? "" : "data"}};
        for (const auto& row : rows) {
            FilePeer peer;
            ASSERT_TRUE(peer.Connect(m_nPort, 2000));
            ASSERT_TRUE(peer.Get(row.nWorkId, 5, row.strPath, 0, 10, 1));
            FileBlock block;
            if (row.strServed.empty()) {
                EXPECT_TRUE(peer.WaitClosedBySource(3000)) << row.nWorkId << row.strPath;
            } else {
                ASSERT_TRUE(peer.Next(block, 3000)) << row.nWorkId << row.strPath;
                EXPECT_EQ(block.strContent, row.strServed);
            }
        }
    }
}

TEST_F(FileSource, AFileOfTheCacheIsRenewedByItsOfferAndItsReaders)
{
    Start("cache_max_size = 300\n");
    std::vector<std::string> vecFiles;
    for (const char* szName : {"cache/a", "cache/b", "cache/c"}) {
        vecFiles.push_back(File(szName, std::string(100, 'c')));
        ASSERT_EQ(g_fileTransCache.AddToCache(vecFiles.back(), 100, 0), vecFiles.back());
        g_fileTransCache.SetCacheFileFinish(vecFiles.back());
        Session().AdvanceClock(10);
    }
    std::string strId;
    bool bComplete = false;
    unsigned int nThread = 0;
    auto has = [&](const std::string& strPath) {
        return g_fileTransCache.GetFromCache(strId, bComplete, nThread, strPath);
    };
    // The offer of a makes it the youngest: room for one more takes b.
    ASSERT_EQ(Create(1, vecFiles[0], 0x400), 0);
    std::string strD = Session().Path("cache/d");
    ASSERT_EQ(g_fileTransCache.AddToCache(strD, 100, 0), strD);
    EXPECT_TRUE(has(vecFiles[0]));
    EXPECT_FALSE(has(vecFiles[1]));
    // The offer of c makes it younger than a, until a reader of a's work comes.
    Session().AdvanceClock(10);
    ASSERT_EQ(Create(2, vecFiles[2], 0x400), 0);
    Session().AdvanceClock(10);
    FilePeer peer;
    ASSERT_TRUE(peer.Connect(m_nPort, 2000));
    ASSERT_TRUE(peer.Heartbeat(1, 7));
    ASSERT_TRUE(Session().Logged("UpdateClientInfo(work id: 1, dst work id: 7"));
    std::string strE = Session().Path("cache/e");
    ASSERT_EQ(g_fileTransCache.AddToCache(strE, 100, 0), strE);
    EXPECT_TRUE(has(vecFiles[0]));
    EXPECT_FALSE(has(vecFiles[2]));
}

// The encrypted create: the session key first, then creates with fileMd5.
class FileSourceEnc : public FileSource {
protected:
    void StartWithKey(const std::string& strExtra = "")
    {
        Start(strExtra, 0, true);
        m_nKeySn = Session().EstablishKey(m_strKey);
        ASSERT_NE(m_nKeySn, 0u);
    }

    int CreateEnc(unsigned int nWorkId, const std::string& strPath, const std::string& strMd5, int nTimeoutMs = 5000)
    {
        ReqWorkFileSrcCreateEncData data;
        data.srcFile.Set(strPath.data(), strPath.size());
        data.fileMd5.Set(strMd5.data(), strMd5.size());
        data.flag = 0;
        std::string strEnc = AesEncrypt(m_strKey, EncodeRecord(data));
        ReqWorkFileSrcCreateEnc req;
        req.encData.ReSet(strEnc.data(), strEnc.size());
        req.keySn = static_cast<int>(m_nKeySn);
        return Reply<RspWorkFileSrcCreate>(req, nWorkId, 33, nTimeoutMs);
    }

    std::string m_strKey = "0123456789abcdef";
    unsigned int m_nKeySn = 0;
};

// A given MD5 is checked; what can not be summed (a FIFO, a directory) is 314
// without blocking, a missing file 329.
TEST_F(FileSourceEnc, TheExpectedMd5IsChecked)
{
    StartWithKey();
    std::string strData(3 * 1048576 + 17, 'q');
    std::string strPath = File("f", strData);
    EXPECT_EQ(CreateEnc(1, strPath, brel_lib::md5("other")), 335);
    EXPECT_EQ(CreateEnc(2, strPath, brel_lib::md5(strData)), 0);
    EXPECT_EQ(CreateEnc(3, strPath, ""), 0);  // no check asked
    EXPECT_TRUE(Session().Logged("CProcessCommon::ReqFileSrcCreateEnc(file md5: " + brel_lib::md5(strData) + ")"));

    std::string strFifo = Session().Path("fifo");
    ASSERT_EQ(mkfifo(strFifo.c_str(), 0644), 0);
    std::string strDir = Session().Path("dir");
    ASSERT_EQ(mkdir(strDir.c_str(), 0755), 0);
    EXPECT_EQ(CreateEnc(4, strFifo, brel_lib::md5("x")), 314);
    EXPECT_EQ(CreateEnc(5, strDir, brel_lib::md5("x")), 314);
    EXPECT_EQ(CreateEnc(6, Session().Path("missing"), brel_lib::md5("x")), 329);
}

// Under the check's size limit: a file changed after its sum was taken fails
// until the sum is forgotten. Above the limit a file passes unchecked.
TEST_F(FileSourceEnc, AChangedFileFails335UntilItsSumIsForgotten)
{
    StartWithKey("file_trans_svr_check_md5_max_size = 10\n");
    EXPECT_EQ(CreateEnc(1, File("big", std::string(11, 'z')), brel_lib::md5("wrong")), 0);
    EXPECT_EQ(CreateEnc(2, File("small", std::string(10, 'z')), brel_lib::md5("wrong")), 335);

    std::string strPath = File("f", "first");
    EXPECT_EQ(CreateEnc(3, strPath, brel_lib::md5("first")), 0);
    WriteFile(strPath, "second");
    struct utimbuf times = {1000, 1000};
    ASSERT_EQ(utime(strPath.c_str(), &times), 0);
    EXPECT_EQ(CreateEnc(4, strPath, brel_lib::md5("second")), 335);
    Session().AdvanceClock(1800);
    EXPECT_EQ(CreateEnc(5, strPath, brel_lib::md5("second")), 335);
    // An hour after the sum was taken, at the next clean-up, it is taken anew.
    Session().AdvanceClock(1900);
    EXPECT_TRUE(WaitUntil([&] { return CreateEnc(100 + rand() % 100000, strPath, brel_lib::md5("second"), 1000) == 0; },
                          5000));
}

} // namespace

// Every reply and result code of the real file destination. A test work server
// plays the source and sends what a real one never would (a wrong digest, blocks
// sized to fill a small disk); small disks and a passwd without `daemon` come from
// a mount namespace of the agent's own, minutes from libfaketime, a slow link from
// a rate limit in a network namespace of the test's own.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sched.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <numeric>

#include "file_transfer_e2e.h"
#include "md5.h"

using namespace agent_test;

namespace {

const unsigned int BLOCK = 512 * 1024;

class DstCodes : public AgentFileDst {
protected:
    void TearDown() override
    {
        if (m_nPid > 0) Stop(m_nPid);
    }

    void Start() { ASSERT_GT(m_nPid = StartAgent(), 0); }
    // The agent in a mount namespace of its own, after the shell's mounts there.
    void StartInMountNamespace(const std::string& strMounts)
    {
        Tree().SetLaunchPrefix({"unshare", "-m", "sh", "-c", strMounts + " && exec \"$0\" \"$@\""});
        Start();
        ASSERT_NE(ReadLink("/proc/self/ns/mnt"), ReadLink("/proc/" + std::to_string(m_nPid) + "/ns/mnt"));
    }
    static std::string ReadLink(const std::string& strPath)
    {
        char szBuf[256] = {};
        return readlink(strPath.c_str(), szBuf, sizeof(szBuf) - 1) > 0 ? szBuf : "";
    }
    // A path as the agent sees it.
    std::string Seen(const std::string& strPath) const
    {
        return "/proc/" + std::to_string(m_nPid) + "/root" + strPath;
    }

    int CreateRet(unsigned int nWorkId, const std::string& strDst, int nFlag = 0, unsigned int nIp = Loopback(),
                  int nTimeoutMs = 5000)
    {
        size_t nMark = Mark();
        SendCreate(nWorkId, "/src/file", strDst, m_source.Port(), 9, nFlag, 5, nIp);
        return WaitReply<RspWorkFileDstCreate>(nWorkId, nMark, nTimeoutMs);
    }
    int Create2Ret(unsigned int nWorkId, const std::string& strDst, unsigned long long lSize,
                   const std::vector<unsigned int>& vecIp = {Loopback()}, int nFlag = 0x400)
    {
        size_t nMark = Mark();
        SendCreate2(nWorkId, "/src/file", strDst, m_source.Port(), 9, nFlag, lSize, vecIp);
        return WaitReply<RspWorkFileDstCreate>(nWorkId, nMark, 5000);
    }
    template <class TRsp>
    int Ret(unsigned int nWorkId, size_t nFrom, TRsp* pOut = nullptr) { return WaitReply<TRsp>(nWorkId, nFrom, 5000, pOut); }
    // Create (answered once the agent has connected to the test's source) and set-action, up to the first get.
    void CreateAndStart(unsigned int nWorkId, const std::string& strDst, int nFlag = 0)
    {
        int nGets = m_source.Count(Zik::reqWorkFileAgentGetCid);
        ASSERT_EQ(CreateRet(nWorkId, strDst, nFlag), 0);
        size_t nMark = Mark();
        SendSetAction(nWorkId);
        ASSERT_EQ(Ret<RspWorkFileDstSetAction>(nWorkId, nMark), 0);
        ASSERT_TRUE(m_source.WaitFor(Zik::reqWorkFileAgentGetCid, 5000, nullptr, static_cast<size_t>(nGets) + 1));
    }
    // The source's answer of the whole content in one block, and the work's reports.
    std::vector<int> ServeWhole(unsigned int nWorkId, const std::string& strContent)
    {
        size_t nMark = Mark();
        EXPECT_TRUE(AnswerGet(m_source, nWorkId, 0, strContent, strContent.size()));
        return Results(nWorkId, nMark, 5000);
    }

    // A directory that everyone may write into.
    std::string OpenDir()
    {
        std::string strOpen = Tree().Path("open");
        mkdir(strOpen.c_str(), 0777);
        chmod(strOpen.c_str(), 0777);
        return strOpen;
    }

    TestWorkServer m_source;  // plays the source agent
    pid_t m_nPid = -1;
};

TEST_F(DstCodes, ABadAddressIs1000AnUnknownWorkIs300AndAFileTheUserDaemonMayNotModifyIs339)
{
    Start();
    EXPECT_EQ(CreateRet(1, Tree().Path("out"), 0, 0), 1000);
    EXPECT_EQ(Create2Ret(2, Tree().Path("out2"), 10, {}), 1000);
    EXPECT_EQ(Create2Ret(3, Tree().Path("out3"), 10, {Loopback(), 0}), 1000);
    EXPECT_EQ(CreateRet(1, Tree().Path("out")), 0) << "a refused create leaves no trace: the id may come again";

    size_t nMark = Mark();
    SendSetAction(5);
    SendQuery(5);
    SendDelete(5);
    EXPECT_EQ(Ret<RspWorkFileDstSetAction>(5, nMark), 300);
    RspWorkFileDstQuery query;
    EXPECT_EQ(Ret<RspWorkFileDstQuery>(5, nMark, &query), 300);
    EXPECT_EQ(query.status.value, 4);
    EXPECT_EQ(Ret<RspWorkFileDstDelete>(5, nMark), 300);

    std::string strExisting = Tree().Path("rootfile");
    WriteFile(strExisting, "old");
    chmod(strExisting.c_str(), 0644);
    EXPECT_EQ(CreateRet(30, strExisting, 0x8000), 339);
    chmod(strExisting.c_str(), 0666);
    EXPECT_EQ(CreateRet(31, strExisting, 0x8000), 0) << "a file others may write passes by the world bit";
}

TEST_F(DstCodes, TheLimitCountsFinishedWorksAnd302RefusesMore)
{
    DstConfig()["file_trans_client_max_concurrent"] = "1";
    Start();
    CreateAndStart(1, Tree().Path("limit"));
    EXPECT_EQ(ServeWhole(1, "x"), std::vector<int>{0});
    EXPECT_EQ(CreateRet(2, Tree().Path("limit2")), 302);
    size_t nMark = Mark();
    SendDelete(1);
    EXPECT_EQ(Ret<RspWorkFileDstDelete>(1, nMark), 0);
    EXPECT_EQ(CreateRet(3, Tree().Path("limit3")), 0);
}

// The sanitizer runtime of this test (and so of the agent) and a blank; empty in a plain
// build. It must be preloaded first: ASan insists, and TSan sees condition waits only so.
std::string SanitizerRuntime()
{
    std::ifstream maps("/proc/self/maps");
    std::string strLine;
    while (std::getline(maps, strLine)) {
        size_t nPath = strLine.find('/');
        if (nPath != std::string::npos && (strLine.find("/libasan.so") != std::string::npos ||
                                           strLine.find("/libtsan.so") != std::string::npos))
            return strLine.substr(nPath) + " ";
    }
    return "";
}

// The history sweep runs every 180 s of the agent's clock and no key shortens it:
// libfaketime moves the clock (its file is read again each second).
TEST_F(DstCodes, ARepeatedCreateIsSilentAndIs323AfterTheHistorySweep)
{
    std::string strLib = "/usr/lib/x86_64-linux-gnu/faketime/libfaketime.so.1";
    if (access(strLib.c_str(), R_OK) != 0) GTEST_SKIP() << "no libfaketime (tools/setup_deps.sh installs faketime)";
    std::string strClock = Tree().Path("faketime"), strSupp = Tree().Path("tsan.supp");
    WriteFile(strClock, "+0\n");
    // libfaketime rereads its clock file into a static buffer from every thread that asks the
    // time: a race of its own, not the agent's, that ThreadSanitizer would end the agent for.
    WriteFile(strSupp, "race:libfaketime\n");
    const char* szTsan = getenv("TSAN_OPTIONS");
    Tree().SetLaunchPrefix({"env", "LD_PRELOAD=" + SanitizerRuntime() + strLib, "FAKETIME_TIMESTAMP_FILE=" + strClock,
                            "FAKETIME_CACHE_DURATION=1", "FAKETIME_DONT_FAKE_MONOTONIC=1",
                            "TSAN_OPTIONS=" + std::string(szTsan != nullptr ? szTsan : "") + " suppressions=" + strSupp});
    DstConfig()["work_history_keep_second"] = "10";
    Start();
    EXPECT_EQ(CreateRet(7, Tree().Path("again")), 0);
    EXPECT_EQ(CreateRet(7, Tree().Path("again"), 0, Loopback(), 500), -1) << "a known id is answered by silence";
    WriteFile(strClock, "+200\n");
    int ret = -1;
    for (int i = 0; i < 20 && ret == -1; ++i) ret = CreateRet(7, Tree().Path("again"), 0, Loopback(), 500);
    EXPECT_EQ(ret, 323);
}

TEST_F(DstCodes, ACacheWorkRunsByItselfAndIs331ThenIs330WhenCompleteAnd333WithoutRoom)
{
    DstConfig()["cache_max_size"] = "1000";
    Start();
    std::string strCacheId = Tree().Path("cache/one");
    ASSERT_EQ(Create2Ret(20, strCacheId, 5), 331);
    ASSERT_TRUE(m_source.WaitFor(Zik::reqWorkFileAgentGetCid, 5000)) << "the pull starts without a set-action";
    EXPECT_EQ(ServeWhole(20, "hello"), std::vector<int>{0});
    EXPECT_EQ(Create2Ret(21, strCacheId, 5), 330);
    size_t nMark = Mark();
    SendQuery(21);
    EXPECT_EQ(Ret<RspWorkFileDstQuery>(21, nMark), 300) << "a complete file makes no work";
    EXPECT_EQ(Create2Ret(22, Tree().Path("cache/big"), 5000), 333);
    EXPECT_EQ(Create2Ret(23, Tree().Path("cache/small"), 500), 331);
}

TEST_F(DstCodes, TheUserDaemonMayNotCreateTheFileIs340AndAFileMadeForItIsItsOwn)
{
    Start();
    EXPECT_EQ(CreateRet(32, Tree().Path("missing_dir/file"), 0x8000), 340);
    std::string strClosed = Tree().Path("closed");
    mkdir(strClosed.c_str(), 0755);
    EXPECT_EQ(CreateRet(33, strClosed + "/file", 0x8000), 340);
    EXPECT_EQ(Create2Ret(34, strClosed + "/cached", 10, {Loopback()}, 0x8000 | 0x400), 331)
        << "the cache path has no such check";

    std::string strOpen = OpenDir();
    CreateAndStart(35, strOpen + "/file", 0x8000);
    EXPECT_EQ(ServeWhole(35, "data"), std::vector<int>{0});
    struct stat st;
    struct passwd* pDaemon = getpwnam("daemon");
    ASSERT_NE(pDaemon, nullptr);
    ASSERT_EQ(stat((strOpen + "/file").c_str(), &st), 0);
    EXPECT_EQ(st.st_uid, pDaemon->pw_uid);
}

TEST_F(DstCodes, WithoutTheUserDaemon341AtCreateAndAtTheFirstBlock)
{
    StartInMountNamespace("true");
    if (HasFatalFailure()) return;  // never mount over the /etc of the test's own namespace
    std::string strOpen = OpenDir();
    CreateAndStart(4, strOpen + "/file", 0x8000);  // daemon is still known here

    // A whole /etc of its own, in the agent's namespace only.
    std::string strEtc = Tree().Path("fake_etc");
    mkdir(strEtc.c_str(), 0755);
    WriteFile(strEtc + "/passwd", "root:x:0:0:root:/root:/bin/sh\n");
    WriteFile(strEtc + "/group", "root:x:0:\n");
    WriteFile(strEtc + "/nsswitch.conf", "passwd: files\ngroup: files\n");
    std::string strMount = "nsenter -t " + std::to_string(m_nPid) + " -m mount --bind '" + strEtc + "' /etc";
    ASSERT_EQ(system(strMount.c_str()), 0);

    EXPECT_EQ(ServeWhole(4, "data"), std::vector<int>{341}) << "nothing goes on after 341";
    EXPECT_EQ(CreateRet(5, strOpen + "/other", 0x8000), 341);
}

// Blocks that end the work where they are written.
struct PullCase {
    const char* szName;
    const char* szDiskSize;  // a tmpfs of this size at "small", in the agent's namespace; empty for none
    const char* szDst;
    std::vector<size_t> vecBlocks;
    bool bBadDigest;  // the blocks come with the digest of something else
    bool bIntrude;    // another writer appends to the file after the first block
    std::vector<int> vecResults;
};
void PrintTo(const PullCase& c, std::ostream* pOut) { *pOut << c.szName; }

const PullCase kPullCases[] = {
    {"AMissingDirectoryIs320AndIsNotMade", "", "no/such/dir/file", {3}, false, false, {320}},
    {"NoSpaceAtTheStartOfABlockIs321", "1m", "small/file", {BLOCK, BLOCK, BLOCK}, false, false, {321}},
    {"AShortWriteIs322", "1m", "small/file", {BLOCK, BLOCK + BLOCK / 2}, false, false, {322}},
    {"AFileChangedBehindTheWorkIs322Twice", "", "changed", {1000, 1000}, false, true, {322, 322}},
    {"AWrongBlockDigestIs342WithoutRetry", "", "digest", {100}, true, false, {342}},
};

class DstPullCodes : public DstCodes, public ::testing::WithParamInterface<PullCase> {};

TEST_P(DstPullCodes, EndTheWorkAndTakeThePartialFile)
{
    const PullCase& c = GetParam();
    std::string strDisk = Tree().Path("small");
    mkdir(strDisk.c_str(), 0777);
    if (*c.szDiskSize != '\0') {
        StartInMountNamespace(std::string("mount -t tmpfs -o size=") + c.szDiskSize + " tmpfs '" + strDisk + "'");
    } else {
        Start();
    }
    if (HasFatalFailure()) return;
    std::string strDst = Tree().Path(c.szDst);
    CreateAndStart(1, strDst);
    size_t nMark = Mark();
    unsigned long long lTotal = std::accumulate(c.vecBlocks.begin(), c.vecBlocks.end(), 0ULL), lPos = 0;
    std::string strOther = brel_lib::md5("something else");
    for (size_t nSize : c.vecBlocks) {
        ASSERT_TRUE(AnswerGet(m_source, 1, lPos, std::string(nSize, 'b'), lTotal, c.bBadDigest ? &strOther : nullptr));
        lPos += nSize;
        if (c.bIntrude && lPos == c.vecBlocks[0]) {
            struct stat st;
            ASSERT_TRUE(WaitUntil([&] { return stat(strDst.c_str(), &st) == 0 && st.st_size == 1000; }, 5000));
            int fd = open(strDst.c_str(), O_WRONLY | O_APPEND);
            ASSERT_EQ(write(fd, "intruder", 8), 8);
            close(fd);
        }
    }
    EXPECT_EQ(Results(1, nMark, 5000), c.vecResults);
    // The first get asks for all of these files: no get follows a failure.
    EXPECT_EQ(m_source.Count(Zik::reqWorkFileAgentGetCid), 1);
    struct stat st;
    EXPECT_NE(stat(Seen(strDst).c_str(), &st), 0) << "the partial file is gone, or was never made";
    EXPECT_NE(stat(Seen(Tree().Path("no")).c_str(), &st), 0) << "no directory is made without 0x2000";
}

INSTANTIATE_TEST_SUITE_P(Codes, DstPullCodes, ::testing::ValuesIn(kPullCases),
                         [](const ::testing::TestParamInfo<PullCase>& info) { return info.param.szName; });

// Two real agents in a network namespace of the test's own, whose loopback a
// token bucket limits to 2 Mbit/s.
class DstUnderRateLimit : public AgentFileTransfer {
protected:
    void SetUp() override
    {
        std::string strWhy;
        if (!CanRunEndToEnd(strWhy)) GTEST_SKIP() << strWhy;
        // Before any socket or agent is made: they belong to the namespace of
        // the thread that makes them. TearDown takes this thread back.
        m_fdOldNet = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
        if (m_fdOldNet < 0 || unshare(CLONE_NEWNET) != 0) GTEST_SKIP() << "no network namespace here";
        // A small MTU, so that the bucket's burst holds a whole packet.
        if (system("ip link set lo mtu 1500 up && tc qdisc add dev lo root tbf rate 2mbit burst 16kb latency 2s") != 0)
            GTEST_SKIP() << "no tbf on the namespace's loopback";
        AgentFileTransfer::SetUp();
        if (IsSkipped() || HasFatalFailure()) return;
        StartAgents();
    }
    void TearDown() override
    {
        AgentFileTransfer::TearDown();
        if (m_fdOldNet >= 0) {
            EXPECT_EQ(setns(m_fdOldNet, CLONE_NEWNET), 0);
            close(m_fdOldNet);
        }
    }

    // The sizes that the destination asked for, gets and look-aheads, in order, from its log.
    std::vector<unsigned int> AskedSizes()
    {
        std::vector<unsigned int> vecSizes;
        std::string strLog = Tree().ReadLog();
        const std::string strKey = "get size: ";
        for (size_t nPos = strLog.find("FileAgent"); nPos != std::string::npos; nPos = strLog.find("FileAgent", nPos + 1)) {
            size_t nSize = strLog.find(strKey, nPos);
            size_t nEnd = strLog.find('\n', nPos);
            if (strLog.compare(nPos - 3, 3, "Req") == 0 && nSize < nEnd)
                vecSizes.push_back(static_cast<unsigned int>(strtoul(strLog.c_str() + nSize + strKey.size(), nullptr, 10)));
        }
        return vecSizes;
    }

    int m_fdOldNet = -1;
};

TEST_F(DstUnderRateLimit, TheRequestSizeComesDown)
{
    std::string strSrc = SrcTree().Path("slow_src");
    WriteFile(strSrc, std::string(16 << 20, 's'));
    unsigned short nPort = Offer(1, strSrc);
    ASSERT_NE(nPort, 0);
    size_t nMark = Mark();
    SendCreate(1, strSrc, Tree().Path("slow_dst"), nPort, 1);
    ASSERT_EQ(WaitReply<RspWorkFileDstCreate>(1, nMark, 5000), 0);
    SendSetAction(1);
    // At 2 Mbit/s the link gives some 250 KB/s: once a period of the
    // statistics is ripe, the tier of that speed asks for far less than 512 KiB.
    std::vector<unsigned int> vecSizes;
    int64_t lDeadline = SteadyMs() + 60000;
    while (SteadyMs() < lDeadline) {
        vecSizes = AskedSizes();
        if (!vecSizes.empty() && vecSizes.back() < vecSizes.front()) break;
        SleepMs(500);
    }
    ASSERT_FALSE(vecSizes.empty());
    EXPECT_EQ(vecSizes.front(), 0x80000u) << "the pull starts at the configured size";
    EXPECT_LE(vecSizes.back(), 0x10000u) << "and comes down to a low tier";
}

} // namespace

// The destination's disk failures and the user daemon, through the server
// session in a mount namespace of the test's own: a tmpfs that fills up, a
// file changed behind the work's back, and a passwd without daemon.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "md5.h"
#include "session_harness.h"

using namespace agent_test;

namespace {

const unsigned int BLOCK = 512 * 1024;

unsigned int Loopback()
{
    unsigned int nIp = 0;
    inet_pton(AF_INET, "127.0.0.1", &nIp);
    return nIp;
}

class FileDstDisk : public ::testing::Test {
protected:
    // Before any thread: the mounts of this test stay in this process.
    void SetUp() override
    {
        if (getuid() != 0 || unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
            GTEST_SKIP() << "no private mount namespace here";
        m_pSession = std::make_unique<SessionHarness>("");
        m_pSession->Start();
    }
    SessionHarness& S() { return *m_pSession; }

    // A tmpfs of the size at the path; false if it can't be mounted.
    bool SmallDisk(const std::string& strPath, const std::string& strSize)
    {
        mkdir(strPath.c_str(), 0777);
        return mount("tmpfs", strPath.c_str(), "tmpfs", 0, ("size=" + strSize).c_str()) == 0;
    }

    // Create and set-action of a common work towards the test peer.
    void StartWork(unsigned int nWorkId, const std::string& strDst, int nFlag = 0)
    {
        ReqWorkFileDstCreate req;
        req.workId = static_cast<int>(nWorkId);
        req.srcFile = "/src/file";
        req.dstPath.Set(strDst.data(), strDst.size());
        req.srcServerIp = static_cast<int>(Loopback());
        req.srcServerPort = m_source.Port();
        req.srcWorkId = 9;
        req.flag = nFlag;
        S().Send(req);
        RspWorkFileDstCreate created;
        ASSERT_TRUE(S().Next(created));
        ASSERT_EQ(created.ret.value, 0);
        ReqWorkFileDstSetAction action;
        action.workId = static_cast<int>(nWorkId);
        S().Send(action);
        RspWorkFileDstSetAction started;
        ASSERT_TRUE(S().Next(started));
        ASSERT_TRUE(m_source.WaitFor(Zik::reqWorkFileAgentGetCid, 5000));
    }

    void Answer(unsigned int nDstWorkId, unsigned long long lPos, const std::string& strContent,
                unsigned long long lTotal)
    {
        RspWorkFileAgentGet rsp;
        rsp.dstWorkId = static_cast<int>(nDstWorkId);
        rsp.srcWorkId = 9;
        rsp.srcFileAccessBit = 0644;
        rsp.content.Set(strContent.data(), strContent.size());
        std::string strMd5 = brel_lib::md5(strContent);
        rsp.md5.Set(strMd5.data(), strMd5.size());
        rsp.beginPosHigh = static_cast<int>(lPos >> 32);
        rsp.beginPosLow = static_cast<int>(lPos & 0xFFFFFFFFU);
        rsp.totalSizeHigh = static_cast<int>(lTotal >> 32);
        rsp.totalSizeLow = static_cast<int>(lTotal & 0xFFFFFFFFU);
        EXPECT_TRUE(m_source.Send(rsp, 0));
    }

    // The reports of the work at status 2 that come within the time.
    std::vector<int> Results(unsigned int nWorkId, int nTimeoutMs)
    {
        std::vector<int> vecRet;
        RspWorkFileDstQuery rsp;
        while (S().NextWhere(
            rsp,
            [&](const RspWorkFileDstQuery& m) {
                return static_cast<unsigned int>(m.workId.value) == nWorkId && m.status.value == 2;
            },
            nTimeoutMs))
            vecRet.push_back(rsp.ret.value);
        return vecRet;
    }

    bool WaitSize(const std::string& strPath, off_t lSize)
    {
        return WaitUntil(
            [&] {
                struct stat st;
                return stat(strPath.c_str(), &st) == 0 && st.st_size == lSize;
            },
            5000);
    }

    void TearDown() override
    {
        m_pSession.reset();
        for (const std::string& strMount : m_vecMounts) umount2(strMount.c_str(), MNT_DETACH);
    }

    TestWorkServer m_source;
    std::unique_ptr<SessionHarness> m_pSession;
    std::vector<std::string> m_vecMounts;
};

TEST_F(FileDstDisk, NoSpaceAtTheStartOfABlockIs321)
{
    std::string strDir = S().Path("small");
    ASSERT_TRUE(SmallDisk(strDir, "1m"));
    m_vecMounts.push_back(strDir);
    std::string strDst = strDir + "/file";
    StartWork(1, strDst);
    std::string strBlock(BLOCK, 'b');
    Answer(1, 0, strBlock, 3 * BLOCK);
    ASSERT_TRUE(WaitSize(strDst, BLOCK));
    Answer(1, BLOCK, strBlock, 3 * BLOCK);
    ASSERT_TRUE(WaitSize(strDst, 2 * BLOCK));
    Answer(1, 2 * BLOCK, strBlock, 3 * BLOCK);
    EXPECT_EQ(Results(1, 3000), std::vector<int>{321});
    struct stat st;
    EXPECT_NE(stat(strDst.c_str(), &st), 0) << "the partial file is removed";
}

TEST_F(FileDstDisk, AShortWriteIs322)
{
    std::string strDir = S().Path("small");
    ASSERT_TRUE(SmallDisk(strDir, "1m"));
    m_vecMounts.push_back(strDir);
    std::string strDst = strDir + "/file";
    StartWork(2, strDst);
    Answer(2, 0, std::string(BLOCK, 'c'), 2 * BLOCK + BLOCK / 2);
    ASSERT_TRUE(WaitSize(strDst, BLOCK));
    // Half of this block still fits.
    Answer(2, BLOCK, std::string(BLOCK + BLOCK / 2, 'd'), 2 * BLOCK + BLOCK / 2);
    EXPECT_EQ(Results(2, 3000), std::vector<int>{322});
}

TEST_F(FileDstDisk, AFileChangedBehindTheWorkGivesTwo322Reports)
{
    std::string strDst = S().Path("changed");
    StartWork(3, strDst);
    Answer(3, 0, std::string(1000, 'e'), 3000);
    ASSERT_TRUE(WaitSize(strDst, 1000));
    {
        int fd = open(strDst.c_str(), O_WRONLY | O_APPEND);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(write(fd, "intruder", 8), 8);
        close(fd);
    }
    Answer(3, 1000, std::string(1000, 'f'), 3000);
    EXPECT_EQ(Results(3, 3000), (std::vector<int>{322, 322}));
    struct stat st;
    EXPECT_NE(stat(strDst.c_str(), &st), 0);
}

TEST_F(FileDstDisk, WithoutTheUserDaemon341AtCreateAndAtTheFirstBlock)
{
    std::string strOpen = S().Path("open");
    mkdir(strOpen.c_str(), 0777);
    chmod(strOpen.c_str(), 0777);
    // Made while daemon exists, then daemon disappears before the first block.
    StartWork(4, strOpen + "/file", 0x8000);

    // A whole /etc of its own: a mount on /etc/passwd alone would be dropped
    // as soon as anyone on the machine replaced that file.
    std::string strEtc = S().Path("fake_etc");
    mkdir(strEtc.c_str(), 0755);
    WriteFile(strEtc + "/passwd", "root:x:0:0:root:/root:/bin/sh\n");
    WriteFile(strEtc + "/group", "root:x:0:\n");
    WriteFile(strEtc + "/nsswitch.conf", "passwd: files\ngroup: files\n");
    ASSERT_EQ(mount(strEtc.c_str(), "/etc", nullptr, MS_BIND, nullptr), 0);
    m_vecMounts.push_back("/etc");

    Answer(4, 0, "data", 8);
    EXPECT_EQ(Results(4, 3000), std::vector<int>{341}) << "nothing goes on after 341";

    ReqWorkFileDstCreate req;
    req.workId = 5;
    req.srcFile = "/src/file";
    std::string strDst = strOpen + "/other";
    req.dstPath.Set(strDst.data(), strDst.size());
    req.srcServerIp = static_cast<int>(Loopback());
    req.srcServerPort = m_source.Port();
    req.flag = 0x8000;
    S().Send(req);
    RspWorkFileDstCreate created;
    ASSERT_TRUE(S().NextWhere(created, [](const RspWorkFileDstCreate& m) { return m.workId.value == 5; }, 3000));
    EXPECT_EQ(created.ret.value, 341) << S().ReadLog();
}

TEST_F(FileDstDisk, ANewFileForDaemonIsGivenToDaemon)
{
    std::string strOpen = S().Path("open");
    mkdir(strOpen.c_str(), 0777);
    chmod(strOpen.c_str(), 0777);
    std::string strDst = strOpen + "/file";
    StartWork(6, strDst, 0x8000);
    Answer(6, 0, "data", 4);
    EXPECT_EQ(Results(6, 3000), std::vector<int>{0});
    struct stat st;
    ASSERT_EQ(stat(strDst.c_str(), &st), 0);
    EXPECT_NE(st.st_uid, 0u);
}

} // namespace

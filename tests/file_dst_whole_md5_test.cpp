// The destination's opt-in whole-file check, on the manager and its write
// threads in-process, with the test as the file source: after the last block
// a work whose create gave the file's MD5 ends with 0 when the file matches it
// and with 335 when not; with the key off, or no digest given, nothing changes.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <functional>

#include "file_trans_client/file_trans_client.h"
#include "md5.h"
#include "file_peer.h"

using namespace agent_test;

namespace {

const char* const CONTENT = "the first half|and the second";
const unsigned int HALF = 15;

class WholeFileMd5 : public ::testing::Test {
protected:
    // The manager with the key as given, and a source that it connects to.
    void StartManager(const std::string& strKey)
    {
        m_strCfg = m_dir.Path("config");
        // Gets of 4 x 4 bytes: the first block brings a look-ahead get.
        WriteFile(m_strCfg, "file_trans_client_max_file_write_thread = 1\nfile_trans_client_get_size_per_req = 4\n"
                            "file_trans_client_enable_auto_adjust_speed = 0\nfile_trans_client_check_file_md5 = " +
                                strKey + "\n");
        m_pManager = std::make_unique<CFileTransClientManager>(m_toServer);
        m_pManager->SetCfgFile(m_strCfg);
        ASSERT_EQ(m_pManager->Start(), 0);
    }

    void TearDown() override
    {
        if (m_pManager) m_pManager->Stop();
    }

    // The next message of type T on the server side, others dropped; false on timeout.
    template <class T>
    bool NextToServer(T& out, int nTimeoutMs = 5000)
    {
        int64_t lDeadline = SteadyMs() + nTimeoutMs;
        while (SteadyMs() < lDeadline) {
            unsigned int nSize = 0;
            char* p = static_cast<char*>(m_toServer.GetFrontAndPop(nSize, 50));
            if (p == nullptr) continue;
            TestWorkServer::Received received;
            received.bytes.assign(p, p + nSize);
            brel_lib::CDataBufferSTLDeque::FreePopData(p);
            if (DecodeBody(received, out)) return true;
        }
        return false;
    }

    // One work that gets the content in two blocks; between them the step
    // runs. The ret of its final report, -1 if none came.
    int Pull(const std::string& strFileMd5, const std::function<void()>& between)
    {
        unsigned int nIp = 0;
        inet_pton(AF_INET, "127.0.0.1", &nIp);
        ReqWorkFileDstCreate create;
        create.workId = 1;
        create.srcFile = "/src/file";
        std::string strDst = m_dir.Path("dst");
        create.dstPath.Set(strDst.data(), strDst.size());
        create.srcServerIp = static_cast<int>(nIp);
        create.srcServerPort = m_source.Port();
        EXPECT_EQ(m_pManager->CreateTransClient(&create, 1, strFileMd5), 0);
        RspWorkFileDstCreate created;
        EXPECT_TRUE(NextToServer(created));
        size_t nGets = static_cast<size_t>(m_source.Count(Zik::reqWorkFileAgentGetCid));
        ReqWorkFileDstSetAction action;
        action.workId = 1;
        EXPECT_EQ(m_pManager->SetActionWork(&action, 2), 0);
        EXPECT_TRUE(m_source.WaitFor(Zik::reqWorkFileAgentGetCid, 5000, nullptr, nGets + 1));
        std::string strAll(CONTENT);
        EXPECT_TRUE(AnswerGet(m_source, 1, 0, strAll.substr(0, HALF), strAll.size()));
        // The look-ahead get that the first block brings goes out once the
        // block is written and digested.
        EXPECT_TRUE(m_source.WaitFor(Zik::reqWorkFileAgentGetCid, 5000, nullptr, nGets + 2));
        between();
        EXPECT_TRUE(AnswerGet(m_source, 1, HALF, strAll.substr(HALF), strAll.size()));
        RspWorkFileDstQuery result;
        while (NextToServer(result))
            if (result.status.value == 2) return result.ret.value;
        return -1;
    }

    TempDir m_dir;
    std::string m_strCfg;
    brel_lib::CDataBufferSTLDeque m_toServer{false, 0};
    TestWorkServer m_source;
    std::unique_ptr<CFileTransClientManager> m_pManager;
};

// A work that did not digest the file from its first block (the key came on
// by a reload after it) reads the file at the end, and a file that someone
// rewrote in place meanwhile fails although its size is right.
TEST_F(WholeFileMd5, TheFileMatchingItsCreateEndsWithZeroAndAnyOtherWith335)
{
    std::string strRight = brel_lib::md5(CONTENT);
    std::string strUpper = strRight;
    for (char& ch : strUpper) ch = static_cast<char>(toupper(static_cast<unsigned char>(ch)));
    enum Between { NOTHING, KEY_ON, KEY_ON_AND_REWRITE };
    const struct {
        const char* szName;
        const char* szKey;
        std::string strFileMd5;
        Between between;
        int nRet;
    } cases[] = {
        {"match", "1", strRight, NOTHING, 0},
        {"match, upper case", "1", strUpper, NOTHING, 0},
        {"mismatch", "1", brel_lib::md5("another file"), NOTHING, 335},
        {"key off", "0", brel_lib::md5("another file"), NOTHING, 0},
        {"no digest given", "1", "", NOTHING, 0},
        {"key on after the first block", "0", strRight, KEY_ON, 0},
        {"key on after the first block, file rewritten", "0", strRight, KEY_ON_AND_REWRITE, 335},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.szName);
        StartManager(c.szKey);
        EXPECT_EQ(Pull(c.strFileMd5,
                       [&] {
                           if (c.between == NOTHING) return;
                           WriteFile(m_strCfg, "file_trans_client_check_file_md5 = 1\n");
                           m_pManager->ReloadCfg();
                           if (c.between == KEY_ON_AND_REWRITE) WriteFile(m_dir.Path("dst"), std::string(HALF, 'x'));
                       }),
                  c.nRet);
        if (c.between != KEY_ON_AND_REWRITE) {
            EXPECT_EQ(ReadFile(m_dir.Path("dst")), CONTENT) << "the file stays as written";
        }
        m_pManager->Stop();
        m_pManager.reset();
    }
}

} // namespace

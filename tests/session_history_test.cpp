// The session's memory of created and deleted work ids, on a clock the test
// moves: repeated requests, expiry by age, the size limit. The session runs
// in-process with its managers; packets go in and out through its buffers.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include "agent.h"
#include "agent_clock.h"
#include "install_tree.h"
#include "log.h"
#include "process_common.h"
#include "test_work_server.h"

using namespace brel_lib;
using namespace agent_test;

class SessionHarness {
public:
    explicit SessionHarness(unsigned int nKeepSecond = 100)
        : m_rev(true, 0), m_send(false, 0), m_link(m_rev, m_send, false), m_session(m_rev, m_send)
    {
        char szDir[] = "/tmp/session_test_XXXXXX";
        if (mkdtemp(szDir) == nullptr) abort();
        m_strDir = szDir;
        WriteFile(m_strDir + "/config",
                  "public_key_version = 1\nwork_history_keep_second = " + std::to_string(nKeepSecond) +
                      "\ntask_max_concurrent = 5000\nheartbeat_second = 100000\n");
        LogFile(m_strDir + "/agent");
        g_nAgentId = 77;
        SetAgentTimeOffset(0);
        m_session.SetCfgFile(m_strDir + "/config");
        m_session.SetNetwork(&m_link);
        m_session.SetAgentVersion("7.0.39");
        EXPECT_EQ(m_session.Start(), 0);
    }

    ~SessionHarness()
    {
        m_session.Stop();
        SetAgentTimeOffset(0);
        LogFile("");
        std::string strCommand = "rm -rf " + m_strDir;
        if (system(strCommand.c_str()) != 0) ADD_FAILURE();
    }

    template <class T>
    void Send(T& req, int nAppend = 1)
    {
        std::vector<unsigned char> bytes = EncodeMessage(req, nAppend);
        m_rev.Push(bytes.data(), static_cast<unsigned int>(bytes.size()), BREL_DATA_NORMAL_PRI);
    }

    // The ret of the next reply of type T; -1 when none came in time.
    template <class T>
    int NextRet(int nTimeoutMs = 3000)
    {
        int64_t lDeadline = SteadyMs() + nTimeoutMs;
        while (SteadyMs() < lDeadline) {
            unsigned int nSize = 0;
            char* p = static_cast<char*>(m_send.GetFrontAndPop(nSize, 0));
            if (p == nullptr) {
                usleep(2000);
                continue;
            }
            TestWorkServer::Received received;
            received.bytes.assign(p, p + nSize);
            CDataBufferSTLDeque::FreePopData(p);
            T rsp;
            if (DecodeBody(received, rsp)) return rsp.ret;
        }
        return -1;
    }

    int Create(unsigned int nWorkId)
    {
        ReqWorkCmdCreate req;
        req.workId = static_cast<int>(nWorkId);
        req.cmd = "true";
        Send(req);
        return NextRet<RspWorkCmdCreate>();
    }

    int Delete(unsigned int nWorkId)
    {
        ReqWorkCmdDelete req;
        req.workId = static_cast<int>(nWorkId);
        Send(req);
        return NextRet<RspWorkCmdDelete>();
    }

    // Moves the agent's clock and lets the session run a pass on it.
    void AdvanceClock(time_t tSeconds)
    {
        m_tOffset += tSeconds;
        SetAgentTimeOffset(m_tOffset);
        usleep(300000);
    }

    size_t CreatedCount() { return m_session.m_mapCreatedWorkId.size(); }

private:
    std::string m_strDir;
    CDataBufferSTLDeque m_rev;
    CDataBufferSTLDeque m_send;
    CNetworkClientBrel m_link;
    CProcessCommon m_session;
    time_t m_tOffset = 0;
};

namespace {

TEST(SessionHistory, RepeatsAnswerWithoutEffectAndExpireByAge)
{
    SessionHarness session;
    EXPECT_EQ(session.Create(1), 0);
    EXPECT_EQ(session.Create(1), 0);  // remembered: answered, nothing created
    // Past the keeping time, at the next sweep: the id is forgotten while the
    // work waits unstarted in the manager, so a create now finds it there.
    session.AdvanceClock(200);
    EXPECT_EQ(session.Create(1), 323);

    EXPECT_EQ(session.Create(2), 0);
    EXPECT_EQ(session.Delete(2), 0);
    EXPECT_EQ(session.Delete(2), 0);  // remembered
    session.AdvanceClock(200);
    EXPECT_EQ(session.Delete(2), 300);  // forgotten, and the work is gone
}

TEST(SessionHistory, SweepRunsOnlyAfterMoreThan179Seconds)
{
    SessionHarness session;
    EXPECT_EQ(session.Create(3), 0);
    session.AdvanceClock(150);  // older than the keeping time, but no sweep yet
    EXPECT_EQ(session.Create(3), 0);
    session.AdvanceClock(40);   // 190 s since the last sweep
    EXPECT_EQ(session.Create(3), 323);
}

TEST(SessionHistory, AnOversizedMapLosesItsLowestIdsFirst)
{
    SessionHarness session(100000);
    for (unsigned int n = 1; n <= 1005; ++n) ASSERT_EQ(session.Create(n), 0) << n;
    EXPECT_EQ(session.CreatedCount(), 1005u);
    session.AdvanceClock(181);
    EXPECT_EQ(session.CreatedCount(), 1000u);
    EXPECT_EQ(session.Create(5), 323);  // forgotten; the work itself still waits
    EXPECT_EQ(session.Create(6), 0);    // remembered
    session.AdvanceClock(181);          // exactly 1000 fresh entries: all kept
    EXPECT_EQ(session.CreatedCount(), 1000u);
}

} // namespace

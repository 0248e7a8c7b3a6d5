// The metrics textfile of the real agent: with the key set it appears within
// its interval, and its counters follow a command work and a refused request.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "agent_e2e.h"

using namespace agent_test;

namespace {

class AgentMetrics : public AgentEndToEnd {
protected:
    // Waits until the file holds the line; false on timeout.
    bool WaitLine(const std::string& strLine)
    {
        return WaitUntil([&] { return ReadFile(m_strPath).find(strLine + "\n") != std::string::npos; }, 10000);
    }

    std::string m_strPath;
};

TEST_F(AgentMetrics, FileFollowsCommandAndRefusal)
{
    m_strPath = Tree().Path("log/agent.prom");
    Tree().Config()["prometheus_textfile_path"] = m_strPath;
    Tree().Config()["prometheus_textfile_interval_second"] = "1";
    pid_t pid = StartAgent();
    ASSERT_TRUE(WaitLine("zik_agent_works{kind=\"command\",state=\"finished\"} 0")) << ReadFile(m_strPath);
    struct stat st;
    ASSERT_EQ(stat(m_strPath.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0644u);

    ReqWorkCmdCreate create;
    create.workId = 7;
    create.cmd = "true";
    ASSERT_TRUE(Server().Send(create, 1));
    ASSERT_TRUE(Server().WaitFor(Zik::rspWorkCmdCreateCid, 5000));
    ReqWorkCmdSetAction start;
    start.workId = 7;
    start.action = 1;
    ASSERT_TRUE(Server().Send(start, 2));
    EXPECT_TRUE(WaitLine("zik_agent_works{kind=\"command\",state=\"finished\"} 1")) << ReadFile(m_strPath);

    ReqWorkCmdQuery query;  // no such work: answered with 300
    query.workId = 8;
    ASSERT_TRUE(Server().Send(query, 3));
    EXPECT_TRUE(WaitLine("zik_agent_refused_requests_total 1")) << ReadFile(m_strPath);

    // With nothing on the link the file is still written at its interval: the
    // session's wait ends at the write's deadline. Each write renames a new file.
    ASSERT_EQ(stat(m_strPath.c_str(), &st), 0);
    ino_t nInode = st.st_ino;
    EXPECT_TRUE(WaitUntil([&] { return stat(m_strPath.c_str(), &st) == 0 && st.st_ino != nInode; }, 10000));
    Stop(pid);
}

} // namespace

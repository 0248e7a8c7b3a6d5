// The base of every end-to-end test: an install tree whose config points at a
// test work server, the real agent started there, and stopped by its pid.
// Skipped where end-to-end tests may not run.
#pragma once

#include <gtest/gtest.h>
#include <signal.h>

#include <memory>
#include <string>

#include "install_tree.h"
#include "test_work_server.h"

namespace agent_test {

class AgentEndToEnd : public ::testing::Test {
protected:
    void SetUp() override
    {
        std::string strWhy;
        if (!CanRunEndToEnd(strWhy)) GTEST_SKIP() << strWhy;
        m_pTree = std::make_unique<InstallTree>();
        NewServer();
    }

    InstallTree& Tree() { return *m_pTree; }
    TestWorkServer& Server() { return *m_pServer; }

    // A fresh test work server in place of the last one, and the config pointed at it.
    void NewServer(bool bAnswerHeartbeats = false)
    {
        m_pServer = std::make_unique<TestWorkServer>();
        m_pServer->SetAnswerHeartbeats(bAnswerHeartbeats);
        Tree().Config()["server_port"] = std::to_string(m_pServer->Port());
        Tree().WriteConfig();
    }

    // Writes the config, starts the agent (in the foreground, or as a daemon)
    // and waits for its first heartbeat; its pid.
    pid_t StartAgent(bool bDaemon = false)
    {
        Tree().WriteConfig();
        size_t nBefore = static_cast<size_t>(Server().Count(Zik::reqWorkAgentHeartbeatCid));
        pid_t pid = bDaemon ? Tree().StartDaemon() : Tree().StartForeground();
        EXPECT_TRUE(Server().WaitFor(Zik::reqWorkAgentHeartbeatCid, 5000, nullptr, nBefore + 1));
        return pid;
    }

    // Writes the config and runs the agent in the foreground until it ends by
    // itself; its exit status, or -1 when it still runs after 5 seconds.
    int RunToExit()
    {
        Tree().WriteConfig();
        return Tree().WaitExit(Tree().StartForeground(), 5000);
    }

    // Sends the signal and expects the agent to end with the status.
    void Stop(pid_t pid, int nSignal = SIGINT, int nStatus = 0)
    {
        kill(pid, nSignal);
        EXPECT_EQ(Tree().WaitExit(pid, 5000), nStatus);
    }

    std::unique_ptr<InstallTree> m_pTree;
    std::unique_ptr<TestWorkServer> m_pServer;
};

} // namespace agent_test

// The local work server tool with a real agent: list, run, and its errors.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include "agent_e2e.h"
#include "tcp_peer.h"

using namespace agent_test;

namespace {

// Runs a shell command line; its output and exit status.
int Shell(const std::string& strCommand, std::string& strOut)
{
    FILE* pPipe = popen((strCommand + " 2>&1").c_str(), "r");
    if (pPipe == nullptr) return -1;
    char buf[4096];
    size_t n;
    strOut.clear();
    while ((n = fread(buf, 1, sizeof(buf), pPipe)) > 0) strOut.append(buf, n);
    int nStatus = pclose(pPipe);
    return WIFEXITED(nStatus) ? WEXITSTATUS(nStatus) : -1;
}

// The agent serves the tool's server instead of the test work server.
class WorkServerTool : public AgentEndToEnd {
protected:
    void SetUp() override
    {
        AgentEndToEnd::SetUp();
        if (IsSkipped()) return;
        m_nPort = RefusedPort();
        m_strControl = Tree().Path("ws.sock");
        m_strTool = std::string(WORK_SERVER_BINARY) + " ";
        m_pidServer = fork();
        if (m_pidServer == 0) {
            if (freopen("/dev/null", "w", stdout) == nullptr) _exit(127);
            execl(WORK_SERVER_BINARY, "work_server", "serve", "--listen", ("127.0.0.1:" + std::to_string(m_nPort)).c_str(),
                  "--control", m_strControl.c_str(), static_cast<char*>(nullptr));
            _exit(127);
        }
        ASSERT_TRUE(WaitUntil([&] { return access(m_strControl.c_str(), F_OK) == 0; }, 5000));
        Tree().Config()["server_port"] = std::to_string(m_nPort);
        Tree().WriteConfig();
        m_pidAgent = Tree().StartForeground();
    }

    void TearDown() override
    {
        if (m_pidServer > 0) {
            kill(m_pidServer, SIGTERM);
            waitpid(m_pidServer, nullptr, 0);
        }
    }

    std::string Tool(const std::string& strArgs) { return m_strTool + strArgs + " --control " + m_strControl; }
    // Waits until the tool's list holds the text.
    bool Listed(const std::string& strText)
    {
        std::string strOut;
        return WaitUntil([&] { return Shell(Tool("list"), strOut) == 0 && strOut.find(strText) != std::string::npos; }, 10000);
    }

    unsigned short m_nPort = 0;
    std::string m_strControl, m_strTool;
    pid_t m_pidServer = -1, m_pidAgent = -1;
};

TEST_F(WorkServerTool, ListsAgentsAndRunsCommands)
{
    ASSERT_TRUE(Listed("127.0.0.1"));
    EXPECT_TRUE(Listed("16777343"));
    std::string strOut;

    EXPECT_EQ(Shell(Tool("run --agent 127.0.0.1") + " -- 'echo out; echo err >&2; exit 7'", strOut), 7);
    EXPECT_EQ(strOut, "out\nerr\n");
    EXPECT_EQ(Shell(Tool("run --agent 16777343 --buf-size 3") + " -- 'echo abcdef'", strOut), 0);
    EXPECT_EQ(strOut, "abc");
    EXPECT_EQ(Shell(Tool("run --agent 127.0.0.1 --timeout 1") + " -- 'sleep 5'", strOut), 1);
    EXPECT_NE(strOut.find("the work is timeout"), std::string::npos);
    EXPECT_NE(strOut.find("ret 324"), std::string::npos);
}

TEST_F(WorkServerTool, ErrorsAreClear)
{
    std::string strOut;
    EXPECT_EQ(Shell(m_strTool + "frobnicate", strOut), 2);
    EXPECT_NE(strOut.find("usage:"), std::string::npos);
    EXPECT_EQ(Shell(Tool("run --agent 10.9.8.7 --wait 0") + " -- true", strOut), 2);
    EXPECT_NE(strOut.find("no such agent is connected: 10.9.8.7"), std::string::npos);

    // The agent goes away while its command runs.
    ASSERT_TRUE(Listed("127.0.0.1"));
    pid_t pidRun = fork();
    if (pidRun == 0) {
        std::string strCommand = Tool("run --agent 127.0.0.1") + " -- 'sleep 20' > " + Tree().Path("run.out") + " 2>&1";
        execl("/bin/sh", "sh", "-c", strCommand.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    SleepMs(700);
    kill(m_pidAgent, SIGKILL);
    int nStatus = 0;
    ASSERT_TRUE(WaitUntil([&] { return waitpid(pidRun, &nStatus, WNOHANG) == pidRun; }, 10000));
    EXPECT_EQ(WEXITSTATUS(nStatus), 2);
    EXPECT_NE(ReadFile(Tree().Path("run.out")).find("the agent was lost"), std::string::npos);
}

} // namespace

// Copies between two agents of the tool's server: the first agent is the
// source, a second one in a tree of its own the destination.
class WorkServerCopy : public WorkServerTool {
protected:
    void SetUp() override
    {
        WorkServerTool::SetUp();
        if (IsSkipped()) return;
        m_pDst = std::make_unique<InstallTree>();
        m_pDst->Config()["server_port"] = std::to_string(m_nPort);
        m_pDst->Config()["agent_id"] = "127.0.0.2";
        m_pDst->WriteConfig();
        m_pidDst = m_pDst->StartForeground();
        ASSERT_TRUE(Listed("127.0.0.2"));
        ASSERT_TRUE(Listed("127.0.0.1 "));
    }

    std::unique_ptr<InstallTree> m_pDst;
    pid_t m_pidDst = -1;
};

TEST_F(WorkServerCopy, CopiesAFileAndDeletesItsWorksOnBothAgents)
{
    std::string strSrc = Tree().Path("copy_src");
    std::string strData(3 * 1048576 + 5, '\0');
    for (size_t i = 0; i < strData.size(); ++i) strData[i] = static_cast<char>(i * 7 + i / 999);
    WriteFile(strSrc, strData);
    std::string strDst = m_pDst->Path("copy_dst");
    std::string strOut;
    EXPECT_EQ(Shell(Tool("copy --from 127.0.0.1:" + strSrc + " --to 127.0.0.2:" + strDst), strOut), 0) << strOut;
    EXPECT_NE(strOut.find("copied 3.0 MiB"), std::string::npos) << strOut;
    EXPECT_EQ(strOut.find('\r'), std::string::npos) << "plain lines when the output is no terminal";
    EXPECT_EQ(ReadFile(strDst), strData);
    EXPECT_TRUE(m_pDst->WaitForLog("CFileWriteThread::DeleteWork(work id:", 3000));
    EXPECT_TRUE(Tree().WaitForLog("CFileTransSvrManager::Delete(work id:", 3000));
}

TEST_F(WorkServerCopy, EachFailureHasItsOwnMessage)
{
    std::string strOut;
    EXPECT_EQ(Shell(Tool("copy --from 127.0.0.1:" + Tree().Path("missing") + " --to 127.0.0.2:" + m_pDst->Path("x")),
                    strOut),
              1);
    EXPECT_NE(strOut.find("at the source with ret 329: the source file does not exist"), std::string::npos) << strOut;

    std::string strSrc = Tree().Path("small");
    WriteFile(strSrc, "abc");
    EXPECT_EQ(Shell(Tool("copy --from 127.0.0.1:" + strSrc + " --to 127.0.0.2:" + m_pDst->Path("no/dir/file")), strOut), 1);
    EXPECT_NE(strOut.find("at the destination with ret 320"), std::string::npos) << strOut;

    EXPECT_EQ(Shell(Tool("copy --from 127.0.0.1:" + strSrc + " --to 127.0.0.9:/tmp/x --wait 1"), strOut), 2);
    EXPECT_NE(strOut.find("no such agent is connected: 127.0.0.9"), std::string::npos) << strOut;
}

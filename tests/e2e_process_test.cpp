// The agent process from outside: arguments, start failures, daemon mode,
// the pid lock, signals, reload, the process limits and the log's forms.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>

#include <regex>

#include "agent_e2e.h"

using namespace agent_test;

namespace {

using AgentProcess = AgentEndToEnd;

TEST_F(AgentProcess, VersionAndUsage)
{
    // -v and -V print the two lines and read nothing, whatever follows.
    for (const char* szFlag : {"-v", "-V"}) {
        unlink(Tree().StdoutPath().c_str());
        pid_t pid = Tree().Spawn(szFlag, "whatever");
        EXPECT_EQ(Tree().WaitExit(pid, 5000), 0);
        std::string strOut = Tree().ReadStdout();
        EXPECT_TRUE(std::regex_match(strOut, std::regex("The Version: 7\\.0\\.39\nCompile Time: "
                                                        "\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\n")))
            << strOut;
    }
    EXPECT_EQ(ReadFile(Tree().LogPath()), "");

    unlink(Tree().StdoutPath().c_str());
    pid_t pid = fork();
    if (pid == 0) {
        if (freopen(Tree().StdoutPath().c_str(), "w", stdout) == nullptr) _exit(127);
        execl(AGENT_BINARY, "agent", static_cast<char*>(nullptr));
        _exit(127);
    }
    EXPECT_EQ(Tree().WaitExit(pid, 5000), 1);
    EXPECT_EQ(Tree().ReadStdout(), "the args is need\nUsage:\nagent cfgfile/-v [not daemon]\n");
}

TEST_F(AgentProcess, StartFailuresGiveTheirTextAndStatus)
{
    // Unreadable file: no log file is known yet, so the line goes to standard output.
    pid_t pid = Tree().Spawn("../etc/missing", "fg");
    EXPECT_EQ(Tree().WaitExit(pid, 5000), 1);
    EXPECT_NE(Tree().ReadStdout().find("Error  ("), std::string::npos);
    EXPECT_NE(Tree().ReadStdout().find("):ReLoadCfg(the cfg file is error)"), std::string::npos);

    Tree().Config()["server_ip"] = "300.1.1.1";
    EXPECT_EQ(RunToExit(), 1);
    EXPECT_NE(Tree().ReadLog().find("Error  ("), std::string::npos);
    EXPECT_NE(Tree().ReadLog().find("):the server ip address is not correct in config file"), std::string::npos);

    Tree().Config()["server_ip"] = "127.0.0.1";
    Tree().Config()["pid_file"] = "";
    EXPECT_EQ(RunToExit(), 1);
    EXPECT_TRUE(Tree().WaitForLog("the pid file is not correct in config file", 1000));

    Tree().Config()["pid_file"] = "../log/agent.pid";
    for (const char* szId : {"0.0.0.0", "no-such-interface-and-no-number"}) {
        Tree().Config()["agent_id"] = szId;
        EXPECT_EQ(RunToExit(), 1) << szId;
        EXPECT_TRUE(Tree().WaitForLog(
            std::string("ReLoadCfg(the agent_id is not correct in config file, agent_id: ") + szId + ")", 1000));
    }
    Tree().Config().erase("agent_id");
    EXPECT_EQ(RunToExit(), 1);
}

TEST_F(AgentProcess, UnknownLogLevelAndNumericAgentIdWarnAndStartGoesOn)
{
    Tree().Config()["log_level"] = "debug";  // names are case-sensitive
    Tree().Config()["agent_id"] = "12345";
    pid_t pid = StartAgent();
    std::string strLog = Tree().ReadLog();
    EXPECT_NE(strLog.find("Warning("), std::string::npos);
    EXPECT_NE(strLog.find("ReLoadCfg(the log level is error, will use default level)"), std::string::npos);
    EXPECT_NE(strLog.find("ReLoadCfg(EthnetGetIpAddress is return error, we try num of agent id, errno: -3)"),
              std::string::npos);
    Stop(pid, SIGQUIT);
}

TEST_F(AgentProcess, RunsWithTheHardLimitItHas)
{
    rlimit limit;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    pid_t pid = StartAgent();
    ASSERT_TRUE(WaitUntil([&] { return ReadFile("/proc/" + std::to_string(pid) + "/limits").find("Max open files") != std::string::npos; }, 2000));
    WaitUntil([&] { return Tree().ReadLog().find("RLIMIT_NOFILE") != std::string::npos; }, 1000);
    SleepMs(300);
    std::string strLimits = ReadFile("/proc/" + std::to_string(pid) + "/limits");
    std::smatch match;
    ASSERT_TRUE(std::regex_search(strLimits, match, std::regex("Max open files +(\\d+) +(\\d+)")));
    if (limit.rlim_max < 100000) {
        // A container: the hard limit can't be raised, so the agent runs at it and says so.
        std::string strHard = std::to_string(limit.rlim_max);
        EXPECT_EQ(match[1].str(), strHard);
        EXPECT_EQ(match[2].str(), strHard);
        std::string strLog = Tree().ReadLog();
        EXPECT_NE(strLog.find("setrlimit RLIMIT_NOFILE error, errno: 1"), std::string::npos);
        EXPECT_NE(strLog.find("main(the hard limit of RLIMIT_NOFILE can not be raised, we run with the limit: " +
                              strHard + ")"),
                  std::string::npos);
    } else {
        EXPECT_EQ(match[1].str(), "100000");
        EXPECT_EQ(match[2].str(), "100000");
    }
    EXPECT_TRUE(Tree().IsAlive(pid));
}

TEST_F(AgentProcess, DaemonHoldsTheLockAndStopsOnlyOnQuitSignals)
{
    pid_t pid = Tree().StartDaemon();
    ASSERT_GT(pid, 0);
    EXPECT_EQ(Tree().ReadStdout(), "GoDaemon parent exit\n");
    std::string strPidFile = ReadFile(Tree().Path("log/agent.pid"));
    EXPECT_EQ(strPidFile, std::to_string(pid) + "\n");
    ASSERT_TRUE(Tree().WaitForLog("we start", 5000));

    // A second start finds the lock taken, exits 0 and leaves the file alone.
    pid_t pidSecond = Tree().StartForeground();
    EXPECT_EQ(Tree().WaitExit(pidSecond, 5000), 0);
    EXPECT_TRUE(Tree().WaitForLog("we are running now, so we exit", 2000));
    EXPECT_EQ(ReadFile(Tree().Path("log/agent.pid")), strPidFile);

    // SIGTERM is ignored by a daemon; SIGQUIT stops it in order (SIGINT: the command tests).
    kill(pid, SIGTERM);
    SleepMs(500);
    EXPECT_TRUE(Tree().IsAlive(pid));
    Stop(pid, SIGQUIT);
    EXPECT_NE(Tree().ReadLog().find("we end\n\n"), std::string::npos);
}

TEST_F(AgentProcess, ReloadAppliesLogLevelAndAgentIdAndNeedExit)
{
    Tree().Config()["need_exit"] = "1";  // ignored at start
    Tree().Config()["log_level"] = "WARNING";
    Tree().WriteConfig();
    pid_t pid = Tree().StartDaemon();
    ASSERT_GT(pid, 0);
    SleepMs(500);
    EXPECT_TRUE(Tree().IsAlive(pid));
    EXPECT_EQ(Tree().ReadLog().find("we start"), std::string::npos);  // info is below WARNING

    // A new level and an agent id that is a number: the warning of the number shows at DEBUG.
    Tree().Config()["need_exit"] = "0";
    Tree().Config()["log_level"] = "DEBUG";
    Tree().Config()["agent_id"] = "777";
    Tree().WriteConfig();
    kill(pid, SIGUSR1);
    EXPECT_TRUE(Tree().WaitForLog("we try num of agent id", 3000));
    EXPECT_TRUE(Tree().IsAlive(pid));

    Tree().Config()["need_exit"] = "1";
    Tree().WriteConfig();
    Stop(pid, SIGUSR1);
    std::string strLog = Tree().ReadLog();
    EXPECT_NE(strLog.find("main(receive signusr1, we will reload cfg)"), std::string::npos);
    EXPECT_NE(strLog.find("main(need_exit is not zero in cfg, we exit now)"), std::string::npos);
    EXPECT_NE(strLog.find("we end"), std::string::npos);
}

TEST_F(AgentProcess, ReloadWithBadAgentIdEndsTheAgent)
{
    pid_t pid = StartAgent();
    Tree().Config()["agent_id"] = "0.0.0.0";
    Tree().WriteConfig();
    Stop(pid, SIGUSR1, 1);
    EXPECT_EQ(Tree().ReadLog().find("we end"), std::string::npos);
}

TEST_F(AgentProcess, LogLinesHaveTheirForms)
{
    pid_t pid = StartAgent();
    Stop(pid);
    std::string strLog = Tree().ReadLog();
    std::regex line("Info   \\(\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{3}\\)\\(tid:\\d[\\d ]{5}\\):we start\n");
    EXPECT_TRUE(std::regex_search(strLog, line)) << strLog;
    EXPECT_NE(strLog.find("(tid:" + std::to_string(pid)), std::string::npos);

    // Without log_file, lines go to standard output without the thread id.
    Tree().Config().erase("log_file");
    unlink(Tree().StdoutPath().c_str());
    unlink(Tree().LogPath().c_str());
    pid = StartAgent();
    Stop(pid);
    std::regex stdoutLine("Info   \\(\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{3}\\):we start\n");
    EXPECT_TRUE(std::regex_search(Tree().ReadStdout(), stdoutLine)) << Tree().ReadStdout();
}

} // namespace

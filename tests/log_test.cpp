// The process log: line form, level filter, rotation and where lines go.
#include "log.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <regex>

#include "install_tree.h"

using namespace brel_lib;
using agent_test::Exists;
using agent_test::ReadFile;

namespace {

class LogTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        m_strBase = m_dir.Path("agent");
        LogFile(m_strBase);
        SetLogInfo(10, 10);
        LogLevel(LOG_LEVEL_INFO);
    }
    void TearDown() override
    {
        LogFile("");
        SetLogInfo(10, 10);
        LogLevel(LOG_LEVEL_INFO);
    }
    agent_test::TempDir m_dir{"log_test_"};
    std::string m_strBase;
};

TEST_F(LogTest, FileLineForm)
{
    EXPECT_EQ(Log(LOG_LEVEL_WARNING, "CX::Y(value: %d)", 5), 0);
    std::string strLog = ReadFile(m_strBase + ".log");
    std::regex line("Warning\\(\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{3}\\)\\(tid:\\d[\\d ]{5}\\):CX::Y\\(value: 5\\)\n");
    EXPECT_TRUE(std::regex_match(strLog, line)) << strLog;
}

TEST_F(LogTest, LevelFilterAndNames)
{
    Log(LOG_LEVEL_DEBUG, "dropped");
    Log(7, "above six is dropped too");
    EXPECT_FALSE(Exists(m_strBase + ".log"));
    EXPECT_EQ(LogLevel("debug"), -1);  // case-sensitive
    EXPECT_EQ(LogLevel(101u), -1);
    EXPECT_EQ(g_nLogLevel.load(), static_cast<unsigned int>(LOG_LEVEL_INFO));
    EXPECT_EQ(LogLevel("DEBUG"), 0);
    Log(LOG_LEVEL_DEBUG, "kept");
    EXPECT_NE(ReadFile(m_strBase + ".log").find("Debug  ("), std::string::npos);
    EXPECT_EQ(LogLevel("NONE"), 0);
    EXPECT_EQ(g_nLogLevel.load(), 100u);
    EXPECT_EQ(LogLevel("ALL"), 0);
    EXPECT_EQ(g_nLogLevel.load(), 0u);
}

TEST_F(LogTest, RotationKeepsMaxNumFiles)
{
    SetLogInfo(3, 0);  // a size of 0 rotates after every line
    for (int i = 0; i < 6; ++i) Log(LOG_LEVEL_ERROR, "line %d", i);
    EXPECT_FALSE(Exists(m_strBase + ".log"));  // the next line creates it
    EXPECT_NE(ReadFile(m_strBase + "1.log").find("line 5"), std::string::npos);
    EXPECT_NE(ReadFile(m_strBase + "2.log").find("line 4"), std::string::npos);
    EXPECT_FALSE(Exists(m_strBase + "3.log"));
}

TEST_F(LogTest, ExactSizeRotates)
{
    Log(LOG_LEVEL_ERROR, "x");
    long long lSize = static_cast<long long>(ReadFile(m_strBase + ".log").size());
    SetLogInfo(2, 1);
    // Fill the file to exactly one MiB minus one line, then one line reaches it.
    unlink((m_strBase + ".log").c_str());
    {
        std::ofstream file(m_strBase + ".log");
        file << std::string((1 << 20) - lSize, 'a');
    }
    Log(LOG_LEVEL_ERROR, "x");
    EXPECT_FALSE(Exists(m_strBase + ".log"));
    EXPECT_EQ(ReadFile(m_strBase + "1.log").size(), 1u << 20);
}

TEST_F(LogTest, MissingDirectoryLosesTheLineAndAnEmptyNameReturnsToStandardOutput)
{
    LogFile(m_dir.Path("missing/agent"));
    EXPECT_EQ(Log(LOG_LEVEL_ERROR, "lost"), ENOENT);
    LogFile("");
    testing::internal::CaptureStdout();
    Log(LOG_LEVEL_INFO, "to stdout");
    std::string strOut = testing::internal::GetCapturedStdout();
    std::regex line("Info   \\(\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{3}\\):to stdout\n");
    EXPECT_TRUE(std::regex_match(strOut, line)) << strOut;
    EXPECT_FALSE(Exists(m_strBase + ".log"));
}

} // namespace

// The metrics textfile: its text against a golden copy, the write that a
// reader never sees half done, and the timer that decides when it is due.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "install_tree.h"
#include "process_common/metrics_textfile.h"

using namespace agent_test;

namespace {

TEST(MetricsTextfile, FormatMatchesGoldenText)
{
    MetricsSnapshot s;
    s.nCmdWorks[0] = 1;
    s.nCmdWorks[1] = 2;
    s.nCmdWorks[2] = 3;
    s.nFileSrcWorks = 4;
    s.nFileDstWorks[0] = 5;
    s.nFileDstWorks[1] = 6;
    s.nFileDstWorks[2] = 7;
    s.lFileBytesSent = 8ULL << 32;  // beyond 32 bits
    s.lFileBytesReceived = 9;
    s.lLinkConnects = 11;  // the first connect is no reconnect
    s.lRefusedRequests = 12;
    s.nServerRecvQueue = 13;
    s.nServerSendQueue = 14;
    s.nFileWriteQueue = 15;
    EXPECT_EQ(FormatMetrics(s),
              "# HELP zik_agent_works Works in the agent's tables, by kind and stage.\n"
              "# TYPE zik_agent_works gauge\n"
              "zik_agent_works{kind=\"command\",state=\"not_begun\"} 1\n"
              "zik_agent_works{kind=\"command\",state=\"running\"} 2\n"
              "zik_agent_works{kind=\"command\",state=\"finished\"} 3\n"
              "zik_agent_works{kind=\"file_source\",state=\"open\"} 4\n"
              "zik_agent_works{kind=\"file_destination\",state=\"not_begun\"} 5\n"
              "zik_agent_works{kind=\"file_destination\",state=\"running\"} 6\n"
              "zik_agent_works{kind=\"file_destination\",state=\"finished\"} 7\n"
              "# HELP zik_agent_file_bytes_total File block bytes moved between agents, by direction.\n"
              "# TYPE zik_agent_file_bytes_total counter\n"
              "zik_agent_file_bytes_total{direction=\"sent\"} 34359738368\n"
              "zik_agent_file_bytes_total{direction=\"received\"} 9\n"
              "# HELP zik_agent_link_reconnects_total Connects of the server link after the first.\n"
              "# TYPE zik_agent_link_reconnects_total counter\n"
              "zik_agent_link_reconnects_total 10\n"
              "# HELP zik_agent_refused_requests_total Requests answered with a failure code.\n"
              "# TYPE zik_agent_refused_requests_total counter\n"
              "zik_agent_refused_requests_total 12\n"
              "# HELP zik_agent_queue_depth Blocks or requests waiting in a queue.\n"
              "# TYPE zik_agent_queue_depth gauge\n"
              "zik_agent_queue_depth{queue=\"server_receive\"} 13\n"
              "zik_agent_queue_depth{queue=\"server_send\"} 14\n"
              "zik_agent_queue_depth{queue=\"file_write\"} 15\n");
    EXPECT_NE(FormatMetrics(MetricsSnapshot()).find("zik_agent_link_reconnects_total 0\n"), std::string::npos);
}

// A reader racing the writer sees one whole text or the other, never a mix or a
// cut; the file is 0644 under any umask and no temporary file stays behind.
TEST(MetricsTextfile, ReaderNeverSeesPartialFile)
{
    TempDir dir;
    const std::string strPath = dir.Path("agent.prom");
    const std::string strA(1 << 20, 'a');
    const std::string strB = "b\n";
    ASSERT_EQ(WriteFileAtomically(strPath, strB), 0);
    mode_t nOldMask = umask(0);
    std::atomic<bool> bStop{false};
    std::atomic<int> nBad{0}, nReads{0};
    std::thread reader([&] {
        while (!bStop) {
            std::string str = ReadFile(strPath);
            if (str != strA && str != strB) ++nBad;
            ++nReads;
        }
    });
    for (int i = 0; i < 200; ++i) ASSERT_EQ(WriteFileAtomically(strPath, i % 2 == 0 ? strA : strB), 0);
    bStop = true;
    reader.join();
    umask(nOldMask);
    EXPECT_EQ(nBad, 0) << "of " << nReads << " reads";
    struct stat st;
    ASSERT_EQ(stat(strPath.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0644u);
    EXPECT_NE(access((strPath + ".tmp." + std::to_string(getpid())).c_str(), F_OK), 0);
}

TEST(MetricsTextfile, FailedWriteGivesErrnoAndLeavesNothing)
{
    TempDir dir;
    EXPECT_EQ(WriteFileAtomically(dir.Path("missing/agent.prom"), "x\n"), ENOENT);
    // The rename fails onto a directory: the temporary file is removed again.
    ASSERT_EQ(mkdir(dir.Path("taken").c_str(), 0755), 0);
    ASSERT_EQ(mkdir(dir.Path("taken/sub").c_str(), 0755), 0);
    EXPECT_NE(WriteFileAtomically(dir.Path("taken"), "x\n"), 0);
    EXPECT_NE(access(dir.Path("taken.tmp." + std::to_string(getpid())).c_str(), F_OK), 0);
}

TEST(MetricsTextfile, DueAtOnceThenEveryIntervalAndNeverWhenOff)
{
    TempDir dir;
    CMetricsTextfile metrics;
    metrics.Configure("", 60);
    EXPECT_EQ(metrics.NextDueAt(1000), 0);
    EXPECT_FALSE(metrics.Due(1000));

    metrics.Configure(dir.Path("agent.prom"), 0);  // unusable: the default
    EXPECT_TRUE(metrics.Due(1000));
    EXPECT_EQ(metrics.Write("x\n", 1000), 0);
    EXPECT_EQ(metrics.NextDueAt(1000), 1000 + CMetricsTextfile::DEFAULT_INTERVAL_SECOND);
    EXPECT_FALSE(metrics.Due(1059));
    EXPECT_TRUE(metrics.Due(1060));

    // A clock set back an hour pulls the last write back to now: due an interval later, not in an hour.
    metrics.Configure(dir.Path("agent.prom"), 5);
    EXPECT_EQ(metrics.NextDueAt(1000 - 3600), 1000 - 3600 + 5);
}

} // namespace

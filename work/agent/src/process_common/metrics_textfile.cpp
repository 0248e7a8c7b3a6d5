#include "process_common/metrics_textfile.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace brel_lib;

namespace {

const char* const STATE_NAMES[3] = {"not_begun", "running", "finished"};

void Family(std::string& str, const char* szName, const char* szType, const char* szHelp)
{
    str += "# HELP ";
    str += szName;
    str += ' ';
    str += szHelp;
    str += "\n# TYPE ";
    str += szName;
    str += ' ';
    str += szType;
    str += '\n';
}

// One sample: the name, its labels as written between braces (or none), the value.
void Sample(std::string& str, const char* szName, const std::string& strLabels, unsigned long long lValue)
{
    str += szName;
    if (!strLabels.empty()) str += "{" + strLabels + "}";
    str += ' ';
    str += std::to_string(lValue);
    str += '\n';
}

void WorksByStage(std::string& str, const char* szKind, const unsigned int nWorks[3])
{
    for (int i = 0; i < 3; ++i) {
        Sample(str, "zik_agent_works", std::string("kind=\"") + szKind + "\",state=\"" + STATE_NAMES[i] + "\"",
               nWorks[i]);
    }
}

int WriteAll(int fd, const std::string& strText)
{
    size_t nDone = 0;
    while (nDone < strText.size()) {
        ssize_t n = write(fd, strText.data() + nDone, strText.size() - nDone);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return errno;
        nDone += static_cast<size_t>(n);
    }
    return 0;
}

} // namespace

std::string FormatMetrics(const MetricsSnapshot& s)
{
    std::string str;
    Family(str, "zik_agent_works", "gauge", "Works in the agent's tables, by kind and stage.");
    WorksByStage(str, "command", s.nCmdWorks);
    Sample(str, "zik_agent_works", "kind=\"file_source\",state=\"open\"", s.nFileSrcWorks);
    WorksByStage(str, "file_destination", s.nFileDstWorks);
    Family(str, "zik_agent_file_bytes_total", "counter", "File block bytes moved between agents, by direction.");
    Sample(str, "zik_agent_file_bytes_total", "direction=\"sent\"", s.lFileBytesSent);
    Sample(str, "zik_agent_file_bytes_total", "direction=\"received\"", s.lFileBytesReceived);
    Family(str, "zik_agent_link_reconnects_total", "counter", "Connects of the server link after the first.");
    Sample(str, "zik_agent_link_reconnects_total", "", s.lLinkConnects > 0 ? s.lLinkConnects - 1 : 0);
    Family(str, "zik_agent_refused_requests_total", "counter", "Requests answered with a failure code.");
    Sample(str, "zik_agent_refused_requests_total", "", s.lRefusedRequests);
    Family(str, "zik_agent_queue_depth", "gauge", "Blocks or requests waiting in a queue.");
    Sample(str, "zik_agent_queue_depth", "queue=\"server_receive\"", s.nServerRecvQueue);
    Sample(str, "zik_agent_queue_depth", "queue=\"server_send\"", s.nServerSendQueue);
    Sample(str, "zik_agent_queue_depth", "queue=\"file_write\"", s.nFileWriteQueue);
    return str;
}

int WriteFileAtomically(const std::string& strPath, const std::string& strText)
{
    std::string strTmp = strPath + ".tmp." + std::to_string(getpid());
    // The daemon runs with umask 0: the mode is set in full, not left to the umask.
    int fd = open(strTmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0644);
    if (fd < 0) return errno;
    int ret = WriteAll(fd, strText);
    if (ret == 0 && fchmod(fd, 0644) != 0) ret = errno;
    if (close(fd) != 0 && ret == 0) ret = errno;
    if (ret == 0 && rename(strTmp.c_str(), strPath.c_str()) != 0) ret = errno;
    if (ret != 0) unlink(strTmp.c_str());
    return ret;
}

void CMetricsTextfile::Configure(const std::string& strPath, int nIntervalSecond)
{
    CAutoLock lock(m_lock);
    m_strPath = strPath;
    m_nIntervalSecond = nIntervalSecond < 1 ? DEFAULT_INTERVAL_SECOND : nIntervalSecond;
}

time_t CMetricsTextfile::NextDueAt(time_t tNow)
{
    CAutoLock lock(m_lock);
    if (m_strPath.empty()) return 0;
    // A clock set back pulls the last write back to now, so that no write is skipped for long.
    if (m_timePreWrite > tNow) m_timePreWrite = tNow;
    return m_bWritten ? m_timePreWrite + m_nIntervalSecond : tNow;
}

bool CMetricsTextfile::Due(time_t tNow)
{
    time_t tDue = NextDueAt(tNow);
    return tDue != 0 && tNow >= tDue;
}

int CMetricsTextfile::Write(const std::string& strText, time_t tNow)
{
    std::string strPath;
    {
        CAutoLock lock(m_lock);
        strPath = m_strPath;
    }
    m_timePreWrite = tNow;
    m_bWritten = true;
    if (strPath.empty()) return 0;
    int ret = WriteFileAtomically(strPath, strText);
    if (ret != 0 && !m_bFailing) {
        Log(LOG_LEVEL_WARNING, "CMetricsTextfile::Write(write metrics file is error, path: %s, errno: %d)",
            strPath.c_str(), ret);
    } else if (ret == 0 && m_bFailing) {
        Log(LOG_LEVEL_INFO, "CMetricsTextfile::Write(write metrics file is ok again, path: %s)", strPath.c_str());
    }
    m_bFailing = ret != 0;
    return ret;
}

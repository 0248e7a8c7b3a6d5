// The agent's counters in the Prometheus text format, written to a file that
// the node exporter's textfile collector reads: off while
// `prometheus_textfile_path` is empty, else written every
// `prometheus_textfile_interval_second` (60) from the session's timers. The
// file is written beside its final name and renamed over it, so that a
// scrape never reads half a file.
#pragma once

#include <time.h>

#include <string>

#include "log.h"

// One reading of everything the file shows.
struct MetricsSnapshot {
    unsigned int nCmdWorks[3] = {0, 0, 0};      // not begun, running, finished
    unsigned int nFileSrcWorks = 0;             // a source work has no stages
    unsigned int nFileDstWorks[3] = {0, 0, 0};  // not begun, running, finished
    unsigned long long lFileBytesSent = 0;
    unsigned long long lFileBytesReceived = 0;
    unsigned long long lLinkConnects = 0;
    unsigned long long lRefusedRequests = 0;
    unsigned int nServerRecvQueue = 0;  // blocks in the session's receive buffer
    unsigned int nServerSendQueue = 0;  // blocks in the session's send buffer
    unsigned int nFileWriteQueue = 0;   // requests waiting for the write threads
};

// The text of the file, with HELP and TYPE lines.
std::string FormatMetrics(const MetricsSnapshot& snapshot);

// Writes the text to "<path>.tmp.<pid>", mode 0644, and renames it over the
// path; 0, or the errno of the failed step (the temporary file is removed).
int WriteFileAtomically(const std::string& strPath, const std::string& strText);

class CMetricsTextfile {
public:
    static const int DEFAULT_INTERVAL_SECOND = 60;

    // Main thread, at start and reload.
    void Configure(const std::string& strPath, int nIntervalSecond);
    // Session thread: when the next file is due, 0 while off.
    time_t NextDueAt(time_t tNow);
    // Session thread: true when a file is due now; the caller then calls Write.
    bool Due(time_t tNow);
    // Session thread: writes the text; a failure is logged once per streak.
    int Write(const std::string& strText, time_t tNow);

private:
    // m_lock guards the settings, written by the main thread.
    brel_lib::CLock m_lock;
    std::string m_strPath;
    int m_nIntervalSecond = DEFAULT_INTERVAL_SECOND;

    // Session thread only.
    time_t m_timePreWrite = 0;
    bool m_bWritten = false;  // the first write is due at once
    bool m_bFailing = false;
};

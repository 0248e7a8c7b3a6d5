// Processes as /proc shows them, for tests that check what a command work
// leaves running: the descendants of a process, and whether a recorded
// process still runs (the same pid with the same start time, not a zombie).
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace agent_test {

struct ProcInfo {
    pid_t pid = 0;
    pid_t ppid = 0;
    pid_t pgid = 0;
    pid_t sid = 0;
    char cState = 0;
    unsigned long long lStartTime = 0;  // clock ticks after boot
    std::string strCmdline;             // arguments joined by spaces
};

// False when the process does not exist.
bool ReadProcInfo(pid_t pid, ProcInfo& info);
// Every process below root, in no particular order.
std::vector<ProcInfo> Descendants(pid_t root);
// True while the recorded process runs: not gone, not a zombie, not another process under its pid.
bool StillRuns(const ProcInfo& info);
// The recorded processes that still run.
std::vector<ProcInfo> StillRunning(const std::vector<ProcInfo>& vecRecorded);

// Running processes (not zombies) whose real user is the named one.
std::vector<ProcInfo> RunningAs(const std::string& strUser);

// A user with /bin/sh as its shell, made for a test and removed at the end.
class TestUser {
public:
    explicit TestUser(const std::string& strName);
    ~TestUser();
    TestUser(const TestUser&) = delete;
    TestUser& operator=(const TestUser&) = delete;
    bool Ok() const { return m_bOk; }
    const std::string& Name() const { return m_strName; }

private:
    std::string m_strName;
    bool m_bOk = false;
};

} // namespace agent_test

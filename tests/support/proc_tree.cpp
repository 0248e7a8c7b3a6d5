#include "proc_tree.h"

#include <dirent.h>
#include <pwd.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <set>

#include "install_tree.h"

namespace agent_test {

bool ReadProcInfo(pid_t pid, ProcInfo& info)
{
    std::string strDir = "/proc/" + std::to_string(pid);
    std::string strStat = ReadFile(strDir + "/stat");
    size_t nClose = strStat.rfind(')');
    if (nClose == std::string::npos) return false;
    info = ProcInfo();
    info.pid = pid;
    // Fields after the name: state ppid pgrp session tty tpgid flags minflt
    // cminflt majflt cmajflt utime stime cutime cstime priority nice threads
    // itrealvalue starttime.
    const char* p = strStat.c_str() + nClose + 1;
    int nPpid = 0, nPgid = 0, nSid = 0;
    if (sscanf(p, " %c %d %d %d %*d %*d %*u %*u %*u %*u %*u %*u %*u %*d %*d %*d %*d %*d %*d %llu", &info.cState, &nPpid,
               &nPgid, &nSid, &info.lStartTime) != 5) {
        return false;
    }
    info.ppid = nPpid;
    info.pgid = nPgid;
    info.sid = nSid;
    std::string strCmdline = ReadFile(strDir + "/cmdline");
    for (char& c : strCmdline) {
        if (c == 0) c = ' ';
    }
    while (!strCmdline.empty() && strCmdline.back() == ' ') strCmdline.pop_back();
    info.strCmdline = strCmdline;
    return true;
}

namespace {

std::vector<ProcInfo> AllProcesses()
{
    std::vector<ProcInfo> vecAll;
    DIR* pDir = opendir("/proc");
    while (pDir != nullptr) {
        dirent* pEntry = readdir(pDir);
        if (pEntry == nullptr) break;
        char* pEnd = nullptr;
        long lPid = strtol(pEntry->d_name, &pEnd, 10);
        ProcInfo info;
        if (lPid > 0 && *pEnd == 0 && ReadProcInfo(static_cast<pid_t>(lPid), info)) vecAll.push_back(info);
    }
    if (pDir != nullptr) closedir(pDir);
    return vecAll;
}

} // namespace

std::vector<ProcInfo> RunningAs(const std::string& strUser)
{
    std::vector<ProcInfo> vec;
    struct passwd* pw = getpwnam(strUser.c_str());
    if (pw == nullptr) return vec;
    std::string strUid = "Uid:\t" + std::to_string(pw->pw_uid) + "\t";
    for (const ProcInfo& info : AllProcesses()) {
        if (info.cState == 'Z' || info.cState == 'X') continue;
        std::string strStatus = ReadFile("/proc/" + std::to_string(info.pid) + "/status");
        if (strStatus.find("\n" + strUid) != std::string::npos) vec.push_back(info);
    }
    return vec;
}

std::vector<ProcInfo> Descendants(pid_t root)
{
    std::vector<ProcInfo> vecAll = AllProcesses();
    std::set<pid_t> setTree{root};
    std::vector<ProcInfo> vecTree;
    for (bool bGrew = true; bGrew;) {
        bGrew = false;
        for (const ProcInfo& info : vecAll) {
            if (setTree.count(info.ppid) != 0 && setTree.insert(info.pid).second) {
                vecTree.push_back(info);
                bGrew = true;
            }
        }
    }
    return vecTree;
}

bool StillRuns(const ProcInfo& info)
{
    ProcInfo now;
    if (!ReadProcInfo(info.pid, now)) return false;
    return now.lStartTime == info.lStartTime && now.cState != 'Z' && now.cState != 'X';
}

std::vector<ProcInfo> StillRunning(const std::vector<ProcInfo>& vecRecorded)
{
    std::vector<ProcInfo> vec;
    for (const ProcInfo& info : vecRecorded) {
        if (StillRuns(info)) vec.push_back(info);
    }
    return vec;
}

TestUser::TestUser(const std::string& strName) : m_strName(strName)
{
    // Tests running beside each other may hold the lock of the user files for a moment.
    std::string strAdd = "useradd -M -s /bin/sh " + strName + " 2>/dev/null";
    for (int nTry = 0; nTry < 50 && getpwnam(strName.c_str()) == nullptr; ++nTry) {
        if (system(strAdd.c_str()) != 0) SleepMs(100);
    }
    m_bOk = getpwnam(strName.c_str()) != nullptr;
}

TestUser::~TestUser()
{
    if (!m_bOk) return;
    std::string strDel = "userdel " + m_strName + " 2>/dev/null";
    for (int nTry = 0; nTry < 50 && getpwnam(m_strName.c_str()) != nullptr; ++nTry) {
        if (system(strDel.c_str()) != 0) SleepMs(100);
    }
    if (getpwnam(m_strName.c_str()) != nullptr) fprintf(stderr, "could not remove the test user %s\n", m_strName.c_str());
}

} // namespace agent_test

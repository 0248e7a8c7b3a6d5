#include "cmd_execute/cmd_execute_tree.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <set>
#include <sstream>

using namespace brel_lib;

namespace {

// Cgroups kept ready for launches; a burst beyond them makes its own on the start path.
const size_t FREE_SLOT_TARGET = 8;
// This agent's cgroup of works is named by its pid.
const char PARENT_PREFIX[] = "agent_works.";
// Tries past names that exist already (left by an earlier agent of the same pid).
const int MAKE_SLOT_TRIES = 64;

// Mount points in mountinfo escape space, tab, newline and backslash as octal.
std::string UnescapeMountField(const std::string& strField)
{
    std::string strOut;
    for (size_t i = 0; i < strField.size(); ++i) {
        if (strField[i] == '\\' && i + 3 < strField.size()) {
            const char* p = strField.c_str() + i + 1;
            if (p[0] >= '0' && p[0] <= '3' && p[1] >= '0' && p[1] <= '7' && p[2] >= '0' && p[2] <= '7') {
                strOut += static_cast<char>((p[0] - '0') * 64 + (p[1] - '0') * 8 + (p[2] - '0'));
                i += 3;
                continue;
            }
        }
        strOut += strField[i];
    }
    return strOut;
}

bool HasOption(const std::string& strOptions, const char* szOption)
{
    std::istringstream in(strOptions);
    std::string strOne;
    while (std::getline(in, strOne, ',')) {
        if (strOne == szOption) return true;
    }
    return false;
}

bool WriteText(const std::string& strPath, const char* szText)
{
    int fd = open(strPath.c_str(), O_WRONLY | O_CLOEXEC);
    if (fd < 0) return false;
    ssize_t n = write(fd, szText, strlen(szText));
    close(fd);
    return n == static_cast<ssize_t>(strlen(szText));
}

struct ProcEntry {
    pid_t pid;
    pid_t ppid;
    pid_t pgid;
};

// Every process of the system with its parent and group, from /proc.
std::vector<ProcEntry> ReadProcesses()
{
    std::vector<ProcEntry> vec;
    DIR* pDir = opendir("/proc");
    if (pDir == nullptr) return vec;
    while (dirent* pEntry = readdir(pDir)) {
        char* pEnd = nullptr;
        long lPid = strtol(pEntry->d_name, &pEnd, 10);
        if (lPid <= 0 || *pEnd != 0) continue;
        char szPath[64];
        snprintf(szPath, sizeof(szPath), "/proc/%ld/stat", lPid);
        int fd = open(szPath, O_RDONLY | O_CLOEXEC);
        if (fd < 0) continue;
        char szStat[1024];
        ssize_t n = read(fd, szStat, sizeof(szStat) - 1);
        close(fd);
        if (n <= 0) continue;
        szStat[n] = 0;
        // The name may hold spaces and parentheses: the fields start after the last ')'.
        const char* p = strrchr(szStat, ')');
        char cState = 0;
        int nPpid = 0, nPgid = 0;
        if (p == nullptr || sscanf(p + 1, " %c %d %d", &cState, &nPpid, &nPgid) != 3) continue;
        vec.push_back({static_cast<pid_t>(lPid), nPpid, nPgid});
    }
    closedir(pDir);
    return vec;
}

} // namespace

// ---- the seam ----------------------------------------------------------------------

pid_t CCmdChildOps::Wait(pid_t pid, int* pStatus) { return waitpid(pid, pStatus, WNOHANG); }

bool CCmdChildOps::FindCgroupBase(std::string& strDir) { return FindOwnCgroup2Dir(strDir); }

bool FindOwnCgroup2Dir(std::string& strDir)
{
    std::ifstream mountinfo("/proc/self/mountinfo");
    std::string strLine, strMountRoot, strMountPoint;
    while (std::getline(mountinfo, strLine)) {
        std::istringstream in(strLine);
        std::vector<std::string> vecField;
        std::string strField;
        while (in >> strField) vecField.push_back(strField);
        // id parent dev root point options [optional...] - type source super-options
        size_t nDash = 6;
        while (nDash < vecField.size() && vecField[nDash] != "-") ++nDash;
        if (nDash + 1 >= vecField.size() || vecField[nDash + 1] != "cgroup2") continue;
        if (HasOption(vecField[5], "ro")) continue;
        strMountRoot = UnescapeMountField(vecField[3]);
        strMountPoint = UnescapeMountField(vecField[4]);
        break;
    }
    if (strMountPoint.empty()) return false;
    std::ifstream cgroup("/proc/self/cgroup");
    std::string strOwn;
    while (std::getline(cgroup, strLine)) {
        if (strLine.compare(0, 3, "0::") == 0) strOwn = strLine.substr(3);
    }
    if (strOwn.empty() || strOwn[0] != '/') return false;
    // The own path is relative to the hierarchy's root, the mount shows the part below its root.
    if (strMountRoot != "/") {
        if (strOwn.compare(0, strMountRoot.size(), strMountRoot) != 0) return false;
        strOwn = strOwn.substr(strMountRoot.size());
    }
    strDir = strMountPoint + (strOwn == "/" ? "" : strOwn);
    return access(strDir.c_str(), W_OK) == 0;
}

// ---- the tree of a work --------------------------------------------------------------

void CCmdProcessTree::Prepare(CCmdChildOps& ops)
{
    CAutoLock lock(m_lock);
    if (m_bPrepared) return;
    m_bPrepared = true;
    std::string strBase;
    if (ops.FindCgroupBase(strBase)) {
        RemoveStaleParents(strBase);
        std::string strParent = strBase + "/" + PARENT_PREFIX + std::to_string(getpid());
        if ((mkdir(strParent.c_str(), 0755) == 0 || errno == EEXIST) &&
            access((strParent + "/cgroup.kill").c_str(), W_OK) == 0) {
            m_strParent = strParent;
        } else {
            rmdir(strParent.c_str());
        }
    }
    if (m_strParent.empty()) {
        Log(LOG_LEVEL_INFO, "CCmdExecuteManager::Start(no writable cgroup2 with cgroup.kill, works run in process "
                            "groups of their own)");
        return;
    }
    Log(LOG_LEVEL_INFO, "CCmdExecuteManager::Start(works run in cgroups of their own under %s)", m_strParent.c_str());
    while (m_vecFree.size() < FREE_SLOT_TARGET) {
        Slot slot;
        if (!MakeSlot(m_strParent, slot)) break;
        m_vecFree.push_back(slot);
    }
}

bool CCmdProcessTree::UsesCgroups()
{
    CAutoLock lock(m_lock);
    return !m_strParent.empty();
}

bool CCmdProcessTree::MakeSlot(const std::string& strParent, Slot& slot)
{
    for (int nTry = 0; nTry < MAKE_SLOT_TRIES; ++nTry) {
        int nId = m_nNextId++;
        std::string strDir = strParent + "/w" + std::to_string(nId);
        if (mkdir(strDir.c_str(), 0755) != 0) {
            if (errno == EEXIST) continue;
            Log(LOG_LEVEL_WARNING, "CCmdExecuteManager::MakeCgroup(mkdir is error, dir: %s, errno: %d)", strDir.c_str(),
                errno);
            return false;
        }
        int fd = open(strDir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (fd < 0) {
            Log(LOG_LEVEL_WARNING, "CCmdExecuteManager::MakeCgroup(open cgroup is error, dir: %s, errno: %d)",
                strDir.c_str(), errno);
            rmdir(strDir.c_str());
            return false;
        }
        slot.nId = nId;
        slot.fdDir = fd;
        slot.strDir = strDir;
        return true;
    }
    return false;
}

CmdWorkTree CCmdProcessTree::Take()
{
    CmdWorkTree tree;
    std::string strParent;
    {
        CAutoLock lock(m_lock);
        strParent = m_strParent;
        if (m_strParent.empty()) {
            tree.bOwnGroup = true;
            return tree;
        }
        if (!m_vecFree.empty()) {
            Slot slot = m_vecFree.back();
            m_vecFree.pop_back();
            tree.nSlot = slot.nId;
            tree.fdCgroup = slot.fdDir;
            m_mapBusy[slot.nId] = slot;
            return tree;
        }
    }
    // A burst beyond the prepared ones: this launch makes its own.
    Slot slot;
    if (!MakeSlot(strParent, slot)) {
        tree.bOwnGroup = true;
        return tree;
    }
    CAutoLock lock(m_lock);
    tree.nSlot = slot.nId;
    tree.fdCgroup = slot.fdDir;
    m_mapBusy[slot.nId] = slot;
    return tree;
}

void CCmdProcessTree::Release(CmdWorkTree& tree)
{
    if (tree.nSlot >= 0) {
        CAutoLock lock(m_lock);
        m_vecReleased.push_back(tree.nSlot);
    }
    tree.nSlot = -1;
    tree.fdCgroup = -1;
}

bool CCmdProcessTree::IsEmpty(const std::string& strDir)
{
    std::ifstream events(strDir + "/cgroup.events");
    std::string strKey, strValue;
    while (events >> strKey >> strValue) {
        if (strKey == "populated") return strValue == "0";
    }
    return false;
}

void CCmdProcessTree::Refill()
{
    std::vector<std::pair<int, std::string>> vecReleased;
    std::string strParent;
    size_t nFree = 0;
    {
        CAutoLock lock(m_lock);
        if (m_strParent.empty()) return;
        strParent = m_strParent;
        for (int nId : m_vecReleased) vecReleased.emplace_back(nId, m_mapBusy[nId].strDir);
        nFree = m_vecFree.size();
    }
    if (vecReleased.empty() && nFree >= FREE_SLOT_TARGET) return;
    // A finished work's background processes may live on: its cgroup waits for them.
    std::set<int> setEmpty;
    for (auto& released : vecReleased) {
        if (IsEmpty(released.second)) setEmpty.insert(released.first);
    }
    std::vector<Slot> vecGone;
    {
        CAutoLock lock(m_lock);
        std::vector<int> vecStill;
        for (int nId : m_vecReleased) {
            if (setEmpty.count(nId) == 0) {
                vecStill.push_back(nId);
                continue;
            }
            (m_mapBusy[nId].bKilled ? vecGone : m_vecFree).push_back(m_mapBusy[nId]);
            m_mapBusy.erase(nId);
        }
        m_vecReleased.swap(vecStill);
        nFree = m_vecFree.size();
    }
    // A process cloned into a cgroup after its kill may be killed at birth: such a cgroup goes.
    for (Slot& slot : vecGone) {
        close(slot.fdDir);
        rmdir(slot.strDir.c_str());
    }
    for (; nFree < FREE_SLOT_TARGET; ++nFree) {
        Slot slot;
        if (!MakeSlot(strParent, slot)) break;
        CAutoLock lock(m_lock);
        m_vecFree.push_back(slot);
    }
}

void CCmdProcessTree::Kill(pid_t pid, const CmdWorkTree& tree)
{
    if (tree.nSlot >= 0) {
        std::string strDir;
        {
            CAutoLock lock(m_lock);
            auto it = m_mapBusy.find(tree.nSlot);
            if (it != m_mapBusy.end()) {
                strDir = it->second.strDir;
                it->second.bKilled = true;
            }
        }
        // A child not yet in its cgroup dies by the SIGKILL of its own below.
        if (strDir.empty() || !WriteText(strDir + "/cgroup.kill", "1")) {
            Log(LOG_LEVEL_WARNING, "CCmdExecuteManager::KillTree(cgroup kill is error, pid: %d, errno: %d)",
                static_cast<int>(pid), errno);
            KillProcessGroupTree(pid, false);
        }
    } else if (tree.bOwnGroup) {
        KillProcessGroupTree(pid, true);
    }
    kill(pid, SIGKILL);
}

void CCmdProcessTree::KillProcessGroupTree(pid_t pid, bool bOwnGroup)
{
    // Found before anything is killed: a dead parent's children move to init
    // and could not be found from the work's child any more.
    std::vector<ProcEntry> vecAll = ReadProcesses();
    std::vector<ProcEntry> vecTree;
    std::set<pid_t> setTree{pid};
    for (bool bGrew = true; bGrew;) {
        bGrew = false;
        for (const ProcEntry& entry : vecAll) {
            if (setTree.count(entry.ppid) != 0 && setTree.insert(entry.pid).second) {
                vecTree.push_back(entry);
                bGrew = true;
            }
        }
    }
    // The groups the descendants lead or joined, never the agent's own.
    pid_t nAgentGroup = getpgrp();
    std::set<pid_t> setGroups;
    if (bOwnGroup) setGroups.insert(pid);
    for (const ProcEntry& entry : vecTree) {
        if (entry.pgid > 1 && entry.pgid != nAgentGroup) setGroups.insert(entry.pgid);
    }
    for (pid_t pgid : setGroups) kill(-pgid, SIGKILL);
    for (const ProcEntry& entry : vecTree) kill(entry.pid, SIGKILL);
}

void CCmdProcessTree::RemoveStaleParents(const std::string& strBase)
{
    // What an agent that ended without its stop left: empty cgroups go, those
    // that hold a work's leftover processes stay.
    DIR* pDir = opendir(strBase.c_str());
    if (pDir == nullptr) return;
    const size_t nPrefix = sizeof(PARENT_PREFIX) - 1;
    while (dirent* pEntry = readdir(pDir)) {
        if (strncmp(pEntry->d_name, PARENT_PREFIX, nPrefix) != 0) continue;
        long lPid = atol(pEntry->d_name + nPrefix);
        if (lPid <= 0 || lPid == getpid() || kill(static_cast<pid_t>(lPid), 0) == 0 || errno != ESRCH) continue;
        std::string strParent = strBase + "/" + pEntry->d_name;
        DIR* pSub = opendir(strParent.c_str());
        while (pSub != nullptr) {
            dirent* pSlot = readdir(pSub);
            if (pSlot == nullptr) break;
            if (pSlot->d_name[0] == 'w') rmdir((strParent + "/" + pSlot->d_name).c_str());
        }
        if (pSub != nullptr) closedir(pSub);
        rmdir(strParent.c_str());
    }
    closedir(pDir);
}

void CCmdProcessTree::Cleanup()
{
    CAutoLock lock(m_lock);
    // Cgroups that still hold processes (children are not killed at a stop) stay.
    for (Slot& slot : m_vecFree) {
        close(slot.fdDir);
        rmdir(slot.strDir.c_str());
    }
    for (auto& pair : m_mapBusy) {
        close(pair.second.fdDir);
        rmdir(pair.second.strDir.c_str());
    }
    m_vecFree.clear();
    m_mapBusy.clear();
    m_vecReleased.clear();
    if (!m_strParent.empty()) rmdir(m_strParent.c_str());
    m_strParent.clear();
    m_bPrepared = false;
}

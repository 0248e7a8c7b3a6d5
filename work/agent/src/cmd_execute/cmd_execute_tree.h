// Ending a command work together with every process it started. A work runs
// in a cgroup of its own where a writable cgroup2 hierarchy with cgroup.kill
// exists, otherwise in a process group of its own; su puts the command in a
// session of its own, so the process-group kill also ends the groups that
// the work's descendants made. Cgroups are made ahead of the launches that
// need them, off the start path, and reused once empty.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <map>
#include <string>
#include <vector>

#include "log.h"

// The seam through which the command manager reaps its children and learns
// where cgroups may be made; tests swap it to drive interleavings and to
// force the process-group path.
class CCmdChildOps {
public:
    virtual ~CCmdChildOps() = default;
    // waitpid without blocking: the pid when reaped, 0 while it runs, -1 with errno.
    virtual pid_t Wait(pid_t pid, int* pStatus);
    // The agent's own cgroup in a writable cgroup2 mount; false where there is none.
    virtual bool FindCgroupBase(std::string& strDir);
};

// The cgroup2 directory of this process, found through /proc/self/mountinfo
// and /proc/self/cgroup; false without a writable cgroup2 mount.
bool FindOwnCgroup2Dir(std::string& strDir);

// Where a work's processes are kept together.
struct CmdWorkTree {
    int nSlot = -1;          // prepared cgroup, -1 for none
    int fdCgroup = -1;       // the slot's directory, the child is made in it or enters it; not owned
    bool bOwnGroup = false;  // the child leads a process group of its own
};

class CCmdProcessTree {
public:
    CCmdProcessTree() = default;
    ~CCmdProcessTree() { Cleanup(); }
    CCmdProcessTree(const CCmdProcessTree&) = delete;
    CCmdProcessTree& operator=(const CCmdProcessTree&) = delete;

    // Learns where cgroups go and makes the first ones; without a usable
    // cgroup2 mount every work gets a process group. Called again, it does nothing.
    void Prepare(CCmdChildOps& ops);
    // Session thread, at a launch: where the new work's processes are kept.
    CmdWorkTree Take();
    // The work's child was reaped, or never forked: its cgroup is reused once empty.
    void Release(CmdWorkTree& tree);
    // Manager thread, outside the manager's lock: makes cgroups ahead of the
    // launches and takes back the emptied ones.
    void Refill();
    // Ends the child and every process of its tree with SIGKILL.
    void Kill(pid_t pid, const CmdWorkTree& tree);
    // Removes the cgroups that are empty and closes their descriptors.
    void Cleanup();

    bool UsesCgroups();

private:
    struct Slot {
        int nId = -1;
        int fdDir = -1;
        bool bKilled = false;  // never reused: the kernel may kill what is later made in it
        std::string strDir;
    };

    bool MakeSlot(const std::string& strParent, Slot& slot);
    static bool IsEmpty(const std::string& strDir);
    static void KillProcessGroupTree(pid_t pid, bool bOwnGroup);
    static void RemoveStaleParents(const std::string& strBase);

    // m_lock guards everything below; it is taken inside the manager's lock
    // and takes none itself (apart from the log's).
    brel_lib::CLock m_lock;
    bool m_bPrepared = false;
    std::string m_strParent;             // this agent's cgroup of works; empty: process groups
    std::vector<Slot> m_vecFree;      // empty, ready for a launch
    std::map<int, Slot> m_mapBusy;    // given to a work, or waiting for its last process to go
    std::vector<int> m_vecReleased;   // ids of busy slots whose work is over
    std::atomic<int> m_nNextId{0};    // names the next cgroup; taken without the lock
};

// The child's side of a command launch. Another thread of the agent may hold
// any lock at the fork, so everything the child needs, its log lines
// included, is prepared before the fork, and between fork and exec only
// async-signal-safe calls run.
#pragma once

#include <string>

struct CommonWork;
struct CmdWorkTree;

// Above this, a capture buffer is cut: a result with both streams full must
// still fit the framing limit with its envelope.
const unsigned int CMD_RESULT_BUF_MAX = (0x8000000u - 4096u) / 2;

struct CmdLaunchPlan {
    const char* szFile = nullptr;  // what execvp runs: /bin/sh, or su for another user
    char* argv[6] = {};
    int fdOut[2] = {-1, -1};
    int fdErr[2] = {-1, -1};
    int fdCgroup = -1;             // the work's cgroup directory; -1 for none
    bool bMadeInCgroup = false;    // the kernel made the child in it; otherwise the child enters it
    bool bOwnGroup = false;        // the child leads a process group of its own
    std::string strRefusal;        // non-empty: written to stderr, exit 1, nothing run
    // Log lines of the failure paths, each split where the child adds a number.
    bool bLog = false;
    std::string strLogPath;        // empty: standard output
    std::string strLinePrefix;     // level and time
    std::string strNullFailHead;   // ... errno:
    std::string strNullFailTail;   // , append: ...)
    std::string strExecFail;
};

// Fills the plan for a work and its tree. strLogPath names the log sink,
// empty for standard output.
void PlanLaunch(CmdLaunchPlan& plan, CommonWork& work, const CmdWorkTree& tree, const std::string& strLogPath);

// fork, with the child made right in the plan's cgroup where the kernel can
// (moving a process between cgroups later costs far more than the fork).
pid_t ForkForPlan(CmdLaunchPlan& plan);

// Runs in the child after the fork: never returns.
[[noreturn]] void ExecPlannedChild(const CmdLaunchPlan& plan);

// The text su gives for a user it does not know.
std::string UnknownUserText(const std::string& strUser);

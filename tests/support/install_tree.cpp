#include "install_tree.h"

#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <stdexcept>

namespace agent_test {

namespace {

// Daemons leave their parent at once; as a subreaper the test process adopts
// them, so that it can wait for their exit status by pid.
struct BecomeSubreaper {
    BecomeSubreaper() { prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0); }
} g_becomeSubreaper;

void MakeDir(const std::string& strPath)
{
    if (mkdir(strPath.c_str(), 0755) != 0 && errno != EEXIST) throw std::runtime_error("mkdir " + strPath);
}

} // namespace

bool CanRunEndToEnd(std::string& strWhy)
{
    if (geteuid() != 0) {
        strWhy = "end-to-end tests run the agent as root (as CI does); skipped for this user";
        return false;
    }
    if (access(AGENT_BINARY, X_OK) != 0) {
        strWhy = std::string("agent binary missing: ") + AGENT_BINARY;
        return false;
    }
    return true;
}

bool CanRunEndToEndOrSaySkipped()
{
    std::string strWhy;
    if (CanRunEndToEnd(strWhy)) return true;
    printf("skipped: %s\n", strWhy.c_str());
    return false;
}

std::string ReadFile(const std::string& strPath)
{
    std::ifstream file(strPath, std::ios::binary);
    std::stringstream ss;
    ss << file.rdbuf();
    return ss.str();
}

bool Exists(const std::string& strPath)
{
    struct stat st;
    return lstat(strPath.c_str(), &st) == 0;
}

long long FileSize(const std::string& strPath)
{
    struct stat st;
    return stat(strPath.c_str(), &st) == 0 ? static_cast<long long>(st.st_size) : -1;
}

void WriteFile(const std::string& strPath, const std::string& strText)
{
    std::ofstream file(strPath, std::ios::binary | std::ios::trunc);
    file << strText;
}

TempDir::TempDir(const std::string& strPrefix, const std::string& strBase)
{
    std::string strTemplate = strBase + "/" + strPrefix + "XXXXXX";
    if (mkdtemp(&strTemplate[0]) == nullptr) throw std::runtime_error("mkdtemp");
    m_strRoot = strTemplate;
}

TempDir::~TempDir()
{
    if (getenv("AGENT_TEST_KEEP") != nullptr) {
        fprintf(stderr, "keeping %s\n", m_strRoot.c_str());
        return;
    }
    if (system(("rm -rf '" + m_strRoot + "'").c_str()) != 0) fprintf(stderr, "could not remove %s\n", m_strRoot.c_str());
}

InstallTree::InstallTree() : TempDir("agent_e2e_")
{
    for (const char* szDir : {"bin", "etc", "log", "tools", "tools/op", "cache"}) MakeDir(Path(szDir));
    WriteFile(Path("tools/op/restart.sh"), "#!/bin/sh\necho restarted >> ../log/restart.txt\n");
    chmod(Path("tools/op/restart.sh").c_str(), 0755);
    WriteFile(Path("etc/publickey.pem"), "");

    m_mapConfig = {
        {"log_file", "../log/agent"},
        {"log_level", "DEBUG"},
        {"log_file_max_num", "10"},
        {"log_file_max_size", "10"},
        {"agent_id", "127.0.0.1"},
        {"server_ip", "127.0.0.1"},
        {"server_port", "1"},
        {"server_slave_ip", ""},
        {"server_slave_port", ""},
        {"connect_timeout_second", "1"},
        {"connect_failed_sleep_second", "1"},
        {"connect_failed_second_switch", "1"},
        {"pid_file", "../log/agent.pid"},
        {"public_key_version", "1"},
        // Never the default: the agent wipes its cache directory at start.
        {"cache_dir", Path("cache/")},
        // The agent exits when this names no usable interface; the test machines may have no eth0.
        {"file_trans_svr_bind_eth", "127.0.0.1"},
    };
    WriteConfig();
}

InstallTree::~InstallTree() { StopAll(); }

void InstallTree::WriteConfig()
{
    std::string strText;
    for (const auto& pair : m_mapConfig) strText += pair.first + " = " + pair.second + "\n";
    WriteFile(Path("etc/config"), strText);
}

pid_t InstallTree::Spawn(const std::string& strArg1, const std::string& strArg2)
{
    std::string strBin = Path("bin");
    std::string strOut = StdoutPath();
    pid_t pid = fork();
    if (pid < 0) throw std::runtime_error("fork");
    if (pid == 0) {
        if (chdir(strBin.c_str()) != 0) _exit(127);
        int fd = open(strOut.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
        if (fd >= 0) {
            dup2(fd, 1);
            dup2(fd, 2);
            close(fd);
        }
        int fdNull = open("/dev/null", O_RDONLY);
        if (fdNull >= 0) dup2(fdNull, 0);
        // As from a shell: a runner started in the background ignores SIGINT and SIGQUIT.
        for (int nSig : {SIGPIPE, SIGINT, SIGQUIT, SIGTERM, SIGHUP, SIGUSR1}) signal(nSig, SIG_DFL);
        sigset_t mask;
        sigemptyset(&mask);
        sigprocmask(SIG_SETMASK, &mask, nullptr);
        std::vector<const char*> vecArgv;
        for (const std::string& str : m_vecPrefix) vecArgv.push_back(str.c_str());
        vecArgv.push_back(AGENT_BINARY);
        vecArgv.push_back(strArg1.c_str());
        if (!strArg2.empty()) vecArgv.push_back(strArg2.c_str());
        vecArgv.push_back(nullptr);
        execvp(vecArgv[0], const_cast<char* const*>(vecArgv.data()));
        _exit(127);
    }
    m_mapPids[pid] = true;
    return pid;
}

pid_t InstallTree::StartForeground() { return Spawn("../etc/config", "nodaemon"); }

pid_t InstallTree::StartDaemon()
{
    pid_t pidParent = Spawn("../etc/config");
    if (WaitExit(pidParent, 5000) != 0) return -1;
    std::string strPidFile = Path("log/agent.pid");
    pid_t pid = -1;
    WaitUntil(
        [&] {
            pid = static_cast<pid_t>(atoi(ReadFile(strPidFile).c_str()));
            return pid > 0;
        },
        5000);
    if (pid > 0) m_mapPids[pid] = true;
    return pid > 0 ? pid : -1;
}

int InstallTree::WaitExit(pid_t pid, int nTimeoutMs)
{
    int nStatus = 0;
    bool bDone = WaitUntil(
        [&] {
            pid_t r = waitpid(pid, &nStatus, WNOHANG);
            return r == pid || (r < 0 && errno == ECHILD);
        },
        nTimeoutMs);
    if (!bDone) return -1;
    m_mapPids.erase(pid);
    if (WIFEXITED(nStatus)) return WEXITSTATUS(nStatus);
    if (WIFSIGNALED(nStatus)) return 128 + WTERMSIG(nStatus);
    return -1;
}

bool InstallTree::IsAlive(pid_t pid) const
{
    // A zombie counts as gone.
    std::string strStat = ReadFile("/proc/" + std::to_string(pid) + "/stat");
    if (strStat.empty()) return false;
    size_t nPos = strStat.rfind(')');
    return nPos == std::string::npos || nPos + 2 >= strStat.size() || strStat[nPos + 2] != 'Z';
}

std::string InstallTree::ReadLog() const { return ReadFile(LogPath()); }
std::string InstallTree::ReadStdout() const { return ReadFile(StdoutPath()); }

bool InstallTree::WaitForLog(const std::string& strText, int nTimeoutMs) const
{
    return WaitUntil([&] { return ReadLog().find(strText) != std::string::npos; }, nTimeoutMs);
}

void InstallTree::StopAll()
{
    std::map<pid_t, bool> mapPids = m_mapPids;
    for (const auto& pair : mapPids) {
        pid_t pid = pair.first;
        kill(pid, SIGINT);
        if (WaitExit(pid, 5000) < 0) {
            kill(pid, SIGKILL);
            WaitExit(pid, 5000);
        }
    }
    m_mapPids.clear();
}

} // namespace agent_test

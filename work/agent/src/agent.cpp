// The agent process: start sequence, the 200 ms main loop, reload on SIGUSR1
// and the orderly stop.
#include "agent.h"

#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>

#include <atomic>
#include <string>

#include "data_buffer.h"
#include "ini_file.h"
#include "log.h"
#include "network/network_client.h"
#include "network/stream_framing.h"
#include "process.h"
#include "process_common.h"
#include "util.h"

using namespace brel_lib;

namespace {

const char* const g_szCompileTime = AGENT_COMPILE_TIME;

// The PATH the agent and every command it launches run under.
const std::string g_strEnvPath =
    "/sbin:/usr/sbin:/usr/local/sbin:/opt/gnome/sbin:/usr/local/bin:/usr/bin:/usr/X11R6/bin:/bin:/usr/games:"
    "/opt/gnome/bin:/usr/lib/mit/bin:/usr/lib/mit/sbin";

// Written by the signal handlers only, read by the main loop. A handler runs
// on whichever thread the signal reaches, so these are lock-free atomics
// (safe in a handler) rather than plain volatile words.
std::atomic<int> g_nContinueRun{1};
std::atomic<int> g_nReloadCfg{0};
static_assert(std::atomic<int>::is_always_lock_free, "signal flags must be lock-free");

// Main thread only.
std::string g_strAgentId;
unsigned int g_nNeedExit = 0;

const unsigned int AGENT_ID_REFRESH_SECOND = 300;
const unsigned int MAIN_LOOP_SLEEP_MS = 200;
const rlim_t AGENT_NOFILE_LIMIT = 100000;

void sig_quit(int) { g_nContinueRun = 0; }
void reload_cfg(int) { g_nReloadCfg = 1; }

void InitDaemon()
{
    GoDaemon();
    SetNormalSignalIgn();
}

// Reads the log settings, the agent id and the flags; exits on a bad file or id.
void ReLoadCfg()
{
    CIniFile ini;
    if (ini.Load(g_strCfgFile) != 0) {
        Log(LOG_LEVEL_ERROR, "ReLoadCfg(the cfg file is error)");
        ExitProcess(1);
    }
    LogFile(ini.GetIni("log_file", ""));
    SetLogInfo(static_cast<unsigned int>(StringToInt(ini.GetIni("log_file_max_num", "10"))),
               static_cast<unsigned long long>(static_cast<long long>(StringToInt(ini.GetIni("log_file_max_size", "10")))));
    if (LogLevel(ini.GetIni("log_level", "INFO")) != 0) {
        Log(LOG_LEVEL_WARNING, "ReLoadCfg(the log level is error, will use default level)");
    }
    g_strAgentId = ini.GetIni("agent_id", "");
    unsigned int nAgentId = ConvertAgentIdToInt(g_strAgentId);
    if (nAgentId == 0) {
        Log(LOG_LEVEL_ERROR, "ReLoadCfg(the agent_id is not correct in config file, agent_id: %s)", g_strAgentId.c_str());
        ExitProcess(1);
    }
    g_nAgentId = nAgentId;
    g_nNeedExit = static_cast<unsigned int>(StringToInt(ini.GetIni("need_exit", "")));
    g_bNeedGetNewWs = StringToInt(ini.GetIni("need_get_new_ws", "")) != 0;
    SetBrelRecvPacketMaxSize(static_cast<unsigned int>(StringToInt(ini.GetIni("net_recv_packet_max_size", "0"))));
}

// Connect settings of the link, in milliseconds.
struct ConnectSettings {
    unsigned int nFailedSwitchMs;
    unsigned int nTimeoutMs;
    unsigned int nFailedSleepMs;
};

// Receive buffer: blocking takes, no limit. Send buffer: non-blocking takes,
// at most 2000 packets, the oldest dropped beyond that.
const unsigned int SEND_BUFFER_MAX_PACKETS = 2000;



ConnectSettings ReadConnectSettings(const CIniFile& ini)
{
    ConnectSettings settings;
    settings.nFailedSwitchMs = static_cast<unsigned int>(StringToInt(ini.GetIni("connect_failed_second_switch", "600"))) * 1000;
    settings.nTimeoutMs = static_cast<unsigned int>(StringToInt(ini.GetIni("connect_timeout_second", "10"))) * 1000;
    settings.nFailedSleepMs = static_cast<unsigned int>(StringToInt(ini.GetIni("connect_failed_sleep_second", "10"))) * 1000;
    return settings;
}

void ApplyConnectSettings(CNetworkClientBrel& link, const ConnectSettings& settings)
{
    link.SetConnectFailedSwitchTime(settings.nFailedSwitchMs);
    link.SetConnectTimeout(settings.nTimeoutMs);
    link.SetConnectFailedSleepTime(settings.nFailedSleepMs);
}

unsigned short PortOf(const std::string& strPort) { return static_cast<unsigned short>(StringToInt(strPort)); }

// Sets both limits of a resource. Where even root may not raise a hard limit
// (containers), the agent runs with the soft limit at the hard one it has.
void RaiseLimit(int nResource, rlim_t nLimit, const char* szName)
{
    rlimit limit;
    limit.rlim_cur = limit.rlim_max = nLimit;
    if (setrlimit(nResource, &limit) == 0) return;
    int nErr = errno;
    Log(LOG_LEVEL_ERROR, "setrlimit %s error, errno: %d", szName, nErr);
    if (nErr != EPERM) ExitProcess(nErr);

    if (getrlimit(nResource, &limit) != 0) ExitProcess(errno);
    limit.rlim_cur = limit.rlim_max;
    if (setrlimit(nResource, &limit) != 0) {
        nErr = errno;
        Log(LOG_LEVEL_ERROR, "setrlimit %s error, errno: %d", szName, nErr);
        ExitProcess(nErr);
    }
    if (limit.rlim_max == RLIM_INFINITY) {
        Log(LOG_LEVEL_ERROR, "main(the hard limit of %s can not be raised, we run with the limit: unlimited)", szName);
    } else {
        Log(LOG_LEVEL_ERROR, "main(the hard limit of %s can not be raised, we run with the limit: %llu)", szName,
            static_cast<unsigned long long>(limit.rlim_max));
    }
}

void PrintUsage(const char* szProgram)
{
    printf("the args is need\n");
    printf("Usage:\n");
    printf("%s cfgfile/-v [not daemon]\n", szProgram);
}

// The 300-second refresh: follows an interface whose address changed.
void RefreshAgentId()
{
    unsigned int nAgentId = ConvertAgentIdToInt(g_strAgentId);
    if (nAgentId == 0) {
        Log(LOG_LEVEL_ERROR, "ReLoadCfg(the agent_id is not correct in config file, agent_id: %s)", g_strAgentId.c_str());
        return;
    }
    if (nAgentId != g_nAgentId) g_nAgentId = nAgentId;
}

// Returns false when the reload asks the agent to end.
bool DoReload(const CIniFile& iniMain, CNetworkClientBrel& link, CProcessCommon& session)
{
    Log(LOG_LEVEL_INFO, "main(receive signusr1, we will reload cfg)");
    ReLoadCfg();
    if (g_nNeedExit != 0) {
        Log(LOG_LEVEL_INFO, "main(need_exit is not zero in cfg, we exit now)");
        return false;
    }
    // From main's own file as it stood at start: these keys change only with a restart.
    ApplyConnectSettings(link, ReadConnectSettings(iniMain));
    session.ReloadCfg();
    return true;
}

void MainLoop(const CIniFile& iniMain, CNetworkClientBrel& link, CProcessCommon& session)
{
    time_t tRefresh = time(nullptr);
    while (g_nContinueRun != 0) {
        if (g_nReloadCfg != 0) {
            g_nReloadCfg = 0;
            if (!DoReload(iniMain, link, session)) break;
        }
        time_t tNow = time(nullptr);
        if (tRefresh > tNow) tRefresh = tNow;  // the clock went back
        if (tNow - tRefresh > static_cast<time_t>(AGENT_ID_REFRESH_SECOND)) {
            tRefresh = tNow;
            RefreshAgentId();
        }
        Sleep(MAIN_LOOP_SLEEP_MS);
    }
}

} // namespace

int main(int argc, char* argv[])
{
    if (argc < 2) {
        PrintUsage(argv[0]);
        return 1;
    }
    g_strCfgFile = argv[1];
    if (g_strCfgFile == "-V" || g_strCfgFile == "-v") {
        printf("The Version: %s\n", g_strVersion.c_str());
        printf("Compile Time: %s\n", g_szCompileTime);
        return 0;
    }

    ReLoadCfg();
    g_nNeedExit = 0;  // a need_exit already in the file at start is ignored
    Log(LOG_LEVEL_INFO, "we start");

    CIniFile iniMain;
    if (iniMain.Load(g_strCfgFile) != 0) {
        Log(LOG_LEVEL_ERROR, "the cfg file is error");
        ExitProcess(1);
    }
    std::string strServerIp = iniMain.GetIni("server_ip", "");
    std::string strServerPort = iniMain.GetIni("server_port", "");
    if (CheckIpValid(strServerIp) != 0) {
        Log(LOG_LEVEL_ERROR, "the server ip address is not correct in config file");
        ExitProcess(1);
    }
    std::string strServerSlaveIp = iniMain.GetIni("server_slave_ip", "");
    std::string strServerSlavePort = iniMain.GetIni("server_slave_port", "");
    ConnectSettings settings = ReadConnectSettings(iniMain);

    if (argc == 2) InitDaemon();
    SetSignal(SIGINT, sig_quit);
    SetSignal(SIGQUIT, sig_quit);
    SetSignal(SIGUSR1, reload_cfg);
    setenv("PATH", g_strEnvPath.c_str(), 1);

    std::string strPidFile = iniMain.GetIni("pid_file", "");
    if (strPidFile.empty()) {
        Log(LOG_LEVEL_ERROR, "the pid file is not correct in config file");
        ExitProcess(1);
    }
    if (CheckSelfRunning(strPidFile) == 0) {
        Log(LOG_LEVEL_WARNING, "we are running now, so we exit");
        ExitProcess(0);
    }
    RaiseLimit(RLIMIT_AS, RLIM_INFINITY, "RLIMIT_AS");
    RaiseLimit(RLIMIT_NOFILE, AGENT_NOFILE_LIMIT, "RLIMIT_NOFILE");

    CDataBufferSTLDeque* pRevBuffer = new CDataBufferSTLDeque(true, 0);
    CDataBufferSTLDeque* pSendBuffer = new CDataBufferSTLDeque(false, SEND_BUFFER_MAX_PACKETS);
    CProcessCommon* pSession = new CProcessCommon(*pRevBuffer, *pSendBuffer);
    CNetworkClientBrel* pLink = new CNetworkClientBrel(*pRevBuffer, *pSendBuffer, false);
    ApplyConnectSettings(*pLink, settings);
    pSession->SetAgentVersion(g_strVersion);
    pSession->SetCfgFile(g_strCfgFile);
    pSession->SetNetwork(pLink);
    // The order makes the first server the preferred one; an empty slave adds nothing.
    pLink->AddServer(strServerIp, PortOf(strServerPort));
    pLink->AddServer(strServerSlaveIp, PortOf(strServerSlavePort));
    // The session thread starts before the link: its first pass queues a heartbeat,
    // which leaves as soon as the link comes up.
    if (pSession->Start() != 0) ExitProcess(1);
    if (pLink->Start(true) != 0) ExitProcess(1);

    MainLoop(iniMain, *pLink, *pSession);

    // The session first, so that its exit notice can still leave on the link.
    pSession->Stop();
    pLink->Stop();
    Log(LOG_LEVEL_INFO, "we end\n");
    delete pLink;
    delete pSession;
    delete pSendBuffer;
    delete pRevBuffer;
    return 0;
}

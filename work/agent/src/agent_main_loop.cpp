// The main thread once the agent runs: the watch of the stop and reload
// flags, which a signal wakes, the reload on SIGUSR1 and the 300-second
// agent id refresh.
#include "agent_main_loop.h"

#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <unistd.h>
#include <time.h>

#include <atomic>
#include <string>

#include "common/agent_globals.h"
#include "ethnet.h"
#include "log.h"
#include "network/stream_framing.h"
#include "process.h"
#include "process_common/process_common.h"
#include "util.h"

using namespace brel_lib;

namespace {

// Written by the signal handlers only, read by the main loop. A handler runs
// on whichever thread the signal reaches, so these are lock-free atomics
// (safe in a handler) rather than plain volatile words.
std::atomic<int> g_nContinueRun{1};
std::atomic<int> g_nReloadCfg{0};
static_assert(std::atomic<int>::is_always_lock_free, "signal flags must be lock-free");

// Written by the handlers after their flag, so that the main loop wakes at
// once; -1 when there is none, and the loop then looks every round.
int g_fdSignal = -1;

// Main thread only.
std::string g_strAgentId;
unsigned int g_nNeedExit = 0;

const unsigned int AGENT_ID_REFRESH_SECOND = 300;
// Without the signal descriptor the loop sleeps in rounds of this length.
const int MAIN_LOOP_SLEEP_MS = 200;

void WakeMainLoop()
{
    if (g_fdSignal < 0) return;
    int nSavedErrno = errno;  // a handler leaves errno as it found it
    uint64_t lOne = 1;
    ssize_t n = write(g_fdSignal, &lOne, sizeof(lOne));
    (void)n;
    errno = nSavedErrno;
}

void sig_quit(int)
{
    g_nContinueRun = 0;
    WakeMainLoop();
}

void reload_cfg(int)
{
    g_nReloadCfg = 1;
    WakeMainLoop();
}

// Waits for a signal or until the time is up.
void WaitForSignal(int nMilliSecond)
{
    if (g_fdSignal < 0) {
        Sleep(static_cast<unsigned int>(nMilliSecond < MAIN_LOOP_SLEEP_MS ? nMilliSecond : MAIN_LOOP_SLEEP_MS));
        return;
    }
    pollfd pfd{g_fdSignal, POLLIN, 0};
    if (poll(&pfd, 1, nMilliSecond) <= 0) return;
    uint64_t lCount = 0;
    ssize_t n = read(g_fdSignal, &lCount, sizeof(lCount));
    (void)n;
}

// Derives the 32-bit agent id from an IPv4 text, an interface name or a
// decimal number; 0 when none gives a usable value.
unsigned int ConvertAgentIdToInt(const std::string& strAgentId)
{
    // Dotted IPv4: the address exactly as inet_pton leaves it; it goes on the wire bit for bit.
    unsigned int nId = 0;
    if (IpStringToInt(nId, strAgentId) == 0) return nId;

    std::string strIp;
    int ret = EthnetGetIpAddress(strIp, strAgentId);
    if (ret == 0 && !strIp.empty()) {
        nId = 0;
        if (IpStringToInt(nId, strIp) != 0) nId = 0;
    } else {
        Log(LOG_LEVEL_WARNING, "ReLoadCfg(EthnetGetIpAddress is return error, we try num of agent id, errno: %d)", ret);
        nId = static_cast<unsigned int>(StringToInt(strAgentId));
    }
    EthnetInfoDestroy();
    return nId;
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

} // namespace

void LoadMainCfgAtStart()
{
    ReLoadCfg();
    g_nNeedExit = 0;
}

void InstallStopAndReloadSignals()
{
    if (g_fdSignal < 0) g_fdSignal = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    SetSignal(SIGINT, sig_quit);
    SetSignal(SIGQUIT, sig_quit);
    SetSignal(SIGUSR1, reload_cfg);
}

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
        // A flag is stored before its handler wakes the wait, so none is missed.
        if (g_nContinueRun != 0 && g_nReloadCfg == 0) {
            WaitForSignal(MilliSecondsUntil(tRefresh + AGENT_ID_REFRESH_SECOND + 1, DEADLINE_WAIT_MAX_MILLISECOND));
        }
    }
}

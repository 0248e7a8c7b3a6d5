// The main thread once the agent runs: the 200 ms watch of the stop and
// reload flags, the reload on SIGUSR1 and the 300-second agent id refresh.
#include "agent_main_loop.h"

#include <signal.h>
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

// Main thread only.
std::string g_strAgentId;
unsigned int g_nNeedExit = 0;

const unsigned int AGENT_ID_REFRESH_SECOND = 300;
const unsigned int MAIN_LOOP_SLEEP_MS = 200;

void sig_quit(int) { g_nContinueRun = 0; }
void reload_cfg(int) { g_nReloadCfg = 1; }

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
        Sleep(MAIN_LOOP_SLEEP_MS);
    }
}

// The main thread around the session: its own keys of the configuration
// (log, agent id, flags), the connect settings of the link, the stop and
// reload signals, and the 200 ms loop that watches them. Used by main only.
#pragma once

#include "ini_file.h"
#include "network/network_client.h"

class CProcessCommon;

// Reads the log settings, the agent id and the flags; exits on a bad file or id.
// At start a need_exit already in the file is ignored.
void LoadMainCfgAtStart();

// SIGINT and SIGQUIT stop the main loop; SIGUSR1 makes it reload.
void InstallStopAndReloadSignals();

// Connect settings of the link, in milliseconds.
struct ConnectSettings {
    unsigned int nFailedSwitchMs;
    unsigned int nTimeoutMs;
    unsigned int nFailedSleepMs;
};
ConnectSettings ReadConnectSettings(const brel_lib::CIniFile& ini);
void ApplyConnectSettings(brel_lib::CNetworkClientBrel& link, const ConnectSettings& settings);

// Runs until a stop signal, or a reload that finds need_exit set.
void MainLoop(const brel_lib::CIniFile& iniMain, brel_lib::CNetworkClientBrel& link, CProcessCommon& session);

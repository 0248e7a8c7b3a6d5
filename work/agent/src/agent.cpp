// The agent process: main, its start order and the orderly stop. What the
// main thread does while the agent runs (the watch of the signal flags, the
// reload, the agent id refresh) is in agent_main_loop.cpp.
#include <errno.h>
#include <malloc.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/resource.h>

#include <string>

#include "agent_main_loop.h"
#include "common/agent_globals.h"
#include "data_buffer.h"
#include "ini_file.h"
#include "log.h"
#include "network/network_client.h"
#include "process.h"
#include "process_common/process_common.h"
#include "util.h"

using namespace brel_lib;

namespace {

const char* const g_szCompileTime = AGENT_COMPILE_TIME;

// The PATH the agent and every command it launches run under.
const std::string g_strEnvPath =
    "/sbin:/usr/sbin:/usr/local/sbin:/opt/gnome/sbin:/usr/local/bin:/usr/bin:/usr/X11R6/bin:/bin:/usr/games:"
    "/opt/gnome/bin:/usr/lib/mit/bin:/usr/lib/mit/sbin";

const rlim_t AGENT_NOFILE_LIMIT = 100000;

// Receive buffer: blocking takes, no limit. Send buffer: non-blocking takes,
// at most 2000 packets, the oldest dropped beyond that.
const unsigned int SEND_BUFFER_MAX_PACKETS = 2000;

void InitDaemon()
{
    GoDaemon();
    SetNormalSignalIgn();
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

} // namespace

int main(int argc, char* argv[])
{
    // One heap for every thread. Each thread's own arena would keep the free
    // pages of its last burst of blocks resident (a trim gives back only the
    // main heap's top), and with threads that come and go with the transfers
    // the arenas touched add up. The agent's threads allocate little beside
    // the pooled data blocks, and small allocations still take no lock: they
    // come from each thread's cache.
    mallopt(M_ARENA_MAX, 1);
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

    LoadMainCfgAtStart();
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
    InstallStopAndReloadSignals();
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

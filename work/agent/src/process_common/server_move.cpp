// Moving to a new server: the request for one with the first heartbeats,
// the server's order to move, the switch of the link's list, the rewrite of
// the configuration file and the way back to the old server.
#include <stdio.h>
#include <stdlib.h>

#include <string>
#include <vector>

#include "common/agent_globals.h"
#include "common/work_codes.h"
#include "ini_file.h"
#include "log.h"
#include "process_common/install_paths.h"
#include "process_common/process_common.h"
#include "util.h"

using namespace brel_lib;

void CProcessCommon::ReqGetNewWs()
{
    Log(LOG_LEVEL_LOWEST, "CProcessCommon::ReqGetNewWs(need get new ws)");
    ReqWorkAgentGetNewWs req;
    req.agentId = static_cast<int>(g_nAgentId.load());
    SendToServer(req, 0);
}

void CProcessCommon::RspGetNewWs(RspWorkAgentGetNewWs* pRsp, int nAppend)
{
    if (g_bNeedGetNewWs) {
        g_bNeedGetNewWs = false;
        std::string strCommand =
            "sed -i 's/^need_get_new_ws.*=.*$/need_get_new_ws = 0/' " + ConfigPath();
        if (system(strCommand.c_str()) == -1) {
            // No shell to run sed: rewrite the file ourselves (its comments are lost).
            CIniFile ini;
            if (ini.Load(m_strCfgFile) == 0) {
                ini.SetIni("need_get_new_ws", "0");
                ini.Save("");
            }
        }
    }
    unsigned int nIp = static_cast<unsigned int>(pRsp->newServerIp.value);
    unsigned short nPort = static_cast<unsigned short>(pRsp->newServerPort.value);
    if (nIp != 0 && nPort != 0) {
        Log(LOG_LEVEL_INFO, "CProcessCommon::RspGetNewWs(need connect to new server)");
        DealConnectToNewServer(nIp, nPort, static_cast<unsigned int>(pRsp->newServerSlaveIp.value),
                               static_cast<unsigned short>(pRsp->newServerSlavePort.value), nAppend);
    } else {
        Log(LOG_LEVEL_INFO, "CProcessCommon::RspGetNewWs(not need connect to new server)");
    }
}

void CProcessCommon::ReqConnectNewServer(ReqWorkAgentConnectNewServer* pReq, int nAppend)
{
    DealConnectToNewServer(static_cast<unsigned int>(pReq->newServerIp.value),
                           static_cast<unsigned short>(pReq->newServerPort.value),
                           static_cast<unsigned int>(pReq->newServerSlaveIp.value),
                           static_cast<unsigned short>(pReq->newServerSlavePort.value), nAppend);
}

void CProcessCommon::SendConnectNewServerRefused(int nAppend)
{
    RspWorkAgentConnectNewServer rsp;
    rsp.ret = RET_MOVE_REFUSED;
    rsp.agentId = static_cast<int>(g_nAgentId.load());
    SendToServer(rsp, nAppend);
}

bool CProcessCommon::WaitLinkUp(int nTries)
{
    for (int i = 0; i < nTries && m_nContinueRun != 0; ++i) {
        if (m_pNetwork->IsConnected()) return true;
        Sleep(50);
    }
    return m_pNetwork->IsConnected();
}

// nAppend is that of the request or answer that named the new server; a refusal carries it.
void CProcessCommon::DealConnectToNewServer(unsigned int nNewServerIp, unsigned short nNewServerPort,
                                            unsigned int nNewServerSlaveIp, unsigned short nNewServerSlavePort,
                                            int nAppend)
{
    m_timePreRespondHeartbeat = g_timeNow;  // the heartbeat check starts a fresh period
    std::string strNewServerIp, strNewServerSlaveIp;
    if (IpIntToString(strNewServerIp, nNewServerIp) != 0) {
        Log(LOG_LEVEL_WARNING,
            "CProcessCommon::DealConnectToNewServer(we need connect to the new server, but new server ip or port "
            "error, ip: %s, port: %hu)",
            strNewServerIp.c_str(), nNewServerPort);
        SendConnectNewServerRefused(nAppend);
        return;
    }
    if (IpIntToString(strNewServerSlaveIp, nNewServerSlaveIp) != 0 || nNewServerSlavePort == 0) {
        nNewServerSlaveIp = 0;
        Log(LOG_LEVEL_WARNING, "CProcessCommon::DealConnectToNewServer(slave server ip error, ip: %s, port: %d)",
            strNewServerSlaveIp.c_str(), static_cast<int>(nNewServerSlavePort));
    }
    std::string strNowServerIp;
    unsigned short nNowServerPort = 0;
    m_pNetwork->GetRemoteIpPort(strNowServerIp, nNowServerPort);
    Log(LOG_LEVEL_INFO,
        "CProcessCommon::DealConnectToNewServer(strNewServerIp: %s, nNewServerPort: %hu, strNewServerSlaveIp: %s, "
        "nNewServerSlavePort: %hu, strNowServerIp: %s, nNowServerPort: %hu",
        strNewServerIp.c_str(), nNewServerPort, strNewServerSlaveIp.c_str(), nNewServerSlavePort,
        strNowServerIp.c_str(), nNowServerPort);

    // The whole list in one locked step, so the link thread never sees it empty.
    std::vector<CNetworkClientBrel::ServerInfo> vecNew{{strNewServerIp, nNewServerPort}};
    if (nNewServerSlaveIp != 0 && nNewServerSlavePort != 0) vecNew.push_back({strNewServerSlaveIp, nNewServerSlavePort});
    m_pNetwork->ReplaceServers(vecNew);
    // Decided by the link's state as the order arrives, taken before the flag:
    // the flag wakes the link at once, which then drops the old connection.
    // As long as a link exists the move counts as done, and the file is
    // rewritten to outlive a restart.
    bool bConnected = m_pNetwork->IsConnected();
    if (strNowServerIp != strNewServerIp || nNowServerPort != nNewServerPort) {
        m_pNetwork->SetFlag(CNetworkClientBrel::NET_FLAG_CONNECT_NEW_SERVER);
    }
    if (m_nContinueRun == 0) return;

    if (bConnected) {
        Log(LOG_LEVEL_INFO, "CProcessCommon::DealConnectToNewServer(we connected to the new server, ip: %s, port: %hu)",
            strNewServerIp.c_str(), nNewServerPort);
        char szCommand[1024];
        snprintf(szCommand, sizeof(szCommand),
                 "sed -i 's/^server_ip.*=.*$/server_ip = %s/;s/^server_port.*=.*$/server_port = %hu/;"
                 "s/^server_slave_ip.*=.*$/server_slave_ip = %s/;s/^server_slave_port.*=.*$/server_slave_port = %hu/' "
                 "%s",
                 strNewServerIp.c_str(), nNewServerPort, strNewServerSlaveIp.c_str(), nNewServerSlavePort,
                 ConfigPath().c_str());
        if (system(szCommand) == 0) {
            Log(LOG_LEVEL_INFO, "CProcessCommon::DealConnectToNewServer(change the config success)");
            return;
        }
        Log(LOG_LEVEL_WARNING, "CProcessCommon::DealConnectToNewServer(change the config fail)");
    }

    Log(LOG_LEVEL_INFO, "CProcessCommon::DealConnectToNewServer(try to connect the old server, ip: %s, port: %hu)",
        strNowServerIp.c_str(), nNowServerPort);
    if (m_pNetwork->ReplaceServers({{strNowServerIp, nNowServerPort}}) != 0) {
        m_pNetwork->ClearServer();  // there was no connection: no old server to go back to
    }
    m_pNetwork->SetFlag(CNetworkClientBrel::NET_FLAG_CONNECT_NEW_SERVER);
    WaitLinkUp(200);  // at most 10 seconds
    if (m_nContinueRun == 0) return;
    if (m_pNetwork->IsConnected()) {
        Log(LOG_LEVEL_INFO, "CProcessCommon::DealConnectToNewServer(we connected to the old server is ok, ip: %s, port: %hu)",
            strNowServerIp.c_str(), nNowServerPort);
        SendConnectNewServerRefused(nAppend);
    } else {
        Log(LOG_LEVEL_INFO,
            "CProcessCommon::DealConnectToNewServer(we connected to the old server is failed, we do not know what "
            "should to do, ip: %s, port: %hu)",
            strNowServerIp.c_str(), nNowServerPort);
    }
}

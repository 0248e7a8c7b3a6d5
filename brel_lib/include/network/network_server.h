// The listening loop of the file source side: takes in connections from
// destination agents and runs the multi-connection pass over them.
#pragma once

#include <stdint.h>

#include <string>

#include "network/network_multi.h"

namespace brel_lib {

class CNetworkServerBrel : public CNetworkMultiBase {
public:
    CNetworkServerBrel(CDataBufferSTLDeque& revBuffer, CDataBufferSTLDeque& sendBuffer,
                       unsigned int nReceiveBufDefaultSize);
    ~CNetworkServerBrel() override;

    // While the loop is stopped: opens the non-blocking listener; may be called
    // again with another port after a failure. The loop closes the listener
    // when it stops, so a restart needs a new CreateServer first.
    int CreateServer(const std::string& strBindIp, unsigned short nBindPort);
    // The IP and port given to CreateServer, not what the kernel chose.
    void GetServerBindIpPort(std::string& strIp, unsigned short& nPort);
    // What the listener really is bound to; -1 without a listener.
    int GetListenIpPort(std::string& strIp, unsigned short& nPort);

    void Run() override;

private:
    // Milliseconds the listener stays out of the set after accept ran out of
    // descriptors or memory: a level-triggered listener would spin otherwise.
    enum { ACCEPT_BACKOFF_MILLISECOND = 100 };

    const char* LoopName() const override { return "CNetworkServerBrel"; }
    bool DealOwnEvent(LoopState& st, uint32_t nEvent, ConnectInfo* pInfo) override;
    void DealCloseStep(LoopState& st, bool bCloseClient) override;
    // While the listener is out of the set, the pass that may take it back.
    int NextCheckMilliSecond() const override
    {
        return m_bAcceptPaused ? static_cast<int>(ACCEPT_BACKOFF_MILLISECOND) : DEADLINE_WAIT_MAX_MILLISECOND;
    }
    int AcceptNewClient(int epfd, bool bRecvNoToken);
    void PauseAccept(int epfd);
    void ResumeAcceptIfDue(int epfd);

    CSocket m_sockTcpListen;
    // Guarded by m_lock: what CreateServer was given.
    std::string m_strBindIp;
    unsigned short m_nBindPort = 0;

    // Loop's thread only.
    ConnectInfo m_listenInfo;
    bool m_bAcceptPaused = false;
    unsigned long long m_lAcceptPausedTime = 0;
};

} // namespace brel_lib

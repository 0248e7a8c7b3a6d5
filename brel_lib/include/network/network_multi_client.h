// The connecting loop of the file destination side: callers on any thread ask
// for a connection and get its id at once; the connect completes or fails
// inside the loop, and the callback says which.
#pragma once

#include <stdint.h>

#include <atomic>
#include <map>
#include <string>
#include <vector>

#include "network/network_multi.h"

namespace brel_lib {

class CNetworkMultiClientBrel : public CNetworkMultiBase {
public:
    CNetworkMultiClientBrel(CDataBufferSTLDeque& revBuffer, CDataBufferSTLDeque& sendBuffer,
                            unsigned int nReceiveBufDefaultSize);
    ~CNetworkMultiClientBrel() override;

    // Any thread. 0 with nConnectId set once the connect is under way; the
    // callback then brings BREL_CONNECT_OK or BREL_CONNECT_FAILED with this id,
    // possibly before this call has returned. Blocks for the id before
    // BREL_CONNECT_OK are dropped.
    int ConnectToServerAsync(unsigned int& nConnectId, const std::string& strServerIp, unsigned short nServerPort,
                             unsigned int nConnectTimeoutMilliSecond);
    // Any thread; blocks until the connection stands or fails, or nContinueRun
    // goes to 0. Success is told by the result alone, with no callback.
    int ConnectToServer(unsigned int& nConnectId, const std::atomic<unsigned int>& nContinueRun,
                        const std::string& strServerIp, unsigned short nServerPort,
                        unsigned int nConnectTimeoutMilliSecond);

    void Run() override;

private:
    enum { CONNECT_TIMEOUT_SCAN_MILLISECOND = 100 };

    const char* LoopName() const override { return "CNetworkMultiClientBrel"; }
    int ConnectToServerPrivate(unsigned int& nConnectId, const std::atomic<unsigned int>& nContinueRun, bool bSync,
                               const std::string& strServerIp, unsigned short nServerPort,
                               unsigned int nConnectTimeoutMilliSecond);
    void NewClientEventDeal(int epfd, bool bRecvNoToken) override;
    bool DealOwnEvent(LoopState& st, uint32_t nEvent, ConnectInfo* pInfo) override;
    void DealCloseStep(LoopState& st, bool bCloseClient) override;
    int NextCheckMilliSecond() const override;
    void ForgetConnect(unsigned int nConnectId) override;
    void DealAsyncConnectEvent(int epfd, uint32_t nEvent, ConnectInfo& info, bool bRecvNoToken);
    void DealAsyncConnectTimeout(int epfd);
    // Records that no loop took over: sockets closed, buffers freed, no callback.
    void ClearNewClientVec();

    // Guarded by m_lock: records made by callers, not yet taken over by the loop.
    std::vector<ConnectInfo*> m_vecNewClient;

    // Loop's thread only: connects under way, pointing into the connection table.
    std::map<unsigned int, ConnectInfo*> m_mapAsyncNewClient;
    unsigned long long m_lAsyncConnectTestPreTime = 0;
};

} // namespace brel_lib

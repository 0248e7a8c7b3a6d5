#include "network/network_multi_client.h"

#include <errno.h>
#include <stdlib.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include "log.h"
#include "process.h"
#include "util.h"

namespace brel_lib {

CNetworkMultiClientBrel::CNetworkMultiClientBrel(CDataBufferSTLDeque& revBuffer, CDataBufferSTLDeque& sendBuffer,
                                                 unsigned int nReceiveBufDefaultSize)
    : CNetworkMultiBase(revBuffer, sendBuffer, nReceiveBufDefaultSize)
{
}

CNetworkMultiClientBrel::~CNetworkMultiClientBrel()
{
    Stop();
    ClearNewClientVec();
}

int CNetworkMultiClientBrel::ConnectToServerAsync(unsigned int& nConnectId, const std::string& strServerIp,
                                                  unsigned short nServerPort, unsigned int nConnectTimeoutMilliSecond)
{
    std::atomic<unsigned int> nRun{1};
    return ConnectToServerPrivate(nConnectId, nRun, false, strServerIp, nServerPort, nConnectTimeoutMilliSecond);
}

int CNetworkMultiClientBrel::ConnectToServer(unsigned int& nConnectId, const std::atomic<unsigned int>& nContinueRun,
                                             const std::string& strServerIp, unsigned short nServerPort,
                                             unsigned int nConnectTimeoutMilliSecond)
{
    return ConnectToServerPrivate(nConnectId, nContinueRun, true, strServerIp, nServerPort,
                                  nConnectTimeoutMilliSecond);
}

int CNetworkMultiClientBrel::ConnectToServerPrivate(unsigned int& nConnectId,
                                                    const std::atomic<unsigned int>& nContinueRun, bool bSync,
                                                    const std::string& strServerIp, unsigned short nServerPort,
                                                    unsigned int nConnectTimeoutMilliSecond)
{
    char* pReceiveBuf = NewReceiveBuf();
    if (pReceiveBuf == nullptr) {
        Log(LOG_LEVEL_WARNING,
            "CNetworkMultiClientBrel::ConnectToServer(malloc receive buf is failed, malloc size: %u, connect server "
            "ip: %s, port: %hu)",
            m_nReceiveBufDefaultSize, strServerIp.c_str(), nServerPort);
        return -1;
    }
    CSocket sock;
    int ret = bSync ? sock.ConnectToServerNonBlock(strServerIp, nServerPort, nContinueRun, nConnectTimeoutMilliSecond)
                    : sock.ConnectToServerAsync(strServerIp, nServerPort);
    if (ret != 0) {
        CDataBufferSTLDeque::FreePopData(pReceiveBuf);
        Log(LOG_LEVEL_DEBUG,
            "CNetworkMultiClientBrel::ConnectToServer(connect the server is failed immediately, errno: %d, server ip: "
            "%s, port: %hu, is %s)",
            ret, strServerIp.c_str(), nServerPort, bSync ? "sync" : "async");
        return ret;
    }
    // Requests and replies of the pull protocol are small and awaited one by one.
    sock.SetNoDelay(true);

    static std::atomic<unsigned int> g_nConnectInfoId{static_cast<unsigned int>(time(nullptr))};
    nConnectId = NextConnectId(g_nConnectInfoId);
    ConnectInfo* pInfo = new ConnectInfo();
    pInfo->nConnectId = nConnectId;
    pInfo->sockFd = sock.GetSocket();
    pInfo->bNeedTestConnected = !bSync;
    pInfo->lBeginTime = GetNowMilliSecond();
    pInfo->nConnectTimeout = nConnectTimeoutMilliSecond;
    pInfo->strIp = strServerIp;
    pInfo->nPort = nServerPort;
    pInfo->pReceiveBuf = pReceiveBuf;
    pInfo->nReceiveBufLen = pInfo->nReceiveBufUnusedLen = m_nReceiveBufDefaultSize;
    pInfo->nLastAccessTime = time(nullptr);  // the caller's thread: the loop's time may be a wait old
    const int fd = sock.GetSocket();
    sock.Detach();
    {
        CAutoLock lock(m_lock);
        m_vecNewClient.push_back(pInfo);
    }
    // Wakes the loop; at high priority it overtakes data the caller pushes for the new id.
    m_sendBuffer.Push2(SPECIAL_EVENT_STR_NEW_CLIENT, sizeof(SPECIAL_EVENT_STR_NEW_CLIENT), 0, BREL_DATA_HIGH_PRI);
    if (bSync) {
        Log(LOG_LEVEL_DEBUG,
            "CNetworkMultiClientBrel::ConnectToServer(sync connect the server is ok, server ip: %s, port: %hu, fd: %d, "
            "connect id: %u)",
            strServerIp.c_str(), nServerPort, fd, nConnectId);
    } else {
        Log(LOG_LEVEL_DEBUG,
            "CNetworkMultiClientBrel::ConnectToServer(async connecting the server, server ip: %s, port: %hu, fd: %d, "
            "connect id: %u)",
            strServerIp.c_str(), nServerPort, fd, nConnectId);
    }
    return 0;
}

void CNetworkMultiClientBrel::Run()
{
    int epfd = epoll_create1(EPOLL_CLOEXEC);
    if (epfd < 0) {
        int nErr = errno;
        Log(LOG_LEVEL_ERROR, "CNetworkMultiClientBrel::Run(epoll_create is error, errno: %d)", nErr);
        ExitProcess(nErr);
    }
    ConnectInfo sendDataBufInfo;
    LoopState st;
    BeginLoop(st, epfd, &sendDataBufInfo);
    m_lAsyncConnectTestPreTime = GetNowMilliSecond();
    while (m_nContinueRun != 0) RunPass(st);

    m_mapAsyncNewClient.clear();
    close(epfd);
    ClearNewClientVec();
    UnInit();
}

void CNetworkMultiClientBrel::NewClientEventDeal(int epfd, bool bRecvNoToken)
{
    std::vector<ConnectInfo*> vecNew;
    {
        CAutoLock lock(m_lock);
        vecNew.swap(m_vecNewClient);
    }
    for (ConnectInfo* pNew : vecNew) {
        // The table's entry is the connection's home from here on, and what the epoll data points to.
        ConnectInfo& info = m_mapIdConnectInfo[pNew->nConnectId];
        info = std::move(*pNew);
        delete pNew;
        epoll_event ev{};
        if (info.bNeedTestConnected) {
            ev.events = EPOLLOUT;
            m_mapAsyncNewClient[info.nConnectId] = &info;
        } else {
            ev.events = bRecvNoToken ? 0u : static_cast<uint32_t>(EPOLLIN);
        }
        ev.data.ptr = &info;
        if (epoll_ctl(epfd, EPOLL_CTL_ADD, info.sockFd, &ev) != 0) {
            int nErr = errno;
            Log(LOG_LEVEL_ERROR,
                "CNetworkMultiClientBrel::NewClientEventDeal(epoll_ctl add new socket fd is error, fd: %d, errno: %d, "
                "server ip: %s, port: %hu, connect id: %u)",
                info.sockFd, nErr, info.strIp.c_str(), info.nPort, info.nConnectId);
            ExitProcess(nErr);
        }
    }
}

bool CNetworkMultiClientBrel::DealOwnEvent(LoopState& st, uint32_t nEvent, ConnectInfo* pInfo)
{
    if (!pInfo->bNeedTestConnected) return false;
    DealAsyncConnectEvent(st.epfd, nEvent, *pInfo, st.bRecvNoToken || st.bRemovedRecvFlag);
    return true;
}

void CNetworkMultiClientBrel::DealAsyncConnectEvent(int epfd, uint32_t nEvent, ConnectInfo& info, bool bRecvNoToken)
{
    m_mapAsyncNewClient.erase(info.nConnectId);
    // A failed connect reports EPOLLERR beside EPOLLOUT.
    if ((nEvent & ~static_cast<uint32_t>(EPOLLOUT)) != 0) {
        int nErr = 0;
        socklen_t nLen = sizeof(nErr);
        getsockopt(info.sockFd, SOL_SOCKET, SO_ERROR, &nErr, &nLen);
        Log(LOG_LEVEL_DEBUG,
            "CNetworkMultiClientBrel::DealAsyncConnectEvent(async connect to server is error, errno: %d, event: %u, "
            "connect id: %u)",
            nErr, nEvent, info.nConnectId);
        CloseConnectInner(epfd, info, false);
        return;
    }
    info.bNeedTestConnected = false;
    ModifyInfoEpollFlag(epfd, info, bRecvNoToken ? 0u : static_cast<uint32_t>(EPOLLIN));
    Notify(info.nConnectId, BREL_CONNECT_OK, info.sockFd);
}

int CNetworkMultiClientBrel::NextCheckMilliSecond() const
{
    return m_mapAsyncNewClient.empty() ? DEADLINE_WAIT_MAX_MILLISECOND : static_cast<int>(CONNECT_TIMEOUT_SCAN_MILLISECOND);
}

void CNetworkMultiClientBrel::DealCloseStep(LoopState& st, bool bCloseClient)
{
    // A close removes its id from the connects under way by itself (ForgetConnect).
    if (bCloseClient) {
        RealCloseClientVec(st.epfd);
        DealAsyncConnectTimeout(st.epfd);
        return;
    }
    unsigned long long lNow = GetNowMilliSecond();
    if (m_lAsyncConnectTestPreTime > lNow) m_lAsyncConnectTestPreTime = lNow;
    if (lNow - m_lAsyncConnectTestPreTime < CONNECT_TIMEOUT_SCAN_MILLISECOND) return;
    m_lAsyncConnectTestPreTime = lNow;
    DealAsyncConnectTimeout(st.epfd);
}

void CNetworkMultiClientBrel::DealAsyncConnectTimeout(int epfd)
{
    if (m_mapAsyncNewClient.empty()) return;
    unsigned long long lNow = GetNowMilliSecond();
    std::vector<ConnectInfo*> vecTimeout;
    for (auto& entry : m_mapAsyncNewClient) {
        ConnectInfo& info = *entry.second;
        if (lNow < info.lBeginTime) info.lBeginTime = lNow;
        if (lNow - info.lBeginTime < info.nConnectTimeout) continue;
        vecTimeout.push_back(&info);
    }
    // Closed after the walk: a close takes the entry out of the map.
    for (ConnectInfo* pInfo : vecTimeout) {
        Log(LOG_LEVEL_DEBUG,
            "CNetworkMultiClientBrel::DealAsyncConnectTimeout(async connect is timeout, remote ip: %s, port: %hu, "
            "timeout: %u, connect id: %u)",
            pInfo->strIp.c_str(), pInfo->nPort, pInfo->nConnectTimeout, pInfo->nConnectId);
        CloseConnectInner(epfd, *pInfo, false);
    }
}

void CNetworkMultiClientBrel::ForgetConnect(unsigned int nConnectId) { m_mapAsyncNewClient.erase(nConnectId); }

void CNetworkMultiClientBrel::ClearNewClientVec()
{
    std::vector<ConnectInfo*> vecNew;
    {
        CAutoLock lock(m_lock);
        vecNew.swap(m_vecNewClient);
    }
    for (ConnectInfo* pInfo : vecNew) {
        CloseConnectInfo(*pInfo);
        delete pInfo;
    }
}

} // namespace brel_lib

#include "network/network_server.h"

#include <errno.h>
#include <stdlib.h>
#include <sys/epoll.h>
#include <time.h>
#include <unistd.h>

#include "log.h"
#include "process.h"
#include "util.h"

namespace brel_lib {

CNetworkServerBrel::CNetworkServerBrel(CDataBufferSTLDeque& revBuffer, CDataBufferSTLDeque& sendBuffer,
                                       unsigned int nReceiveBufDefaultSize)
    : CNetworkMultiBase(revBuffer, sendBuffer, nReceiveBufDefaultSize)
{
}

CNetworkServerBrel::~CNetworkServerBrel() { Stop(); }

int CNetworkServerBrel::CreateServer(const std::string& strBindIp, unsigned short nBindPort)
{
    {
        CAutoLock lock(m_lock);
        m_strBindIp = strBindIp;
        m_nBindPort = nBindPort;
    }
    int ret = m_sockTcpListen.CreateServer(strBindIp, nBindPort, false, true);
    if (ret == 0) {
        Log(LOG_LEVEL_INFO, "CNetworkServerBrel::CreateServer(create listen is ok, bind ip: %s, port: %hu)",
            strBindIp.c_str(), nBindPort);
    } else {
        Log(LOG_LEVEL_WARNING, "CNetworkServerBrel::CreateServer(create listen is failed, bind ip: %s, port: %hu)",
            strBindIp.c_str(), nBindPort);
    }
    return ret;
}

void CNetworkServerBrel::GetServerBindIpPort(std::string& strIp, unsigned short& nPort)
{
    CAutoLock lock(m_lock);
    strIp = m_strBindIp;
    nPort = m_nBindPort;
}

int CNetworkServerBrel::GetListenIpPort(std::string& strIp, unsigned short& nPort)
{
    return m_sockTcpListen.GetSockName(strIp, nPort);
}

void CNetworkServerBrel::Run()
{
    const int listenFd = m_sockTcpListen.GetSocket();
    if (listenFd == -1) {
        Log(LOG_LEVEL_ERROR, "CNetworkServerBrel::Run(are you sure call CreateServer first and success?)");
        ExitProcess(-1);
    }
    int epfd = epoll_create1(EPOLL_CLOEXEC);
    if (epfd < 0) {
        int nErr = errno;
        Log(LOG_LEVEL_ERROR, "CNetworkServerBrel::Run(epoll_create is error, errno: %d)", nErr);
        ExitProcess(nErr);
    }
    int ret = AddSpecialFdToEpoll(&m_listenInfo, listenFd, epfd);
    if (ret != 0) {
        Log(LOG_LEVEL_ERROR, "CNetworkServerBrel::Run(epoll_ctl add listen socket fd is error, fd: %d, errno: %d)",
            listenFd, ret);
        ExitProcess(ret);
    }
    m_bAcceptPaused = false;
    ConnectInfo sendDataBufInfo;
    LoopState st;
    BeginLoop(st, epfd, &sendDataBufInfo);
    while (m_nContinueRun != 0) RunPass(st);

    close(epfd);
    m_sockTcpListen.Close();
    UnInit();
}

bool CNetworkServerBrel::DealOwnEvent(LoopState& st, uint32_t nEvent, ConnectInfo* pInfo)
{
    if (pInfo != &m_listenInfo) return false;
    if ((nEvent & ~static_cast<uint32_t>(EPOLLIN | EPOLLOUT)) != 0) {
        Log(LOG_LEVEL_ERROR, "CNetworkServerBrel::Run(listen socket fd is error, fd: %d, event: %u)",
            m_listenInfo.sockFd, nEvent);
        ExitProcess(-1);
    }
    // One accept per event: the level-triggered set reports a further client at the next pass.
    AcceptNewClient(st.epfd, st.bRemovedRecvFlag);
    return true;
}

void CNetworkServerBrel::DealCloseStep(LoopState& st, bool bCloseClient)
{
    CNetworkMultiBase::DealCloseStep(st, bCloseClient);
    ResumeAcceptIfDue(st.epfd);
}

int CNetworkServerBrel::AcceptNewClient(int epfd, bool bRecvNoToken)
{
    // Any early return closes the new descriptor with this object.
    CSocket client;
    int ret = m_sockTcpListen.Accept(client);
    if (ret != 0) {
        Log(LOG_LEVEL_WARNING, "CNetworkServerBrel::AcceptNewClient(accept new client is failed, errno: %d)", ret);
        if (ret == EMFILE || ret == ENFILE || ret == ENOBUFS || ret == ENOMEM) PauseAccept(epfd);
        return ret;
    }
    std::string strIp;
    unsigned short nPort = 0;
    ret = client.GetPeerName(strIp, nPort);
    if (ret != 0) {
        Log(LOG_LEVEL_WARNING,
            "CNetworkServerBrel::AcceptNewClient(new client, but get peer name is failed, errno: %d)", ret);
        return ret;
    }
    char* pReceiveBuf = NewReceiveBuf();
    if (pReceiveBuf == nullptr) {
        Log(LOG_LEVEL_WARNING,
            "CNetworkServerBrel::AcceptNewClient(new client, but malloc receive buf is error, malloc size: %u, client "
            "ip: %s, port: %hu)",
            m_nReceiveBufDefaultSize, strIp.c_str(), nPort);
        return -1;
    }
    static std::atomic<unsigned int> g_nConnectInfoId{static_cast<unsigned int>(time(nullptr))};
    unsigned int nConnectId = NextConnectId(g_nConnectInfoId);
    while (m_mapIdConnectInfo.count(nConnectId) != 0) nConnectId = NextConnectId(g_nConnectInfoId);

    const int fd = client.GetSocket();
    ConnectInfo& info = m_mapIdConnectInfo[nConnectId];
    info.nConnectId = nConnectId;
    info.sockFd = fd;
    info.strIp = strIp;
    info.nPort = nPort;
    info.pReceiveBuf = pReceiveBuf;
    info.nReceiveBufLen = info.nReceiveBufUnusedLen = m_nReceiveBufDefaultSize;
    info.nLastAccessTime = m_nNowTime;

    epoll_event ev{};
    ev.events = bRecvNoToken ? 0u : static_cast<uint32_t>(EPOLLIN);
    ev.data.ptr = &info;
    if (epoll_ctl(epfd, EPOLL_CTL_ADD, fd, &ev) != 0) {
        int nErr = errno;
        Log(LOG_LEVEL_ERROR,
            "CNetworkServerBrel::AcceptNewClient(epoll_ctl add new socket fd is error, fd: %d, errno: %d, client ip: "
            "%s, port: %hu, connect id: %u)",
            fd, nErr, strIp.c_str(), nPort, nConnectId);
        ExitProcess(nErr);
    }
    client.SetBlockOrNon(false);
    // Requests and replies of the pull protocol are small and awaited one by one.
    client.SetNoDelay(true);
    client.Detach();
    Notify(nConnectId, BREL_CONNECT_NEW_CLIENT, fd);
    Log(LOG_LEVEL_INFO,
        "CNetworkServerBrel::AcceptNewClient(new client, fd: %d, client ip: %s, port: %hu, connect id: %u)", fd,
        strIp.c_str(), nPort, nConnectId);
    return 0;
}

void CNetworkServerBrel::PauseAccept(int epfd)
{
    if (m_bAcceptPaused) return;
    ModifyInfoEpollFlag(epfd, m_listenInfo, 0);
    m_bAcceptPaused = true;
    m_lAcceptPausedTime = GetNowMilliSecond();
}

void CNetworkServerBrel::ResumeAcceptIfDue(int epfd)
{
    if (!m_bAcceptPaused) return;
    unsigned long long lNow = GetNowMilliSecond();
    if (m_lAcceptPausedTime > lNow) m_lAcceptPausedTime = lNow;
    if (lNow - m_lAcceptPausedTime < ACCEPT_BACKOFF_MILLISECOND) return;
    ModifyInfoEpollFlag(epfd, m_listenInfo, EPOLLIN);
    m_bAcceptPaused = false;
}

} // namespace brel_lib

#include "network/network_client.h"

#include <errno.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/epoll.h>
#include <time.h>
#include <unistd.h>

#include "log.h"
#include "process.h"
#include "util.h"

namespace brel_lib {

namespace {
const unsigned int LINK_STACK_SIZE = 0x25a000;
} // namespace

CNetworkClientBrel::CNetworkClientBrel(CDataBufferSTLDeque& revBuffer, CDataBufferSTLDeque& sendBuffer,
                                       bool bReConnClearBufData)
    : CThread(LINK_STACK_SIZE), m_bReConnectClearBufData(bReConnClearBufData), m_revBuffer(revBuffer),
      m_sendBuffer(sendBuffer)
{
    if (!m_connect.AllocReceiveBuf(RECEIVE_BUF_SIZE)) {
        Log(LOG_LEVEL_ERROR, "CNetworkClientBrel::CNetworkClientBrel(malloc recv buf is error, malloc size: %d)",
            RECEIVE_BUF_SIZE);
        ExitProcess(-1);
    }
    // A dead peer must show as EPIPE, not end the process.
    signal(SIGPIPE, SIG_IGN);
}

CNetworkClientBrel::~CNetworkClientBrel()
{
    Stop();
    m_connect.FreeReceiveBuf();
    m_connect.FreeSendData();
}

int CNetworkClientBrel::Start(bool bUseNewThread)
{
    if (GetThreadID() != 0) return 0;
    m_bUseNewThread = bUseNewThread;
    if (bUseNewThread) return CThread::Start();
    m_nContinueRun = 1;
    Run();
    return 0;
}

int CNetworkClientBrel::Stop()
{
    if (m_bUseNewThread) return CThread::Stop();
    m_nContinueRun = 0;
    WakeUp();
    return 0;
}

// ---- server list -----------------------------------------------------------------

int CNetworkClientBrel::AddServer(const std::string& strIp, unsigned short nPort)
{
    int ret = CheckIpValid(strIp);
    if (ret != 0) return ret;
    CAutoLock lock(m_lock);
    for (const ServerInfo& server : m_vecServer) {
        if (server.strIp == strIp && server.nPort == nPort) return 0;
    }
    m_vecServer.push_back(ServerInfo{strIp, nPort});
    return 0;
}

int CNetworkClientBrel::DelServer(const std::string& strIp, unsigned short nPort)
{
    CAutoLock lock(m_lock);
    for (auto it = m_vecServer.begin(); it != m_vecServer.end(); ++it) {
        if (it->strIp == strIp && it->nPort == nPort) {
            m_vecServer.erase(it);
            return 0;
        }
    }
    return -1;
}

void CNetworkClientBrel::ClearServer()
{
    CAutoLock lock(m_lock);
    m_vecServer.clear();
    m_nNowUseServerId = 0;
}

int CNetworkClientBrel::ReplaceServers(const std::vector<ServerInfo>& vecServer)
{
    std::vector<ServerInfo> vecValid;
    for (const ServerInfo& server : vecServer) {
        if (CheckIpValid(server.strIp) != 0) continue;
        bool bDuplicate = false;
        for (const ServerInfo& kept : vecValid) bDuplicate = bDuplicate || (kept.strIp == server.strIp && kept.nPort == server.nPort);
        if (!bDuplicate) vecValid.push_back(server);
    }
    if (vecValid.empty()) return -1;
    CAutoLock lock(m_lock);
    m_vecServer.swap(vecValid);
    m_nNowUseServerId = 0;
    return 0;
}

std::vector<CNetworkClientBrel::ServerInfo> CNetworkClientBrel::GetServers()
{
    CAutoLock lock(m_lock);
    return m_vecServer;
}

bool CNetworkClientBrel::CurrentServer(ServerInfo& server)
{
    CAutoLock lock(m_lock);
    if (m_vecServer.empty()) return false;
    if (m_nNowUseServerId >= m_vecServer.size()) m_nNowUseServerId = 0;
    server = m_vecServer[m_nNowUseServerId];
    return true;
}

bool CNetworkClientBrel::TakeMoveFlag(NET_FLAG flag, const char* szFunction)
{
    if (!TakeFlag(flag)) return false;
    const char* szWhich = flag == NET_FLAG_CONNECT_NEW_SERVER ? "new" : "next";
    Log(LOG_LEVEL_INFO, "CNetworkClientBrel::%s(receive connect %s server flag, we will connect the %s server)",
        szFunction, szWhich, szWhich);
    CAutoLock lock(m_lock);
    if (flag == NET_FLAG_CONNECT_NEW_SERVER) {
        m_nNowUseServerId = 0;
    } else {
        ++m_nNowUseServerId;
    }
    return true;
}

int CNetworkClientBrel::GetLocalIpPort(std::string& strIp, unsigned short& nPort)
{
    CAutoLock lock(m_lock);
    if (!m_bHaveAddresses) return -1;
    strIp = m_local.strIp;
    nPort = m_local.nPort;
    return 0;
}

int CNetworkClientBrel::GetRemoteIpPort(std::string& strIp, unsigned short& nPort)
{
    CAutoLock lock(m_lock);
    if (!m_bHaveAddresses) return -1;
    strIp = m_remote.strIp;
    nPort = m_remote.nPort;
    return 0;
}

void CNetworkClientBrel::NoteAddresses()
{
    ServerInfo local{"", 0};
    m_sockTcp.GetSockName(local.strIp, local.nPort);  // the link thread's own descriptor
    CAutoLock lock(m_lock);
    m_local = local;
    m_remote = ServerInfo{m_connect.strIp, m_connect.nPort};
    m_bHaveAddresses = true;
}

void CNetworkClientBrel::CloseSocket()
{
    {
        CAutoLock lock(m_lock);
        m_bHaveAddresses = false;
        m_local = m_remote = ServerInfo{"", 0};
    }
    m_sockTcp.Close();
    m_connect.sockFd = -1;
}

void CNetworkClientBrel::SetNetCallback(BrelNetCallback pCallback, void* pAppend)
{
    m_funBrelNetCallback = pCallback;
    m_pBrelNetCallbackAppend = pAppend;
}

// ---- connecting ------------------------------------------------------------------

int CNetworkClientBrel::ConnectToServer()
{
    while (true) {
        if (m_nContinueRun == 0) return -1;
        ServerInfo server;
        if (!CurrentServer(server)) {
            Log(LOG_LEVEL_WARNING, "CNetworkClientBrel::ConnectToServer(it is not add any server ip now)");
            WaitWakeUp(500);
            continue;
        }
        m_connect.strIp = server.strIp;
        m_connect.nPort = server.nPort;
        Log(LOG_LEVEL_INFO, "CNetworkClientBrel::ConnectToServer(try to connect the server: %s, port: %hu)",
            server.strIp.c_str(), server.nPort);

        unsigned int nSleep = m_nConnectFailedSleepTime;
        unsigned int nSwitch = m_nServerConnectFailedSwitchMilliSecond;
        unsigned int nAttempts = nSleep == 0 ? 1 : (nSwitch + nSleep - 1) / nSleep;
        if (nAttempts == 0) nAttempts = 1;
        CloseSocket();

        bool bRestart = false;
        int ret = 0;
        for (unsigned int i = 0; i < nAttempts; ++i) {
            ret = m_sockTcp.ConnectToServerNonBlock(server.strIp, server.nPort, m_nContinueRun, m_nConnectTimeout);
            if (ret == 0) break;
            Log(LOG_LEVEL_WARNING,
                "CNetworkClientBrel::ConnectToServer(connect the server is failed, we will retry again after sleep "
                "some time, errno: %d)",
                ret);
            // A stop or a move between servers wakes the sleep (SetFlag wakes the thread).
            const unsigned int nFlags = NET_FLAG_CONNECT_NEW_SERVER | NET_FLAG_CONNECT_NEXT_SERVER;
            uint64_t lEnd = GetNowMilliSecond() + m_nConnectFailedSleepTime;
            while (m_nContinueRun != 0 && (m_nFlag & nFlags) == 0) {
                uint64_t lNow = GetNowMilliSecond();
                if (lNow >= lEnd || lEnd - lNow > m_nConnectFailedSleepTime) break;  // done, or the clock went back
                WaitWakeUp(static_cast<unsigned int>(lEnd - lNow));
            }
            if (m_nContinueRun == 0) return -1;
            if (TakeMoveFlag(NET_FLAG_CONNECT_NEW_SERVER, "ConnectToServer") ||
                TakeMoveFlag(NET_FLAG_CONNECT_NEXT_SERVER, "ConnectToServer")) {
                bRestart = true;
                break;
            }
        }
        if (bRestart) continue;
        if (m_sockTcp.GetSocket() >= 0) {
            int fd = m_sockTcp.GetSocket();
            m_connect.sockFd = fd;
            m_connect.nConnectId = static_cast<unsigned int>(fd);
            // Replies are small and each one is awaited: no Nagle delay.
            m_sockTcp.SetNoDelay(true);
            NoteAddresses();
            if (m_funBrelNetCallback != nullptr) {
                m_funBrelNetCallback(static_cast<unsigned int>(fd), BREL_CONNECT_OK, m_pBrelNetCallbackAppend, fd);
            }
            Log(LOG_LEVEL_INFO, "CNetworkClientBrel::ConnectToServer(connect the server is ok, server ip: %s, port: %hu)",
                server.strIp.c_str(), server.nPort);
            return 0;
        }
        Log(LOG_LEVEL_WARNING,
            "CNetworkClientBrel::ConnectToServer(connect the server is failed, we retry another server, errno: %d)", ret);
        CAutoLock lock(m_lock);
        ++m_nNowUseServerId;
    }
}

// ---- the loop --------------------------------------------------------------------

void CNetworkClientBrel::EpollMod(int epfd, int fd, uint32_t event, bool bAddOrMod)
{
    epoll_event ev{};
    ev.events = event;
    ev.data.fd = fd;
    if (epoll_ctl(epfd, bAddOrMod ? EPOLL_CTL_ADD : EPOLL_CTL_MOD, fd, &ev) != 0) {
        int nErr = errno;
        Log(LOG_LEVEL_ERROR,
            "CNetworkClientBrel::EpollMod(epoll_ctl %s socket fd is error, epfd: %d, fd: %d, event: %u, errno: %d)",
            bAddOrMod ? "add" : "mod", epfd, fd, event, nErr);
        ExitProcess(nErr);
    }
}

void CNetworkClientBrel::ResetDataState()
{
    // A partly received packet is lost; complete ones already queued stay.
    m_connect.EmptyReceiveBuf();
    if (m_bReConnectClearBufData) {
        m_sendBuffer.RemoveAll();
        m_connect.FreeSendData();
    }
    // The block that was on its way goes again whole on the new link. Nothing
    // else may wake the send side (taking blocks cleared the event), so raise it.
    m_connect.nSendDataUsedLen = 0;
    if (m_connect.HasPendingData() || !m_sendBuffer.Empty()) m_sendBuffer.SetEvent();
}

void CNetworkClientBrel::Run()
{
    if (ConnectToServer() != 0) {
        UnInit();
        return;
    }
    int epfd = epoll_create1(EPOLL_CLOEXEC);
    if (epfd < 0) {
        int nErr = errno;
        Log(LOG_LEVEL_ERROR, "CNetworkClientBrel::Run(epoll_create is error, errno: %d)", nErr);
        ExitProcess(nErr);
    }
    const int fdBuffer = m_sendBuffer.GetReadableFd();
    EpollMod(epfd, m_sockTcp.GetSocket(), EPOLLIN, true);
    EpollMod(epfd, fdBuffer, EPOLLIN, true);
    // A stop, a flag or a move between servers wakes the wait through this.
    if (WakeFd() >= 0) EpollMod(epfd, WakeFd(), EPOLLIN, true);
    bool bSetEpollOut = false;
    // The send buffer's descriptor stays readable while blocks wait. While the socket is full
    // or tokens are out it is taken out of the set, or the level-triggered wait would spin:
    // the socket's EPOLLOUT, or the next pass for tokens, resumes sending.
    bool bWatchBuffer = true, bWaitToken = false;
    auto watchBuffer = [&](bool bWatch) {
        if (bWatch == bWatchBuffer) return;
        bWatchBuffer = bWatch;
        EpollMod(epfd, fdBuffer, bWatch ? static_cast<uint32_t>(EPOLLIN) : 0u, false);
    };
    time_t tLastAdjust = time(nullptr);

    while (m_nContinueRun != 0) {
        time_t tNow = time(nullptr);
        if (tLastAdjust > tNow) tLastAdjust = tNow;
        if (tNow - tLastAdjust > ADJUST_SECOND) {
            tLastAdjust = tNow;
            AdjustBufSize();
        }
        // Sockets and queues wake the wait; otherwise it lasts until the next
        // buffer adjustment, or a moment while the send side waits for tokens.
        int nWait = bWaitToken ? TOKEN_WAIT_MILLISECOND
                               : MilliSecondsUntil(tLastAdjust + ADJUST_SECOND + 1, DEADLINE_WAIT_MAX_MILLISECOND);
        epoll_event events[3];
        int n = epoll_wait(epfd, events, 3, nWait);
        if (n < 0) {
            if (errno == EINTR) continue;
            int nErr = errno;
            Log(LOG_LEVEL_ERROR, "CNetworkClientBrel::Run(epoll_wait is error, errno: %d)", nErr);
            ExitProcess(nErr);
        }
        const int fdSock = m_sockTcp.GetSocket();
        bool bNeedSendData = false, bNeedReConnect = false, bContinue = true;
        for (int i = 0; i < n; ++i) {
            if (events[i].data.fd == fdBuffer) {
                bNeedSendData = true;
                continue;
            }
            if (events[i].data.fd == WakeFd()) {
                TakeWakeUp();  // the flags are looked at below, the run flag by the loop
                continue;
            }
            uint32_t nEvent = events[i].events;
            if ((nEvent & ~static_cast<uint32_t>(EPOLLIN | EPOLLOUT)) != 0) {
                Log(LOG_LEVEL_WARNING, "CNetworkClientBrel::Run(epoll socket is error, fd: %d, event: %u)", fdSock, nEvent);
                bNeedReConnect = true;
                break;
            }
            if (nEvent & EPOLLIN) {
                int ret = ReceiveData();
                if (ret == BREL_STEP_STOPPED) {
                    bContinue = false;
                    break;
                }
                if (ret != BREL_STEP_OK && ret != BREL_STEP_NO_TOKEN && ret != BREL_STEP_BUDGET) {
                    bNeedReConnect = true;
                    break;
                }
            }
            if (nEvent & EPOLLOUT) bNeedSendData = true;
        }
        if (!bContinue) break;

        if (bWaitToken) bNeedSendData = true;
        if (bNeedSendData && !bNeedReConnect) {
            bWaitToken = false;
            int ret = SendData();
            if (ret == BREL_STEP_OK) {
                if (bSetEpollOut) {
                    bSetEpollOut = false;
                    EpollMod(epfd, fdSock, EPOLLIN, false);
                }
                watchBuffer(true);
            } else if (ret == BREL_STEP_BUDGET) {
                watchBuffer(true);
                m_sendBuffer.SetEvent();  // the block in hand may be all that is left
            } else if (ret == BREL_STEP_AGAIN) {
                if (!bSetEpollOut) {
                    bSetEpollOut = true;
                    EpollMod(epfd, fdSock, EPOLLIN | EPOLLOUT, false);
                }
                watchBuffer(false);
            } else if (ret == BREL_STEP_NO_TOKEN) {
                bWaitToken = true;
                watchBuffer(false);
            } else if (ret == BREL_STEP_STOPPED) {
                break;
            } else {
                bNeedReConnect = true;
            }
        }
        // Both in one pass: the index goes to 0, then to 1, and one reconnect serves both.
        if (TakeMoveFlag(NET_FLAG_CONNECT_NEW_SERVER, "Run")) bNeedReConnect = true;
        if (TakeMoveFlag(NET_FLAG_CONNECT_NEXT_SERVER, "Run")) bNeedReConnect = true;
        if (bNeedReConnect) {
            if (m_funBrelNetCallback != nullptr) {
                m_funBrelNetCallback(static_cast<unsigned int>(fdSock), BREL_CONNECT_CLOSE, m_pBrelNetCallbackAppend,
                                     fdSock);
            }
            epoll_ctl(epfd, EPOLL_CTL_DEL, fdSock, nullptr);
            if (ConnectToServer() != 0) break;
            bSetEpollOut = bWaitToken = false;
            EpollMod(epfd, m_sockTcp.GetSocket(), EPOLLIN, true);
            watchBuffer(true);
            ResetDataState();
        }
        if (TakeFlag(NET_BUFFER_AUTO_ADJUST)) AdjustBufSize();
    }
    close(epfd);
    UnInit();
}

void CNetworkClientBrel::UnInit()
{
    CloseSocket();
    {
        CAutoLock lock(m_lock);
        m_nNowUseServerId = 0;
    }
    m_connect.EmptyReceiveBuf();
    m_connect.FreeSendData();
}

int CNetworkClientBrel::ReceiveData()
{
    // A packet's speed is measured within one call only; the link's user ignores it.
    m_connect.lNowPacketBeginRecvTime = 0;
    return ReceiveAsnBufData(m_nContinueRun, m_connect, m_funBrelNetPacketComplete, m_revBuffer, nullptr);
}

int CNetworkClientBrel::SendData()
{
    // On a list that is really empty the link thread ends, as a stop would.
    {
        CAutoLock lock(m_lock);
        if (m_vecServer.empty()) return BREL_STEP_STOPPED;
    }
    for (int i = 0; i < 50 && m_nContinueRun != 0; ++i) {
        if (m_connect.pSendData == nullptr) {
            m_connect.pSendData = static_cast<char*>(m_sendBuffer.GetFrontAndPop(m_connect.nSendDataLen, 0));
            m_connect.nSendDataUsedLen = 0;
            if (m_connect.pSendData == nullptr) return BREL_STEP_OK;
        }
        int ret = SendAsnBufData(m_nContinueRun, m_connect, m_sendBuffer, nullptr);
        if (ret != BREL_STEP_OK) return ret;
    }
    if (m_nContinueRun == 0) return BREL_STEP_STOPPED;
    return m_sendBuffer.Empty() ? BREL_STEP_OK : BREL_STEP_BUDGET;
}

void CNetworkClientBrel::AdjustBufSize()
{
    if (!m_connect.ReceiveBufEmpty()) {
        Log(LOG_LEVEL_DEBUG,
            "CNetworkClientBrel::AdjustBufSize(buf is in used, do not adjust now, buf now size: %u, should adjust to "
            "size: %u)",
            m_connect.nReceiveBufLen, static_cast<unsigned int>(RECEIVE_BUF_SIZE));
        return;
    }
    if (m_connect.nReceiveBufLen <= RECEIVE_BUF_SIZE) return;
    unsigned int nBefore = m_connect.nReceiveBufLen;
    if (!m_connect.AllocReceiveBuf(RECEIVE_BUF_SIZE)) {
        Log(LOG_LEVEL_WARNING,
            "CNetworkClientBrel::AdjustBufSize(alloc memory is error, we need malloc size: %u, now size: %u)",
            static_cast<unsigned int>(RECEIVE_BUF_SIZE), m_connect.nReceiveBufLen);
        return;
    }
    Log(LOG_LEVEL_INFO, "CNetworkClientBrel::AdjustBufSize(buf adjust before size: %u, now size: %u)", nBefore,
        m_connect.nReceiveBufLen);
}

} // namespace brel_lib

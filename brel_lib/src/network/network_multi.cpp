#include "network/network_multi.h"

#include <errno.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "log.h"
#include "process.h"
#include "util.h"

namespace brel_lib {

namespace {

const unsigned int MULTI_STACK_SIZE = 0x25a000;
// The three socket masks of the shaping table, as epoll takes them.
const uint32_t MASK_IN = EPOLLIN;
const uint32_t MASK_OUT = EPOLLOUT;
const uint32_t MASK_IN_OUT = EPOLLIN | EPOLLOUT;
// A receive buffer doubles from its first size, so that size must not be 0.
const unsigned int FALLBACK_RECEIVE_BUF_SIZE = 4096;

bool IsControlBlock(const char* pData, unsigned int nSize, const char* szControl, unsigned int nControlSize)
{
    return nSize == nControlSize && memcmp(pData, szControl, nSize) == 0;
}

int SocketError(int fd)
{
    int nErr = 0;
    socklen_t nLen = sizeof(nErr);
    getsockopt(fd, SOL_SOCKET, SO_ERROR, &nErr, &nLen);
    return nErr;
}

} // namespace

unsigned int NextConnectId(std::atomic<unsigned int>& nCounter)
{
    unsigned int nOld = nCounter.load();
    unsigned int nNew;
    do {
        nNew = nOld + 1;
        if (nNew == 0) nNew = 1;
    } while (!nCounter.compare_exchange_weak(nOld, nNew));
    return nNew;
}

CNetworkMultiBase::CNetworkMultiBase(CDataBufferSTLDeque& revBuffer, CDataBufferSTLDeque& sendBuffer,
                                     unsigned int nReceiveBufDefaultSize)
    : CThread(MULTI_STACK_SIZE), m_revBuffer(revBuffer), m_sendBuffer(sendBuffer),
      m_nReceiveBufDefaultSize(nReceiveBufDefaultSize != 0 ? nReceiveBufDefaultSize : FALLBACK_RECEIVE_BUF_SIZE),
      m_nNowTime(time(nullptr))
{
    // A dead peer must show as EPIPE, not end the process.
    signal(SIGPIPE, SIG_IGN);
}

CNetworkMultiBase::~CNetworkMultiBase()
{
    Stop();
    for (auto& entry : m_mapIdConnectInfo) CloseConnectInfo(entry.second);
    m_mapIdConnectInfo.clear();
}

int CNetworkMultiBase::Start()
{
    if (GetThreadID() != 0) return 0;
    return CThread::Start();
}

int CNetworkMultiBase::Stop() { return CThread::Stop(); }

int CNetworkMultiBase::CloseClient(unsigned int nConnectId)
{
    {
        CAutoLock lock(m_lock);
        m_vecNeedCloseConnectId.push_back(nConnectId);
    }
    m_sendBuffer.Push2(SPECIAL_EVENT_STR_CLOSE_CLIENT, sizeof(SPECIAL_EVENT_STR_CLOSE_CLIENT), 0, BREL_DATA_HIGH_PRI);
    return 0;
}

void CNetworkMultiBase::SetNetflowSendSpeed(unsigned int nSpeed)
{
    m_nSendSpeed = nSpeed;
    m_bEnableSendNetFlow = nSpeed != 0;
}

void CNetworkMultiBase::SetNetflowRecvSpeed(unsigned int nSpeed)
{
    m_nRecvSpeed = nSpeed;
    m_bEnableRecvNetFlow = nSpeed != 0;
}

void CNetworkMultiBase::SetNetClientCallback(BrelNetCallback pCallback, void* pAppend)
{
    m_funBrelNetCallback = pCallback;
    m_pBrelNetCallbackAppend = pAppend;
}

void CNetworkMultiBase::SetNetflowClock(CNetflowTokenBucket::ClockFun pClock)
{
    m_tokenBucketSend.SetClock(pClock);
    m_tokenBucketRecv.SetClock(pClock);
}

int CNetworkMultiBase::GetConnectPeer(unsigned int nConnectId, std::string& strIp, unsigned short& nPort) const
{
    auto it = m_mapIdConnectInfo.find(nConnectId);
    if (it == m_mapIdConnectInfo.end()) return -1;
    strIp = it->second.strIp;
    nPort = it->second.nPort;
    return 0;
}

char* CNetworkMultiBase::NewReceiveBuf() const
{
    return static_cast<char*>(CDataBufferSTLDeque::AllocBlock(m_nReceiveBufDefaultSize));
}

void CNetworkMultiBase::Notify(unsigned int nConnectId, BREL_NET_CALLBACK_TYPE type, int fd)
{
    if (m_funBrelNetCallback != nullptr) m_funBrelNetCallback(nConnectId, type, m_pBrelNetCallbackAppend, fd);
}

// ---- the pass --------------------------------------------------------------------

void CNetworkMultiBase::BeginLoop(LoopState& st, int epfd, ConnectInfo* pSendDataBufInfo)
{
    st = LoopState();
    st.epfd = epfd;
    st.pSendDataBufInfo = pSendDataBufInfo;
    int ret = AddSpecialFdToEpoll(pSendDataBufInfo, m_sendBuffer.GetReadableFd(), epfd);
    if (ret != 0) {
        Log(LOG_LEVEL_ERROR, "%s::Run(epoll_ctl add send data buf fd is error, fd: %d, errno: %d)", LoopName(),
            m_sendBuffer.GetReadableFd(), ret);
        ExitProcess(ret);
    }
    // A stop wakes the wait through the thread's own descriptor.
    if (WakeFd() >= 0 && AddSpecialFdToEpoll(&m_wakeInfo, WakeFd(), epfd) != 0) {
        Log(LOG_LEVEL_ERROR, "%s::Run(epoll_ctl add wake fd is error, fd: %d, errno: %d)", LoopName(), WakeFd(), errno);
        ExitProcess(errno);
    }
    st.nLastAutoCloseCheck = time(nullptr);
    // Blocks may have waited while the loop was stopped, behind a cleared event.
    if (!m_sendBuffer.Empty()) m_sendBuffer.SetEvent();
}

void CNetworkMultiBase::ApplyNetflowSettings()
{
    m_tokenBucketSend.SetSpeed(m_nSendSpeed);
    m_tokenBucketSend.SetGenMilliSecond(m_nSendGenMilliSecond);
    m_tokenBucketRecv.SetSpeed(m_nRecvSpeed);
    m_tokenBucketRecv.SetGenMilliSecond(m_nRecvGenMilliSecond);
}

void CNetworkMultiBase::RunPass(LoopState& st)
{
    time_t nNow = time(nullptr);
    m_nNowTime = nNow;
    if (st.nLastAutoCloseCheck > nNow) st.nLastAutoCloseCheck = nNow;
    if (nNow - st.nLastAutoCloseCheck > AUTO_CLOSE_CHECK_SECOND) {
        st.nLastAutoCloseCheck = nNow;
        AutoCloseNoAccessConnect(st.epfd);
    }
    ApplyNetflowSettings();
    // Descriptors wake the wait; otherwise it lasts until tokens come back, a
    // check of the derived loop, or the next check of silent connections.
    int nTimeout = DealNoToken(st);
    if (nTimeout > MAX_WAIT_MILLISECOND) nTimeout = MAX_WAIT_MILLISECOND;
    if (nTimeout < 0) nTimeout = MilliSecondsUntil(st.nLastAutoCloseCheck + AUTO_CLOSE_CHECK_SECOND + 1, NextCheckMilliSecond());
    st.bSendNoToken = st.bRecvNoToken = false;

    epoll_event events[MAX_STEP];
    int n = epoll_wait(st.epfd, events, MAX_STEP, nTimeout);
    m_nNowTime = time(nullptr);
    if (n < 0) {
        if (errno == EINTR) return;
        int nErr = errno;
        Log(LOG_LEVEL_ERROR, "%s::Run(epoll_wait is error, errno: %d)", LoopName(), nErr);
        ExitProcess(nErr);
    }
    bool bCloseClient = false, bSendDataBuf = false;
    for (int i = 0; i < n; ++i) {
        ConnectInfo* pInfo = static_cast<ConnectInfo*>(events[i].data.ptr);
        if (pInfo == st.pSendDataBufInfo) {
            bSendDataBuf = true;
            continue;
        }
        if (pInfo == &m_wakeInfo) {
            TakeWakeUp();  // a stop: the loop looks at its flag after the pass
            continue;
        }
        if (DealOwnEvent(st, events[i].events, pInfo)) continue;
        if (SendAndRecvFdData(st.epfd, events[i].events, *pInfo, st.bSendNoToken, st.bRecvNoToken,
                              st.bRemovedRecvFlag)) {
            break;
        }
        // Neither direction can move: the rest is reported again at the next wait.
        if ((st.bSendNoToken || st.bRemovedSendFlag) && (st.bRecvNoToken || st.bRemovedRecvFlag)) break;
    }
    if (bSendDataBuf && !st.bSendNoToken && !st.bRemovedSendFlag) {
        SendDataBufToAllClient(st.epfd, st.bSendNoToken, bCloseClient, st.bRecvNoToken || st.bRemovedRecvFlag);
    }
    DealCloseStep(st, bCloseClient);
}

void CNetworkMultiBase::DealCloseStep(LoopState& st, bool bCloseClient)
{
    if (bCloseClient) RealCloseClientVec(st.epfd);
}

void CNetworkMultiBase::NewClientEventDeal(int, bool) {}

int CNetworkMultiBase::NextCheckMilliSecond() const { return DEADLINE_WAIT_MAX_MILLISECOND; }

void CNetworkMultiBase::ForgetConnect(unsigned int) {}

// ---- one connection --------------------------------------------------------------

bool CNetworkMultiBase::SendAndRecvFdData(int epfd, uint32_t nEvent, ConnectInfo& info, bool& bSendNoToken,
                                          bool& bRecvNoToken, bool bRemovedRecvFlag)
{
    if ((nEvent & ~MASK_IN_OUT) != 0) {
        Log(LOG_LEVEL_WARNING,
            "CNetworkMultiBase::SendAndRecvFdData(socket fd is error, we close it, errno: %d, fd: %d, event: %u, ip: "
            "%s, port: %hu, connect id: %u)",
            SocketError(info.sockFd), info.sockFd, nEvent, info.strIp.c_str(), info.nPort, info.nConnectId);
        CloseConnectInner(epfd, info, true);
        return false;
    }
    if ((nEvent & EPOLLIN) && !bRecvNoToken) {
        Log(LOG_LEVEL_LOWEST,
            "CNetworkMultiBase::SendAndRecvFdData(recv event is ok, fd: %d, ip: %s, port: %hu, connect id: %u)",
            info.sockFd, info.strIp.c_str(), info.nPort, info.nConnectId);
        int ret = ReceiveConnectData(info);
        if (ret == BREL_STEP_NO_TOKEN) {
            bRecvNoToken = true;
            if (bSendNoToken) return true;
        } else if (ret == BREL_STEP_STOPPED) {
            return true;
        } else if (ret == BREL_STEP_PEER_CLOSED) {
            CloseConnectInner(epfd, info, true);
            return false;
        } else if (ret != BREL_STEP_OK && ret != BREL_STEP_BUDGET) {
            Log(LOG_LEVEL_WARNING,
                "CNetworkMultiBase::SendAndRecvFdData(recv fd data is error, we close it, ret: %d, fd: %d, ip: %s, "
                "port: %hu, connect id: %u)",
                ret, info.sockFd, info.strIp.c_str(), info.nPort, info.nConnectId);
            CloseConnectInner(epfd, info, true);
            return false;
        }
    }
    if (!(nEvent & EPOLLOUT) || bSendNoToken) return false;

    Log(LOG_LEVEL_LOWEST,
        "CNetworkMultiBase::SendAndRecvFdData(send event is ok, fd: %d, ip: %s, port: %hu, connect id: %u)",
        info.sockFd, info.strIp.c_str(), info.nPort, info.nConnectId);
    int ret = SendConnectBufData(info);
    switch (ret) {
    case BREL_STEP_OK:
        // Nothing pending any more: EPOLLOUT is armed only while the kernel refuses data.
        ModifyInfoEpollFlag(epfd, info, (bRecvNoToken || bRemovedRecvFlag) ? 0u : MASK_IN);
        return false;
    case BREL_STEP_NO_TOKEN:
        bSendNoToken = true;
        return bRecvNoToken;
    case BREL_STEP_STOPPED:
        return true;
    case BREL_STEP_AGAIN:
    case BREL_STEP_BUDGET:
        return false;
    default:
        Log(LOG_LEVEL_WARNING,
            "CNetworkMultiBase::SendAndRecvFdData(send fd data is error, we close it, ret : %d, fd: %d, ip: %s, port: "
            "%hu, connect id: %u)",
            ret, info.sockFd, info.strIp.c_str(), info.nPort, info.nConnectId);
        CloseConnectInner(epfd, info, true);
        return false;
    }
}

int CNetworkMultiBase::ReceiveConnectData(ConnectInfo& info)
{
    info.nLastAccessTime = m_nNowTime;
    return ReceiveAsnBufData(m_nContinueRun, info, m_funBrelNetPacketComplete, m_revBuffer, RecvBucket());
}

int CNetworkMultiBase::SendConnectBufData(ConnectInfo& info)
{
    info.nLastAccessTime = m_nNowTime;
    for (int i = 0; i < MAX_STEP && m_nContinueRun != 0; ++i) {
        if (info.pSendData == nullptr) {
            if (info.deqSend.empty()) return BREL_STEP_OK;
            info.pSendData = info.deqSend.front().pBuf;
            info.nSendDataLen = info.deqSend.front().nSize;
            info.nSendDataUsedLen = 0;
            info.deqSend.pop_front();
        }
        int ret = SendAsnBufData(m_nContinueRun, info, m_sendBuffer, SendBucket());
        if (ret != BREL_STEP_OK) return ret;
    }
    if (m_nContinueRun == 0) return BREL_STEP_STOPPED;
    return info.deqSend.empty() ? BREL_STEP_OK : BREL_STEP_BUDGET;
}

// ---- the send queue --------------------------------------------------------------

bool CNetworkMultiBase::SendDataBufToAllClient(int epfd, bool& bSendNoToken, bool& bCloseClient, bool bRecvNoToken)
{
    int ret = SendDataBufToAllClientPrivate(epfd, bCloseClient, bRecvNoToken);
    // Taking blocks may have cleared the event; the rest must not wait for the next push.
    if (ret == BREL_STEP_BUDGET) m_sendBuffer.SetEvent();
    if (ret == BREL_STEP_NO_TOKEN) bSendNoToken = true;
    return bSendNoToken && bRecvNoToken;
}

int CNetworkMultiBase::SendDataBufToAllClientPrivate(int epfd, bool& bCloseClient, bool bRecvNoToken)
{
    for (int i = 0; i < MAX_STEP && m_nContinueRun != 0; ++i) {
        unsigned int nSize = 0;
        int nAppend = 0;
        char* pData = static_cast<char*>(m_sendBuffer.GetFrontAndPop2(nSize, nAppend, 0));
        if (pData == nullptr || nSize == 0) {
            CDataBufferSTLDeque::FreePopData(pData);
            return BREL_STEP_OK;
        }
        if (nAppend == 0 &&
            IsControlBlock(pData, nSize, SPECIAL_EVENT_STR_NEW_CLIENT, sizeof(SPECIAL_EVENT_STR_NEW_CLIENT))) {
            CDataBufferSTLDeque::FreePopData(pData);
            NewClientEventDeal(epfd, bRecvNoToken);
            continue;
        }
        if (nAppend == 0 &&
            IsControlBlock(pData, nSize, SPECIAL_EVENT_STR_CLOSE_CLIENT, sizeof(SPECIAL_EVENT_STR_CLOSE_CLIENT))) {
            CDataBufferSTLDeque::FreePopData(pData);
            bCloseClient = true;
            continue;
        }
        unsigned int nConnectId = static_cast<unsigned int>(nAppend);
        auto it = m_mapIdConnectInfo.find(nConnectId);
        if (it == m_mapIdConnectInfo.end()) {
            CDataBufferSTLDeque::FreePopData(pData);
            Log(LOG_LEVEL_WARNING, "CNetworkMultiBase::SendDataBufToAllClientPrivate(error connect id, connect id: %u)",
                nConnectId);
            continue;
        }
        ConnectInfo& info = it->second;
        if (info.bNeedTestConnected) {
            CDataBufferSTLDeque::FreePopData(pData);
            Log(LOG_LEVEL_WARNING,
                "CNetworkMultiBase::SendDataBufToAllClientPrivate(the connect is not established now, connect id: %u)",
                nConnectId);
            continue;
        }
        info.nLastAccessTime = m_nNowTime;
        if (info.pSendData != nullptr) {
            info.deqSend.push_back(BufDeq{pData, nSize});
            Log(LOG_LEVEL_LOWEST,
                "CNetworkMultiBase::SendDataBufToAllClientPrivate(push data to connect info self, size: %u, fd: %d, "
                "remote ip: %s, port: %hu, connect id: %u)",
                nSize, info.sockFd, info.strIp.c_str(), info.nPort, nConnectId);
            continue;
        }
        // An idle connection: the block goes straight from the queue to the socket.
        info.pSendData = pData;
        info.nSendDataLen = nSize;
        info.nSendDataUsedLen = 0;
        int ret = SendAsnBufData(m_nContinueRun, info, m_sendBuffer, SendBucket());
        if (ret == BREL_STEP_OK) continue;
        // A stop is no failure of the connection: the end of Run closes it, without a callback.
        if (ret == BREL_STEP_STOPPED) return BREL_STEP_STOPPED;
        if (ret == BREL_STEP_AGAIN || ret == BREL_STEP_NO_TOKEN) {
            ModifyInfoEpollFlag(epfd, info, bRecvNoToken ? MASK_OUT : MASK_IN_OUT);
            if (ret == BREL_STEP_NO_TOKEN) return BREL_STEP_NO_TOKEN;
            continue;
        }
        Log(LOG_LEVEL_WARNING,
            "CNetworkMultiBase::SendDataBufToAllClientPrivate(socket fd is error, we close it, ret: %d, fd: %d, remote "
            "ip: %s, port: %hu, connect id: %u)",
            ret, info.sockFd, info.strIp.c_str(), info.nPort, nConnectId);
        CloseConnectInner(epfd, info, true);
    }
    if (m_nContinueRun == 0) return BREL_STEP_STOPPED;
    return m_sendBuffer.Empty() ? BREL_STEP_OK : BREL_STEP_BUDGET;
}

// ---- shaping ---------------------------------------------------------------------

// Sends found no tokens, or sending is out and may come back. Masks follow
// the table of (send removed, receive removed) against data pending.
void CNetworkMultiBase::DealNoSendToken(LoopState& st)
{
    if (st.bSendNoToken) {
        m_tokenBucketSend.GenNewToken();
        if (!m_tokenBucketSend.IsEmptyToken()) {
            // Tokens came back at once. Blocks still queued behind the one that
            // ran short go out now rather than wait for the next push, so that a
            // shaped transfer never stalls.
            if (!m_sendBuffer.Empty()) m_sendBuffer.SetEvent();
            return;
        }
        if (st.bRemovedSendFlag) return;
        for (auto& entry : m_mapIdConnectInfo) {
            ConnectInfo& info = entry.second;
            if (info.bNeedTestConnected || !info.HasPendingData()) continue;
            Log(LOG_LEVEL_LOWEST, "CNetworkMultiBase::DealNoToken(send no token, we set fd flag to %s, connect id: %u)",
                st.bRemovedRecvFlag ? "0" : "EPOLLIN", info.nConnectId);
            ModifyInfoEpollFlag(st.epfd, info, st.bRemovedRecvFlag ? 0u : MASK_IN);
        }
        ModifyDataBufFdEpollFlag(st.epfd, 0, st.pSendDataBufInfo);
        Log(LOG_LEVEL_LOWEST, "CNetworkMultiBase::DealNoToken(send no token, we set data buf fd flag to 0)");
        st.bRemovedSendFlag = true;
        return;
    }
    if (!st.bRemovedSendFlag) return;
    m_tokenBucketSend.GenNewToken();
    if (m_bEnableSendNetFlow && m_tokenBucketSend.IsEmptyToken()) return;
    for (auto& entry : m_mapIdConnectInfo) {
        ConnectInfo& info = entry.second;
        if (info.bNeedTestConnected || !info.HasPendingData()) continue;
        Log(LOG_LEVEL_LOWEST, "CNetworkMultiBase::DealNoToken(send have token, we set fd flag to %s, connect id: %u)",
            st.bRemovedRecvFlag ? "EPOLLOUT" : "EPOLLIN|EPOLLOUT", info.nConnectId);
        ModifyInfoEpollFlag(st.epfd, info, st.bRemovedRecvFlag ? MASK_OUT : MASK_IN_OUT);
    }
    ModifyDataBufFdEpollFlag(st.epfd, EPOLLIN, st.pSendDataBufInfo);
    if (!m_sendBuffer.Empty()) m_sendBuffer.SetEvent();
    Log(LOG_LEVEL_LOWEST, "CNetworkMultiBase::DealNoToken(send have token, we set data buf fd flag to EPOLLIN)");
    st.bRemovedSendFlag = false;
}

void CNetworkMultiBase::DealNoRecvToken(LoopState& st)
{
    if (st.bRecvNoToken) {
        m_tokenBucketRecv.GenNewToken();
        if (!m_tokenBucketRecv.IsEmptyToken() || st.bRemovedRecvFlag) return;
        for (auto& entry : m_mapIdConnectInfo) {
            ConnectInfo& info = entry.second;
            if (info.bNeedTestConnected) continue;
            bool bPending = info.HasPendingData();
            if (bPending && !st.bRemovedSendFlag) {
                Log(LOG_LEVEL_LOWEST,
                    "CNetworkMultiBase::DealNoToken(recv no token, we set fd flag to EPOLLOUT, connect id: %u)",
                    info.nConnectId);
                ModifyInfoEpollFlag(st.epfd, info, EPOLLOUT);
            } else {
                Log(LOG_LEVEL_LOWEST,
                    "CNetworkMultiBase::DealNoToken(recv no token, we set fd flag to 0, connect id: %u)",
                    info.nConnectId);
                ModifyInfoEpollFlag(st.epfd, info, 0);
            }
        }
        st.bRemovedRecvFlag = true;
        return;
    }
    if (!st.bRemovedRecvFlag) return;
    m_tokenBucketRecv.GenNewToken();
    if (m_bEnableRecvNetFlow && m_tokenBucketRecv.IsEmptyToken()) return;
    for (auto& entry : m_mapIdConnectInfo) {
        ConnectInfo& info = entry.second;
        if (info.bNeedTestConnected) continue;
        bool bPending = info.HasPendingData();
        if (bPending && !st.bRemovedSendFlag) {
            Log(LOG_LEVEL_LOWEST,
                "CNetworkMultiBase::DealNoToken(recv have token, we set fd flag to EPOLLIN|EPOLLOUT, connect id: %u)",
                info.nConnectId);
            ModifyInfoEpollFlag(st.epfd, info, EPOLLIN | EPOLLOUT);
        } else {
            Log(LOG_LEVEL_LOWEST,
                "CNetworkMultiBase::DealNoToken(recv have token, we set fd flag to EPOLLIN, connect id: %u)",
                info.nConnectId);
            ModifyInfoEpollFlag(st.epfd, info, EPOLLIN);
        }
    }
    st.bRemovedRecvFlag = false;
}

int CNetworkMultiBase::DealNoToken(LoopState& st)
{
    DealNoSendToken(st);
    DealNoRecvToken(st);
    int nSendTimeout = -1, nRecvTimeout = -1;
    if (m_bEnableSendNetFlow && st.bRemovedSendFlag) {
        nSendTimeout = static_cast<int>(m_tokenBucketSend.DisMilliSecondNextCanGenNewToken());
        Log(LOG_LEVEL_LOWEST,
            "CNetworkMultiBase::DealNoToken(no send token, after this time will gen send token: %dms)", nSendTimeout);
    }
    if (m_bEnableRecvNetFlow && st.bRemovedRecvFlag) {
        nRecvTimeout = static_cast<int>(m_tokenBucketRecv.DisMilliSecondNextCanGenNewToken());
        Log(LOG_LEVEL_LOWEST,
            "CNetworkMultiBase::DealNoToken(no recv token, after this time will gen recv token: %dms)", nRecvTimeout);
    }
    if (nSendTimeout != -1 && nRecvTimeout != -1) return nSendTimeout < nRecvTimeout ? nSendTimeout : nRecvTimeout;
    return nSendTimeout != -1 ? nSendTimeout : nRecvTimeout;
}

// ---- closing ---------------------------------------------------------------------

void CNetworkMultiBase::AutoCloseNoAccessConnect(int epfd)
{
    time_t nNow = m_nNowTime;
    time_t nLimit = static_cast<time_t>(m_nAutoCloseConnectTime.load());
    for (auto it = m_mapIdConnectInfo.begin(); it != m_mapIdConnectInfo.end();) {
        ConnectInfo& info = it->second;
        ++it;  // the close erases the entry
        // A connect under way has its own time limit, which reports it as failed.
        if (info.bNeedTestConnected) continue;
        if (info.nLastAccessTime > nNow) info.nLastAccessTime = nNow;
        if (nNow - info.nLastAccessTime >= nLimit) CloseConnectInner(epfd, info, true);
    }
}

std::vector<unsigned int> CNetworkMultiBase::RealCloseClientVec(int epfd)
{
    std::vector<unsigned int> vecClose;
    {
        CAutoLock lock(m_lock);
        vecClose.swap(m_vecNeedCloseConnectId);
    }
    for (unsigned int nConnectId : vecClose) {
        auto it = m_mapIdConnectInfo.find(nConnectId);
        if (it != m_mapIdConnectInfo.end()) CloseConnectInner(epfd, it->second, true);
    }
    return vecClose;
}

void CNetworkMultiBase::CloseConnectInner(int epfd, ConnectInfo& info, bool bClosedOrFailed)
{
    Log(LOG_LEVEL_DEBUG, "CNetworkMultiBase::CloseConnectInner(remote ip: %s, port: %hu, fd: %d, connect id: %u)",
        info.strIp.c_str(), info.nPort, info.sockFd, info.nConnectId);
    epoll_ctl(epfd, EPOLL_CTL_DEL, info.sockFd, nullptr);
    const unsigned int nConnectId = info.nConnectId;
    ForgetConnect(nConnectId);
    // The callback runs while the descriptor is still open, so that the number
    // it is given cannot belong to a newer connection yet.
    Notify(nConnectId, bClosedOrFailed ? BREL_CONNECT_CLOSE : BREL_CONNECT_FAILED, info.sockFd);
    CloseConnectInfo(info);
    m_mapIdConnectInfo.erase(nConnectId);
}

void CNetworkMultiBase::CloseConnectInfo(ConnectInfo& info)
{
    if (info.sockFd >= 0) close(info.sockFd);
    info.sockFd = -1;
    info.FreeReceiveBuf();
    info.FreeSendData();
}

void CNetworkMultiBase::UnInit()
{
    for (auto& entry : m_mapIdConnectInfo) CloseConnectInfo(entry.second);
    m_mapIdConnectInfo.clear();
    CAutoLock lock(m_lock);
    m_vecNeedCloseConnectId.clear();
}

// ---- the epoll set ---------------------------------------------------------------

int CNetworkMultiBase::AddSpecialFdToEpoll(ConnectInfo* pInfo, int fd, int epfd)
{
    *pInfo = ConnectInfo();
    pInfo->sockFd = fd;
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.ptr = pInfo;
    return epoll_ctl(epfd, EPOLL_CTL_ADD, fd, &ev) == 0 ? 0 : errno;
}

void CNetworkMultiBase::ModifyInfoEpollFlag(int epfd, ConnectInfo& info, uint32_t nEvent)
{
    epoll_event ev{};
    ev.events = nEvent;
    ev.data.ptr = &info;
    if (epoll_ctl(epfd, EPOLL_CTL_MOD, info.sockFd, &ev) != 0) {
        Log(LOG_LEVEL_WARNING,
            "CNetworkMultiBase::ModifyInfoEpollFlag(epoll_ctl mod socket fd is error, fd: %d, errno: %d, ip: %s, port: "
            "%hu, connect id: %u)",
            info.sockFd, errno, info.strIp.c_str(), info.nPort, info.nConnectId);
    }
}

void CNetworkMultiBase::ModifyDataBufFdEpollFlag(int epfd, uint32_t nEvent, ConnectInfo* pSendDataBufInfo)
{
    epoll_event ev{};
    ev.events = nEvent;
    ev.data.ptr = pSendDataBufInfo;
    if (epoll_ctl(epfd, EPOLL_CTL_MOD, pSendDataBufInfo->sockFd, &ev) != 0) {
        Log(LOG_LEVEL_WARNING,
            "CNetworkMultiBase::ModifyDataBufFdEpollFlag(epoll_ctl mod data buf fd is error, fd: %d, errno: %d)",
            pSendDataBufInfo->sockFd, errno);
    }
}

} // namespace brel_lib

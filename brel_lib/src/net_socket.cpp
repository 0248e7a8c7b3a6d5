#include "net_socket.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "log.h"
#include "process.h"
#include "token_bucket.h"
#include "util.h"

namespace brel_lib {

namespace {

// Shared by all connections; written at start and reload by the main thread.
std::atomic<unsigned int> g_nBrelRecvPacketMaxSize{0};

bool ParseIp(const std::string& strIp, in_addr& addr)
{
    return !strIp.empty() && inet_pton(AF_INET, strIp.c_str(), &addr) == 1;
}

} // namespace

void SetBrelRecvPacketMaxSize(unsigned int nSize) { g_nBrelRecvPacketMaxSize = nSize; }
unsigned int GetBrelRecvPacketMaxSize() { return g_nBrelRecvPacketMaxSize; }

// ---- framing ---------------------------------------------------------------------

int asn_packet_complete(const void* pData, unsigned int nDataLen)
{
    const unsigned char* p = static_cast<const unsigned char*>(pData);
    if (nDataLen == 0) return 0;
    if (p[0] != 0x30) return -1;  // one byte condemns a stream
    if (nDataLen < 4) return 0;

    // 0x80 is a plain length of 128 here: the indefinite form does not exist on the link.
    uint64_t lHeadLen = 2, lContLen = p[1];
    if (p[1] > 0x80) {
        unsigned int nLenLen = p[1] & 0x7f;
        if (nLenLen > 4) return -1;  // the length field is 32 bits wide
        lHeadLen = 2 + nLenLen;
        // Length bytes that have not arrived count as 0: the high ones alone may
        // already pass the maximum, and never are bytes beyond the data read.
        lContLen = 0;
        for (unsigned int i = 0; i < nLenLen; ++i) {
            unsigned int nPos = 2 + i;
            lContLen = (lContLen << 8) | (nPos < nDataLen ? p[nPos] : 0);
        }
    }
    uint64_t lPktLen = lHeadLen + lContLen;
    if (lPktLen > MAX_LEN) {
        printf("pkt_len > MAX_LEN\n");
        fflush(stdout);
        return -1;
    }
    if (lHeadLen > nDataLen) return 0;
    if (nDataLen > lPktLen) return p[lPktLen] == 0x30 ? static_cast<int>(lPktLen) : -1;
    if (nDataLen == lPktLen) return static_cast<int>(lPktLen);
    return 0;
}

// ---- CSocket ---------------------------------------------------------------------

int CSocket::Create()
{
    Close();
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return errno;
    m_sockFd = fd;
    return 0;
}

int CSocket::Bind(const std::string& strIp, unsigned short nPort)
{
    if (m_sockFd < 0) return -1;
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(nPort);
    if (strIp.empty()) {
        addr.sin_addr.s_addr = htonl(INADDR_ANY);
    } else if (!ParseIp(strIp, addr.sin_addr)) {
        return -2;
    }
    return bind(m_sockFd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0 ? 0 : errno;
}

int CSocket::Listen()
{
    if (m_sockFd < 0) return -1;
    return listen(m_sockFd, 32) == 0 ? 0 : errno;
}

int CSocket::Accept(CSocket& client)
{
    int fd = accept4(m_sockFd, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) return errno;
    client.m_sockFd = fd;
    return 0;
}

int CSocket::Connect(const std::string& strIp, unsigned short nPort)
{
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(nPort);
    if (!ParseIp(strIp, addr.sin_addr)) return -1;
    return connect(m_sockFd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0 ? 0 : errno;
}

int CSocket::Send(unsigned int& nSendLen, const void* pBuf, unsigned int nSize)
{
    nSendLen = 0;
    while (true) {
        ssize_t n = write(m_sockFd, pBuf, nSize);
        if (n >= 0) {
            nSendLen = static_cast<unsigned int>(n);
            return 0;
        }
        if (errno != EINTR) return errno;
    }
}

int CSocket::Receive(unsigned int& nReceiveLen, void* pBuf, unsigned int nBufSize)
{
    nReceiveLen = 0;
    while (true) {
        ssize_t n = read(m_sockFd, pBuf, nBufSize);
        if (n >= 0) {
            nReceiveLen = static_cast<unsigned int>(n);
            return 0;
        }
        if (errno != EINTR) return errno;
    }
}

int CSocket::Close()
{
    int fd = m_sockFd.exchange(-1);
    if (fd >= 0 && close(fd) != 0) return errno;
    return 0;
}

int CSocket::Shutdown() { return shutdown(m_sockFd, SHUT_RDWR) == 0 ? 0 : errno; }

int CSocket::Attach(int fd)
{
    Close();
    m_sockFd = fd;
    return 0;
}

int CSocket::Detach()
{
    m_sockFd = -1;
    return 0;
}

int CSocket::SetBlockOrNon(bool bBlock)
{
    int nFlags = fcntl(m_sockFd, F_GETFL, 0);
    if (nFlags < 0) return errno;
    int nNew = bBlock ? (nFlags & ~O_NONBLOCK) : (nFlags | O_NONBLOCK);
    if (nNew != nFlags && fcntl(m_sockFd, F_SETFL, nNew) < 0) return errno;
    return 0;
}

int CSocket::SetReuseAddrOrNon(bool bReuse)
{
    int nOn = bReuse ? 1 : 0;
    return setsockopt(m_sockFd, SOL_SOCKET, SO_REUSEADDR, &nOn, sizeof(nOn)) == 0 ? 0 : errno;
}

int CSocket::SetNoDelay(bool bNoDelay)
{
    int nOn = bNoDelay ? 1 : 0;
    return setsockopt(m_sockFd, IPPROTO_TCP, TCP_NODELAY, &nOn, sizeof(nOn)) == 0 ? 0 : errno;
}

int CSocket::GetPeerName(std::string& strIp, unsigned short& nPort)
{
    if (m_sockFd < 0) return -1;
    return brel_lib::GetPeerName(strIp, nPort, m_sockFd);
}

int CSocket::GetSockName(std::string& strIp, unsigned short& nPort)
{
    if (m_sockFd < 0) return -1;
    return brel_lib::GetSockName(strIp, nPort, m_sockFd);
}

int CSocket::TestConnected(const std::atomic<unsigned int>& nContinueRun, unsigned int nTimeoutMilliSecond)
{
    const uint32_t CONNECT_EVENTS = EPOLLIN | EPOLLOUT;
    unsigned int nTries = nTimeoutMilliSecond / 50 + 1;
    int fdEp = epoll_create1(EPOLL_CLOEXEC);
    if (fdEp < 0) {
        int nErr = errno;
        Log(LOG_LEVEL_ERROR, "CSocket::TestConnected(epoll_create is error, errno: %d)", nErr);
        return nErr;
    }
    epoll_event ev{};
    ev.events = CONNECT_EVENTS;
    ev.data.fd = m_sockFd;
    if (epoll_ctl(fdEp, EPOLL_CTL_ADD, m_sockFd, &ev) != 0) {
        int nErr = errno;
        Log(LOG_LEVEL_ERROR, "CSocket::TestConnected(epoll_ctl is error, errno: %d)", nErr);
        close(fdEp);
        return nErr;
    }
    int nResult = -1;
    while (nContinueRun != 0 && nTries > 0) {
        epoll_event out{};
        int n = epoll_wait(fdEp, &out, 1, 50);
        if (n == 0 || (n < 0 && errno == EINTR)) {
            --nTries;
            continue;
        }
        if (n < 0) {
            nResult = errno;
            Log(LOG_LEVEL_ERROR, "CSocket::TestConnected(epoll_wait is error, errno: %d)", nResult);
            break;
        }
        if ((out.events & ~CONNECT_EVENTS) == 0) {
            nResult = 0;
        } else {
            int nErr = 0;
            socklen_t nLen = sizeof(nErr);
            getsockopt(m_sockFd, SOL_SOCKET, SO_ERROR, &nErr, &nLen);
            // A failure that reports no error is still a failure.
            nResult = nErr != 0 ? nErr : -1;
        }
        break;
    }
    close(fdEp);
    return nResult;
}

int CSocket::ConnectToServerPrivate(const std::string& strIp, unsigned short nPort, bool bBlockOrNon,
                                    const std::atomic<unsigned int>& nContinueRun, bool bSync,
                                    unsigned int nTimeoutMilliSecond)
{
    CSocket local;
    int ret = local.Create();
    if (ret != 0) {
        Log(LOG_LEVEL_LOWEST, "ConnectToServerPrivate 1 ret: %d", ret);
        return ret;
    }
    ret = local.SetBlockOrNon(bBlockOrNon);
    if (ret != 0) {
        Log(LOG_LEVEL_LOWEST, "ConnectToServerPrivate 2 ret: %d", ret);
        return ret;
    }
    ret = local.Connect(strIp, nPort);
    if (ret != 0 && ret != EINPROGRESS) {
        Log(LOG_LEVEL_LOWEST, "ConnectToServerPrivate 3 ret: %d", ret);
        return ret;
    }
    if (bSync && !bBlockOrNon) {
        ret = local.TestConnected(nContinueRun, nTimeoutMilliSecond);
        if (ret != 0) {
            Log(LOG_LEVEL_LOWEST, "ConnectToServerPrivate 4 ret: %d", ret);
            return ret;
        }
    }
    Attach(local.GetSocket());
    local.Detach();
    return 0;
}

int CSocket::ConnectToServerBlock(const std::string& strIp, unsigned short nPort, unsigned int nTimeoutMilliSecond)
{
    std::atomic<unsigned int> nRun{1};
    return ConnectToServerPrivate(strIp, nPort, true, nRun, true, nTimeoutMilliSecond);
}

int CSocket::ConnectToServerNonBlock(const std::string& strIp, unsigned short nPort,
                                     const std::atomic<unsigned int>& nContinueRun, unsigned int nTimeoutMilliSecond)
{
    return ConnectToServerPrivate(strIp, nPort, false, nContinueRun, true, nTimeoutMilliSecond);
}

int CSocket::ConnectToServerAsync(const std::string& strIp, unsigned short nPort)
{
    std::atomic<unsigned int> nRun{1};
    return ConnectToServerPrivate(strIp, nPort, false, nRun, false, 0);
}

int CSocket::CreateServer(const std::string& strIp, unsigned short nPort, bool bBlockOrNon, bool bSetReuseAddr)
{
    CSocket local;
    int ret = local.Create();
    if (ret == 0) ret = local.SetBlockOrNon(bBlockOrNon);
    if (ret == 0) ret = local.SetReuseAddrOrNon(bSetReuseAddr);
    if (ret == 0 && !strIp.empty()) ret = local.Bind(strIp, nPort);
    if (ret == 0) ret = local.Listen();
    if (ret != 0) return ret;
    Attach(local.GetSocket());
    local.Detach();
    return 0;
}

// ---- step functions --------------------------------------------------------------

int SendAsnBufData(const std::atomic<unsigned int>& nContinue, int fd, unsigned int nConnectId,
                   const std::string& strIp, unsigned short nPort, char*& pSendData, unsigned int& nSendDataLen,
                   unsigned int& nSendDataUsedLen, CDataBufferSTLDeque& sendBuffer, CNetflowTokenBucket* pTokenBucket)
{
    if (pSendData == nullptr) return BREL_STEP_OK;
    unsigned int nSize = nSendDataLen - nSendDataUsedLen;
    unsigned int nTokenSize = nSize;
    if (pTokenBucket != nullptr) {
        nTokenSize = pTokenBucket->GetToken(nSize);
        if (nTokenSize == 0) {
            pTokenBucket->GenNewToken();
            nTokenSize = pTokenBucket->GetToken(nSize);
        }
        if (nTokenSize == 0) {
            Log(LOG_LEVEL_DEBUG, "SendAsnBufData(send data no valid token, ip: %s, port: %hu, connect id: %u)",
                strIp.c_str(), nPort, nConnectId);
            return BREL_STEP_NO_TOKEN;
        }
    }
    while (nContinue != 0) {
        ssize_t r = write(fd, pSendData + nSendDataUsedLen, nTokenSize);
        if (r > 0 && nTokenSize <= static_cast<unsigned int>(r) && nTokenSize >= nSize) {
            Log(LOG_LEVEL_LOWEST,
                "SendAsnBufData(send is ok, real send size equal to need send size, send size: %u, packet size: %u, "
                "ip: %s, port: %hu, connect id: %u)",
                nSize, nSendDataLen, strIp.c_str(), nPort, nConnectId);
            sendBuffer.FreePopData(pSendData);
            pSendData = nullptr;
            nSendDataLen = nSendDataUsedLen = 0;
            break;
        }
        if (r > 0) {
            Log(LOG_LEVEL_LOWEST,
                "SendAsnBufData(need send size: %u, token size: %u, real send size: %d, ip: %s, port: %hu, connect "
                "id: %u)",
                nSize, nTokenSize, static_cast<int>(r), strIp.c_str(), nPort, nConnectId);
            unsigned int nSent = static_cast<unsigned int>(r);
            if (pTokenBucket != nullptr && nSent < nTokenSize) pTokenBucket->ReturnSomeToken(nTokenSize - nSent);
            nSendDataUsedLen += nSent;
            // The tokens set the limit, or the kernel did.
            return (nSent == nTokenSize && nTokenSize < nSize) ? BREL_STEP_NO_TOKEN : BREL_STEP_AGAIN;
        }
        if (r == 0 || errno == EINTR) continue;
        if (errno == EAGAIN || errno == EWOULDBLOCK) {
            if (pTokenBucket != nullptr) pTokenBucket->ReturnSomeToken(nTokenSize);
            Log(LOG_LEVEL_LOWEST, "SendAsnBufData(again, need send size: %u, ip: %s, port: %hu, connect id: %u)", nSize,
                strIp.c_str(), nPort, nConnectId);
            return BREL_STEP_AGAIN;
        }
        int nErr = errno;
        Log(LOG_LEVEL_WARNING,
            "SendAsnBufData(the connect occur some error, need send size: %u, errno: %d, ip: %s, port: %hu, fd: %d, "
            "connect id: %u)",
            nSize, nErr, strIp.c_str(), nPort, fd, nConnectId);
        return nErr;
    }
    return nContinue == 0 ? BREL_STEP_STOPPED : BREL_STEP_OK;
}

namespace {

// Takes every whole packet off the front of the receive buffer.
int DeliverPackets(int nAppend, const std::string& strIp, unsigned short nPort, char* pReceiveBuf,
                   unsigned int nReceiveBufLen, unsigned int& nReceiveBufUnusedLen,
                   unsigned long long& lNowPacketBeginRecvTime, BrelNetPacketCompleteFun pFunComplete,
                   CDataBufferSTLDeque& revBuffer, int& nCount)
{
    while (true) {
        unsigned int nHeld = nReceiveBufLen - nReceiveBufUnusedLen;
        int nPacketSize = pFunComplete != nullptr ? pFunComplete(pReceiveBuf, nHeld) : static_cast<int>(nHeld);
        if (nPacketSize < 0) {
            Log(LOG_LEVEL_WARNING, "ReceiveAsnBufData(packet complete check failed, ip: %s, port: %hu, connect id: %u)",
                strIp.c_str(), nPort, static_cast<unsigned int>(nAppend));
            return BREL_STEP_BAD_STREAM;
        }
        if (nPacketSize == 0) {
            unsigned int nMax = g_nBrelRecvPacketMaxSize;
            if (nMax != 0 && nHeld > nMax) {
                Log(LOG_LEVEL_WARNING,
                    "ReceiveAsnBufData(packet size is over than the max size, now data size: %u, the max size: %u, "
                    "ip: %s, port: %hu, connect id: %u)",
                    nHeld, nMax, strIp.c_str(), nPort, static_cast<unsigned int>(nAppend));
                return BREL_STEP_BAD_STREAM;
            }
            return BREL_STEP_OK;
        }
        --nCount;
        unsigned long long lNow = GetNowMilliSecond();
        if (lNow <= lNowPacketBeginRecvTime) lNowPacketBeginRecvTime = lNow - 1;  // at least 1 ms
        unsigned long long lElapsed = lNow - lNowPacketBeginRecvTime;
        unsigned int nSpeed = static_cast<unsigned int>(static_cast<unsigned long long>(nPacketSize) * 1000 / lElapsed);
        Log(LOG_LEVEL_LOWEST,
            "ReceiveAsnBufData(receive complete packet, package size: %u, time: %d, size: %d, speed: %u, ip: %s, port: "
            "%hu, connect id: %u)",
            static_cast<unsigned int>(nPacketSize), static_cast<int>(lElapsed), nPacketSize, nSpeed, strIp.c_str(),
            nPort, static_cast<unsigned int>(nAppend));
        lNowPacketBeginRecvTime = lNow;
        revBuffer.Push3(pReceiveBuf, static_cast<unsigned int>(nPacketSize), nSpeed, nAppend, BREL_DATA_NORMAL_PRI);
        nReceiveBufUnusedLen += static_cast<unsigned int>(nPacketSize);
        unsigned int nRest = nReceiveBufLen - nReceiveBufUnusedLen;
        if (nRest == 0) return BREL_STEP_OK;
        Log(LOG_LEVEL_LOWEST,
            "ReceiveAsnBufData(receive other packet in this step, now data size: %u, ip: %s, port: %hu, connect id: "
            "%u)",
            nRest, strIp.c_str(), nPort, static_cast<unsigned int>(nAppend));
        memmove(pReceiveBuf, pReceiveBuf + nPacketSize, nRest);
    }
}

} // namespace

int ReceiveAsnBufData(const std::atomic<unsigned int>& nContinue, int fd, int nAppend, const std::string& strIp,
                      unsigned short nPort, char*& pReceiveBuf, unsigned int& nReceiveBufLen,
                      unsigned int& nReceiveBufUnusedLen, unsigned long long& lNowPacketBeginRecvTime,
                      BrelNetPacketCompleteFun pFunBrelNetPacketComplete, CDataBufferSTLDeque& revBuffer,
                      CNetflowTokenBucket* pTokenBucket)
{
    const unsigned int nConnectId = static_cast<unsigned int>(nAppend);
    if (nReceiveBufLen == nReceiveBufUnusedLen) lNowPacketBeginRecvTime = GetNowMilliSecond();
    int nCount = 50;  // the budget of packets of this step
    while (nContinue != 0 && nCount >= 0) {
        if (nReceiveBufUnusedLen == 0) {
            unsigned int nNewLen = nReceiveBufLen * 2;
            char* pNew = static_cast<char*>(realloc(pReceiveBuf, nNewLen));
            if (pNew == nullptr) {
                Log(LOG_LEVEL_ERROR, "ReceiveAsnBufData(realloc is failed, new size: %u, ip: %s, port: %hu, connect id: %u)",
                    nNewLen, strIp.c_str(), nPort, nConnectId);
                ExitProcess(1);
            }
            Log(LOG_LEVEL_INFO, "ReceiveAsnBufData(realloc, new size: %u, ip: %s, port: %hu, connect id: %u)", nNewLen,
                strIp.c_str(), nPort, nConnectId);
            pReceiveBuf = pNew;
            nReceiveBufUnusedLen = nNewLen - nReceiveBufLen;
            nReceiveBufLen = nNewLen;
        }
        unsigned int nTokenSize = nReceiveBufUnusedLen;
        if (pTokenBucket != nullptr) {
            nTokenSize = pTokenBucket->GetToken(nReceiveBufUnusedLen);
            if (nTokenSize == 0) {
                pTokenBucket->GenNewToken();
                nTokenSize = pTokenBucket->GetToken(nReceiveBufUnusedLen);
            }
            if (nTokenSize == 0) {
                Log(LOG_LEVEL_DEBUG, "ReceiveAsnBufData(recv data no valid token, ip: %s, port: %hu, connect id: %u)",
                    strIp.c_str(), nPort, nConnectId);
                return BREL_STEP_NO_TOKEN;
            }
        }
        char* pFree = pReceiveBuf + (nReceiveBufLen - nReceiveBufUnusedLen);
        ssize_t r = read(fd, pFree, nTokenSize);
        if (r == 0) {
            Log(LOG_LEVEL_INFO,
                "ReceiveAsnBufData(the connect is closed by the remote, ip: %s, port: %hu, fd: %d, connect id: %u)",
                strIp.c_str(), nPort, fd, nConnectId);
            return BREL_STEP_PEER_CLOSED;
        }
        if (r < 0) {
            if (errno == EINTR) continue;
            if (errno == EAGAIN || errno == EWOULDBLOCK) {
                if (pTokenBucket != nullptr) pTokenBucket->ReturnSomeToken(nTokenSize);
                return BREL_STEP_OK;
            }
            int nErr = errno;
            Log(LOG_LEVEL_WARNING,
                "ReceiveAsnBufData(the connect occur some error, errno: %d, ip: %s, port: %hu, fd: %d, connect id: %u)",
                nErr, strIp.c_str(), nPort, fd, nConnectId);
            return nErr;
        }
        unsigned int nRead = static_cast<unsigned int>(r);
        unsigned int nUnusedBefore = nReceiveBufUnusedLen;
        nReceiveBufUnusedLen -= nRead;
        int ret = DeliverPackets(nAppend, strIp, nPort, pReceiveBuf, nReceiveBufLen, nReceiveBufUnusedLen,
                                 lNowPacketBeginRecvTime, pFunBrelNetPacketComplete, revBuffer, nCount);
        if (ret != BREL_STEP_OK) return ret;
        if (nRead == nTokenSize && nTokenSize < nUnusedBefore) {
            Log(LOG_LEVEL_LOWEST,
                "ReceiveAsnBufData(no more token, recv buf unused size: %u, token size: %u, real recv size: %d, connect "
                "id: %u)",
                nReceiveBufUnusedLen, nTokenSize, static_cast<int>(r), nConnectId);
            return BREL_STEP_NO_TOKEN;
        }
        if (nRead < nTokenSize) {
            Log(LOG_LEVEL_LOWEST,
                "ReceiveAsnBufData(need retry read, recv buf unused size: %u, token size: %u, real recv size: %d, "
                "connect id: %u)",
                nReceiveBufUnusedLen, nTokenSize, static_cast<int>(r), nConnectId);
            if (pTokenBucket != nullptr) pTokenBucket->ReturnSomeToken(nTokenSize - nRead);
            return BREL_STEP_OK;
        }
    }
    return nCount < 0 ? BREL_STEP_BUDGET : BREL_STEP_STOPPED;
}

} // namespace brel_lib

#include "network/socket.h"

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
#include "util.h"

namespace brel_lib {

namespace {

bool ParseIp(const std::string& strIp, in_addr& addr)
{
    return !strIp.empty() && inet_pton(AF_INET, strIp.c_str(), &addr) == 1;
}

} // namespace

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

} // namespace brel_lib

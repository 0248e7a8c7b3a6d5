#include "network/packet_listener.h"

#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>

#include "network/stream_framing.h"

namespace brel_lib {

namespace {

bool WaitReadable(int fd, int nTimeoutMs)
{
    pollfd p{fd, POLLIN, 0};
    return fd >= 0 && poll(&p, 1, nTimeoutMs) == 1;
}

long long SteadyMs()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

} // namespace

void CPacketConnection::Attach(int fd)
{
    Close();
    m_sockFd = fd;
}

void CPacketConnection::Close()
{
    if (m_sockFd >= 0) close(m_sockFd);
    m_sockFd = -1;
    m_vecPending.clear();
}

std::string CPacketConnection::PeerAddress() const
{
    sockaddr_in addr{};
    socklen_t nLen = sizeof(addr);
    char szIp[INET_ADDRSTRLEN];
    if (getpeername(m_sockFd, reinterpret_cast<sockaddr*>(&addr), &nLen) != 0 ||
        inet_ntop(AF_INET, &addr.sin_addr, szIp, sizeof(szIp)) == nullptr) {
        return "";
    }
    return std::string(szIp) + ":" + std::to_string(ntohs(addr.sin_port));
}

int CPacketConnection::ReadSome(int nTimeoutMs)
{
    if (!WaitReadable(m_sockFd, nTimeoutMs)) return -1;
    unsigned char buf[65536];
    ssize_t n = read(m_sockFd, buf, sizeof(buf));
    if (n == 0 || (n < 0 && errno == ECONNRESET)) return 0;
    if (n < 0) return -1;
    m_vecPending.insert(m_vecPending.end(), buf, buf + n);
    return static_cast<int>(n);
}

int CPacketConnection::NextPacket(std::vector<unsigned char>& out)
{
    int nPacket = asn_packet_complete(m_vecPending.data(), static_cast<unsigned int>(m_vecPending.size()));
    if (nPacket <= 0) return nPacket < 0 ? -1 : 0;
    out.assign(m_vecPending.begin(), m_vecPending.begin() + nPacket);
    m_vecPending.erase(m_vecPending.begin(), m_vecPending.begin() + nPacket);
    return 1;
}

int CPacketConnection::ReadPacket(std::vector<unsigned char>& out, int nTimeoutMs)
{
    long long lDeadline = SteadyMs() + nTimeoutMs;
    while (true) {
        int nRet = NextPacket(out);
        if (nRet != 0) return nRet;
        long long lLeft = lDeadline - SteadyMs();
        if (lLeft <= 0 || ReadSome(static_cast<int>(lLeft)) <= 0) return 0;
    }
}

int CPacketConnection::WriteAll(const void* pData, size_t nSize)
{
    const char* p = static_cast<const char*>(pData);
    size_t nDone = 0;
    while (nDone < nSize) {
        ssize_t n = send(m_sockFd, p + nDone, nSize - nDone, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return n < 0 ? errno : EPIPE;
        nDone += static_cast<size_t>(n);
    }
    return 0;
}

int CPacketListener::Listen(const std::string& strIp, unsigned short nPort, int nBacklog)
{
    Close();
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(nPort);
    if (inet_pton(AF_INET, strIp.c_str(), &addr.sin_addr) != 1) return -1;
    m_sockFd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (m_sockFd < 0) return errno;
    int nOn = 1;
    setsockopt(m_sockFd, SOL_SOCKET, SO_REUSEADDR, &nOn, sizeof(nOn));
    socklen_t nLen = sizeof(addr);
    if (bind(m_sockFd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 || listen(m_sockFd, nBacklog) != 0 ||
        getsockname(m_sockFd, reinterpret_cast<sockaddr*>(&addr), &nLen) != 0) {
        int nErr = errno;
        Close();
        return nErr;
    }
    m_nPort = ntohs(addr.sin_port);
    return 0;
}

int CPacketListener::Accept(CPacketConnection& conn, int nTimeoutMs)
{
    if (!WaitReadable(m_sockFd, nTimeoutMs)) return ETIMEDOUT;
    int fd = accept4(m_sockFd, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) return errno;
    conn.Attach(fd);
    return 0;
}

void CPacketListener::Close()
{
    if (m_sockFd >= 0) close(m_sockFd);
    m_sockFd = -1;
    m_nPort = 0;
}

} // namespace brel_lib

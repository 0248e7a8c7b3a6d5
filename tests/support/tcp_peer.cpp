#include "tcp_peer.h"

#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <stdexcept>

#include "network/stream_framing.h"

namespace agent_test {

namespace {

int64_t NowMs()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

} // namespace

TcpPeer::TcpPeer(unsigned short nPort, int nBacklog)
{
    m_fdListen = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int nOn = 1;
    setsockopt(m_fdListen, SOL_SOCKET, SO_REUSEADDR, &nOn, sizeof(nOn));
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(nPort);
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (bind(m_fdListen, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 || listen(m_fdListen, nBacklog) != 0) {
        throw std::runtime_error("TcpPeer: bind or listen failed");
    }
    socklen_t nLen = sizeof(addr);
    getsockname(m_fdListen, reinterpret_cast<sockaddr*>(&addr), &nLen);
    m_nPort = ntohs(addr.sin_port);
}

TcpPeer::~TcpPeer()
{
    CloseConnection();
    CloseListener();
}

bool TcpPeer::WaitReadable(int fd, int nTimeoutMs)
{
    pollfd p{fd, POLLIN, 0};
    return poll(&p, 1, nTimeoutMs) == 1;
}

bool TcpPeer::Accept(int nTimeoutMs)
{
    CloseConnection();
    if (m_fdListen < 0 || !WaitReadable(m_fdListen, nTimeoutMs)) return false;
    m_fdConn = accept4(m_fdListen, nullptr, nullptr, SOCK_CLOEXEC);
    m_vecPending.clear();
    return m_fdConn >= 0;
}

void TcpPeer::CloseConnection()
{
    if (m_fdConn >= 0) close(m_fdConn);
    m_fdConn = -1;
    m_vecPending.clear();
}

void TcpPeer::CloseListener()
{
    if (m_fdListen >= 0) close(m_fdListen);
    m_fdListen = -1;
}

bool TcpPeer::Write(const std::vector<unsigned char>& bytes)
{
    size_t nDone = 0;
    while (nDone < bytes.size()) {
        ssize_t n = send(m_fdConn, bytes.data() + nDone, bytes.size() - nDone, MSG_NOSIGNAL);
        if (n <= 0) return false;
        nDone += static_cast<size_t>(n);
    }
    return true;
}

bool TcpPeer::Write(const std::string& bytes) { return Write(std::vector<unsigned char>(bytes.begin(), bytes.end())); }

std::vector<unsigned char> TcpPeer::ReadPacket(int nTimeoutMs)
{
    int64_t lDeadline = NowMs() + nTimeoutMs;
    while (true) {
        int nPacket = brel_lib::asn_packet_complete(m_vecPending.data(), static_cast<unsigned int>(m_vecPending.size()));
        if (nPacket > 0) {
            std::vector<unsigned char> packet(m_vecPending.begin(), m_vecPending.begin() + nPacket);
            m_vecPending.erase(m_vecPending.begin(), m_vecPending.begin() + nPacket);
            return packet;
        }
        if (nPacket < 0) return {};
        int64_t lLeft = lDeadline - NowMs();
        if (m_fdConn < 0 || lLeft <= 0 || !WaitReadable(m_fdConn, static_cast<int>(lLeft))) return {};
        unsigned char buf[65536];
        ssize_t n = read(m_fdConn, buf, sizeof(buf));
        if (n <= 0) return {};
        m_vecPending.insert(m_vecPending.end(), buf, buf + n);
    }
}

bool TcpPeer::ReadExactly(std::vector<unsigned char>& out, size_t n, int nTimeoutMs)
{
    int64_t lDeadline = NowMs() + nTimeoutMs;
    out.assign(m_vecPending.begin(), m_vecPending.end());
    m_vecPending.clear();
    while (out.size() < n) {
        int64_t lLeft = lDeadline - NowMs();
        if (lLeft <= 0 || !WaitReadable(m_fdConn, static_cast<int>(lLeft))) return false;
        unsigned char buf[65536];
        ssize_t r = read(m_fdConn, buf, std::min(sizeof(buf), n - out.size()));
        if (r <= 0) return false;
        out.insert(out.end(), buf, buf + r);
    }
    return true;
}

bool TcpPeer::WaitClosedByPeer(int nTimeoutMs)
{
    int64_t lDeadline = NowMs() + nTimeoutMs;
    while (true) {
        int64_t lLeft = lDeadline - NowMs();
        if (m_fdConn < 0 || lLeft <= 0 || !WaitReadable(m_fdConn, static_cast<int>(lLeft))) return false;
        unsigned char buf[65536];
        ssize_t n = read(m_fdConn, buf, sizeof(buf));
        if (n == 0 || (n < 0 && errno == ECONNRESET)) return true;
        if (n < 0) return false;
    }
}

std::vector<unsigned char> FramedPacket(unsigned int nContentLen, unsigned char cFill)
{
    std::vector<unsigned char> v{0x30};
    if (nContentLen < 128) {
        v.push_back(static_cast<unsigned char>(nContentLen));
    } else {
        std::vector<unsigned char> len;
        for (unsigned int n = nContentLen; n != 0; n >>= 8) len.insert(len.begin(), static_cast<unsigned char>(n));
        v.push_back(static_cast<unsigned char>(0x80 | len.size()));
        v.insert(v.end(), len.begin(), len.end());
    }
    for (unsigned int i = 0; i < nContentLen; ++i) v.push_back(static_cast<unsigned char>(cFill + i * 13));
    return v;
}

unsigned short RefusedPort()
{
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr));
    socklen_t nLen = sizeof(addr);
    getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &nLen);
    close(fd);
    return ntohs(addr.sin_port);
}

} // namespace agent_test

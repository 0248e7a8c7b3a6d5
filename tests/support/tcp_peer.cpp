#include "tcp_peer.h"

#include <stdexcept>

#include "install_tree.h"

namespace agent_test {

TcpPeer::TcpPeer(unsigned short nPort, int nBacklog)
{
    if (m_listener.Listen("127.0.0.1", nPort, nBacklog) != 0) throw std::runtime_error("TcpPeer: bind or listen failed");
}

bool TcpPeer::Accept(int nTimeoutMs)
{
    m_conn.Close();
    return m_listener.Accept(m_conn, nTimeoutMs) == 0;
}

std::vector<unsigned char> TcpPeer::ReadPacket(int nTimeoutMs)
{
    std::vector<unsigned char> packet;
    return m_conn.ReadPacket(packet, nTimeoutMs) == 1 ? packet : std::vector<unsigned char>();
}

bool TcpPeer::ReadExactly(std::vector<unsigned char>& out, size_t n, int nTimeoutMs)
{
    int64_t lDeadline = SteadyMs() + nTimeoutMs;
    while (m_conn.Pending().size() < n) {
        int64_t lLeft = lDeadline - SteadyMs();
        if (lLeft <= 0 || m_conn.ReadSome(static_cast<int>(lLeft)) <= 0) return false;
    }
    std::vector<unsigned char>& pending = m_conn.Pending();
    out.assign(pending.begin(), pending.begin() + static_cast<long>(n));
    pending.erase(pending.begin(), pending.begin() + static_cast<long>(n));
    return true;
}

bool TcpPeer::WaitClosedByPeer(int nTimeoutMs)
{
    int64_t lDeadline = SteadyMs() + nTimeoutMs;
    while (true) {
        int64_t lLeft = lDeadline - SteadyMs();
        if (lLeft <= 0) return false;
        int n = m_conn.ReadSome(static_cast<int>(lLeft));
        if (n <= 0) return n == 0;
        m_conn.Pending().clear();
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
    // A free port taken and given back at once: nothing listens there.
    brel_lib::CPacketListener probe;
    probe.Listen("127.0.0.1", 0, 1);
    return probe.Port();
}

} // namespace agent_test

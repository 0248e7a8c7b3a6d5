// A plain blocking TCP peer on 127.0.0.1 for tests: listens, accepts, reads
// whole packets by the framing, writes raw bytes. Every wait is bounded.
#pragma once

#include <string>
#include <vector>

namespace agent_test {

class TcpPeer {
public:
    // Listens on 127.0.0.1 with a free port (or the given one).
    explicit TcpPeer(unsigned short nPort = 0, int nBacklog = 16);
    ~TcpPeer();
    TcpPeer(const TcpPeer&) = delete;
    TcpPeer& operator=(const TcpPeer&) = delete;

    unsigned short Port() const { return m_nPort; }
    // Accepts one connection, closing any earlier one; false on timeout.
    bool Accept(int nTimeoutMs);
    bool Connected() const { return m_fdConn >= 0; }
    void CloseConnection();
    void CloseListener();

    bool Write(const std::vector<unsigned char>& bytes);
    bool Write(const std::string& bytes);
    // Reads one packet by the stream framing; empty on timeout or close.
    std::vector<unsigned char> ReadPacket(int nTimeoutMs);
    // Reads exactly n bytes; false on timeout or close.
    bool ReadExactly(std::vector<unsigned char>& out, size_t n, int nTimeoutMs);
    // True when the peer closed the connection (read returns 0) within the time.
    bool WaitClosedByPeer(int nTimeoutMs);

private:
    bool WaitReadable(int fd, int nTimeoutMs);

    int m_fdListen = -1;
    int m_fdConn = -1;
    unsigned short m_nPort = 0;
    std::vector<unsigned char> m_vecPending;  // bytes read beyond the last packet
};

// A packet as the stream framing sees it: tag 30, the shortest length form,
// and content bytes that start at cFill and vary along the packet.
std::vector<unsigned char> FramedPacket(unsigned int nContentLen, unsigned char cFill);

// A port on 127.0.0.1 where nothing listens, so connects are refused.
unsigned short RefusedPort();

} // namespace agent_test

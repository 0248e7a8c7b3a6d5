// A plain blocking TCP peer on 127.0.0.1 for tests: listens, accepts, reads
// whole packets by the framing, writes raw bytes. Every wait is bounded.
#pragma once

#include <string>
#include <vector>

#include "network/packet_listener.h"

namespace agent_test {

class TcpPeer {
public:
    // Listens on 127.0.0.1 with a free port (or the given one).
    explicit TcpPeer(unsigned short nPort = 0, int nBacklog = 16);

    unsigned short Port() const { return m_listener.Port(); }
    // Accepts one connection, closing any earlier one; false on timeout.
    bool Accept(int nTimeoutMs);
    bool Connected() const { return m_conn.IsOpen(); }
    void CloseConnection() { m_conn.Close(); }
    void CloseListener() { m_listener.Close(); }

    bool Write(const std::vector<unsigned char>& bytes) { return m_conn.WriteAll(bytes.data(), bytes.size()) == 0; }
    bool Write(const std::string& bytes) { return m_conn.WriteAll(bytes.data(), bytes.size()) == 0; }
    // Reads one packet by the stream framing; empty on timeout or close.
    std::vector<unsigned char> ReadPacket(int nTimeoutMs);
    // Reads exactly n bytes; false on timeout or close.
    bool ReadExactly(std::vector<unsigned char>& out, size_t n, int nTimeoutMs);
    // True when the peer closed the connection (read returns 0) within the time.
    bool WaitClosedByPeer(int nTimeoutMs);

private:
    brel_lib::CPacketListener m_listener;
    brel_lib::CPacketConnection m_conn;
};

// A packet as the stream framing sees it: tag 30, the shortest length form,
// and content bytes that start at cFill and vary along the packet.
std::vector<unsigned char> FramedPacket(unsigned int nContentLen, unsigned char cFill);

// A port on 127.0.0.1 where nothing listens, so connects are refused.
unsigned short RefusedPort();

} // namespace agent_test

// A listening TCP socket and the connections it accepts, cut into packets by
// the stream framing: for the tools and test peers that play the server's
// part. Blocking descriptors, every wait bounded by the caller's time.
#pragma once

#include <string>
#include <vector>

namespace brel_lib {

// One accepted connection: its descriptor and the bytes read beyond the last
// whole packet. Owned by one thread, or guarded by its owner's lock.
class CPacketConnection {
public:
    CPacketConnection() = default;
    ~CPacketConnection() { Close(); }
    CPacketConnection(const CPacketConnection&) = delete;
    CPacketConnection& operator=(const CPacketConnection&) = delete;

    int GetSocket() const { return m_sockFd; }
    bool IsOpen() const { return m_sockFd >= 0; }
    // Takes over the descriptor, closing the one held before.
    void Attach(int fd);
    // Closes the descriptor and drops the bytes not yet taken.
    void Close();
    // The peer as "ip:port"; empty when unknown.
    std::string PeerAddress() const;

    // Waits up to nTimeoutMs for bytes and appends what one read brings: the
    // count, 0 when the peer closed or reset, -1 when nothing came or the read failed.
    int ReadSome(int nTimeoutMs);
    // The next whole packet from the bytes read so far: 1 with the packet in
    // out, 0 when none is whole yet, -1 when the bytes break the framing.
    int NextPacket(std::vector<unsigned char>& out);
    // NextPacket, reading as needed for up to nTimeoutMs: 1, 0 out of time or closed, -1.
    int ReadPacket(std::vector<unsigned char>& out, int nTimeoutMs);
    // The bytes read but not yet taken as packets.
    std::vector<unsigned char>& Pending() { return m_vecPending; }
    // Writes all the bytes: 0, or errno of the failed write.
    int WriteAll(const void* pData, size_t nSize);

private:
    int m_sockFd = -1;
    std::vector<unsigned char> m_vecPending;
};

class CPacketListener {
public:
    CPacketListener() = default;
    ~CPacketListener() { Close(); }
    CPacketListener(const CPacketListener&) = delete;
    CPacketListener& operator=(const CPacketListener&) = delete;

    // Listens on the IPv4 address and port (0 for a free one): 0, -1 for an
    // address that does not parse, or errno.
    int Listen(const std::string& strIp, unsigned short nPort, int nBacklog = 16);
    unsigned short Port() const { return m_nPort; }
    int GetSocket() const { return m_sockFd; }
    // Waits up to nTimeoutMs for a connection and hands it to conn (closing
    // what conn held): 0, ETIMEDOUT, or errno of the accept.
    int Accept(CPacketConnection& conn, int nTimeoutMs);
    void Close();

private:
    int m_sockFd = -1;
    unsigned short m_nPort = 0;
};

} // namespace brel_lib

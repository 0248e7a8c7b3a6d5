// A destination agent as a file source sees it: connects to the source on
// 127.0.0.1, sends gets and heartbeats, and reads the answers by the stream
// framing. Every wait is bounded.
#pragma once

#include <stdint.h>

#include <string>
#include <vector>

#include "test_work_server.h"
#include "zik_pkt.h"

namespace agent_test {

// One answer of the source, with the words joined.
struct FileBlock {
    int ret = -1;
    int nAppend = 0;
    unsigned int nDstWorkId = 0;
    unsigned int nSrcWorkId = 0;
    unsigned int nAccessBit = 0;
    std::string strContent;
    std::string strMd5;
    unsigned long long lPos = 0;
    unsigned long long lTotal = 0;
};

class FilePeer {
public:
    bool Connect(unsigned short nPort, int nTimeoutMs);
    int Fd() const { return m_conn.GetSocket(); }
    void Close() { m_conn.Close(); }

    // Bounded even when the source reads nothing.
    bool WriteRaw(const std::vector<unsigned char>& bytes);
    template <class T>
    bool Send(T& message, int nAppend)
    {
        return WriteRaw(EncodeMessage(message, nAppend));
    }
    // A get; the pre-get mark rides in the top bit of the high word.
    bool Get(unsigned int nSrcWorkId, unsigned int nDstWorkId, const std::string& strPath, unsigned long long lPos,
             int nGetSize, int nGetNum, bool bPreGet = false, int nAppend = 9);
    bool Heartbeat(unsigned int nSrcWorkId, unsigned int nDstWorkId);

    // The next packet by the framing; empty on timeout, close or a bad stream.
    std::vector<unsigned char> ReadPacket(int nTimeoutMs);
    // The next answer; false on timeout or close.
    bool Next(FileBlock& out, int nTimeoutMs);
    // True when the source closed the connection within the time; what
    // arrives before is read and dropped.
    bool WaitClosedBySource(int nTimeoutMs);

private:
    brel_lib::CPacketConnection m_conn;
};

// The source's answer to a get, sent on the connection of a test work server
// that plays the source: one block at the position, with the digest of its
// content unless another is given.
bool AnswerGet(TestWorkServer& source, unsigned int nDstWorkId, unsigned long long lPos, const std::string& strContent,
               unsigned long long lTotal, const std::string* pMd5 = nullptr, int ret = 0);

// A listening socket on 127.0.0.1 that keeps a port taken; Own() tells
// whether this object holds it (otherwise someone else does).
class PortHolder {
public:
    explicit PortHolder(unsigned short nPort);
    ~PortHolder();
    PortHolder(const PortHolder&) = delete;
    PortHolder& operator=(const PortHolder&) = delete;
    bool Own() const { return m_bOwn; }

private:
    int m_fd = -1;
    bool m_bOwn = false;
};

// Two neighbouring free ports on 127.0.0.1 at random, the higher one; 0 if none found.
unsigned short FreePortPair();

// Resident memory of a process in KiB; -1 if unknown.
long ResidentKiB(int pid);

} // namespace agent_test

// Sockets, the framing of packets in a TCP byte stream, and the two step
// functions every network loop calls to push one block out and pull bytes in.
#pragma once

#include <atomic>
#include <string>

#include "data_buffer.h"

namespace brel_lib {

class CNetflowTokenBucket;

// Connection events delivered to a network class's user, on its network thread.
enum BREL_NET_CALLBACK_TYPE {
    BREL_CONNECT_NEW_CLIENT = 1,
    BREL_CONNECT_CLOSE = 2,
    BREL_CONNECT_OK = 3,
    BREL_CONNECT_FAILED = 4,
};
typedef void (*BrelNetCallback)(unsigned int nConnectId, BREL_NET_CALLBACK_TYPE type, void* pAppend, int fd);

// Framing: >0 length of the first packet, 0 more bytes needed, -1 invalid stream.
typedef int (*BrelNetPacketCompleteFun)(const void* pData, unsigned int nDataLen);
int asn_packet_complete(const void* pData, unsigned int nDataLen);
// Largest packet the framing accepts.
const unsigned int MAX_LEN = 0x8000000;

// Limit on the bytes a connection may hold while a packet is incomplete; 0 for none.
void SetBrelRecvPacketMaxSize(unsigned int nSize);
unsigned int GetBrelRecvPacketMaxSize();

// An IPv4 TCP socket; owns its descriptor until Detach. Results are 0 or errno
// unless said otherwise.
class CSocket {
public:
    CSocket() = default;
    virtual ~CSocket() { Close(); }
    CSocket(const CSocket&) = delete;
    CSocket& operator=(const CSocket&) = delete;

    int Create();
    // -1 without a socket; -2 for an IP that does not parse; empty IP: any address.
    int Bind(const std::string& strIp, unsigned short nPort);
    int Listen();  // backlog 32
    // Stores the new descriptor in client, without closing what client held.
    int Accept(CSocket& client);
    // -1 for an empty or unparsable IP.
    int Connect(const std::string& strIp, unsigned short nPort);
    int Send(unsigned int& nSendLen, const void* pBuf, unsigned int nSize);
    int Receive(unsigned int& nReceiveLen, void* pBuf, unsigned int nBufSize);
    int Close();
    int Shutdown();
    int Attach(int fd);
    int Detach();
    int SetBlockOrNon(bool bBlock);
    int SetReuseAddrOrNon(bool bReuse);
    // Small packets leave at once instead of waiting for the peer's delayed ACK.
    int SetNoDelay(bool bNoDelay);
    int GetPeerName(std::string& strIp, unsigned short& nPort);
    int GetSockName(std::string& strIp, unsigned short& nPort);
    int GetSocket() const { return m_sockFd; }

    // Waits in 50 ms tries for a non-blocking connect to finish: 0 connected,
    // SO_ERROR of a failed connect, -1 out of time or stopped, errno of epoll.
    int TestConnected(const std::atomic<unsigned int>& nContinueRun, unsigned int nTimeoutMilliSecond);
    // A listening socket; the IP is bound only if not empty.
    int CreateServer(const std::string& strIp, unsigned short nPort, bool bBlockOrNon, bool bSetReuseAddr);
    int ConnectToServerBlock(const std::string& strIp, unsigned short nPort, unsigned int nTimeoutMilliSecond);
    int ConnectToServerNonBlock(const std::string& strIp, unsigned short nPort,
                                const std::atomic<unsigned int>& nContinueRun, unsigned int nTimeoutMilliSecond);
    int ConnectToServerAsync(const std::string& strIp, unsigned short nPort);

private:
    // Connects a new socket and takes it over only once it stands, so the
    // current connection is untouched by a failed attempt.
    int ConnectToServerPrivate(const std::string& strIp, unsigned short nPort, bool bBlockOrNon,
                               const std::atomic<unsigned int>& nContinueRun, bool bSync,
                               unsigned int nTimeoutMilliSecond);

    // Read by other threads (IsConnected of the link), written by the owner.
    std::atomic<int> m_sockFd{-1};
};

// Results of the step functions.
enum {
    BREL_STEP_OK = 0,
    BREL_STEP_STOPPED = -1,
    BREL_STEP_AGAIN = -2,       // send: the socket takes no more now
    BREL_STEP_NO_TOKEN = -3,    // the rate limit's tokens are used up
    BREL_STEP_PEER_CLOSED = -4,
    BREL_STEP_BAD_STREAM = -5,  // framing failed or size limit passed
    BREL_STEP_BUDGET = -6,      // this step's share is done, more may wait
};

// Writes what is left of the block being sent; frees it once all is out.
int SendAsnBufData(const std::atomic<unsigned int>& nContinue, int fd, unsigned int nConnectId,
                   const std::string& strIp, unsigned short nPort, char*& pSendData, unsigned int& nSendDataLen,
                   unsigned int& nSendDataUsedLen, CDataBufferSTLDeque& sendBuffer,
                   CNetflowTokenBucket* pTokenBucket);

// Reads what the socket has and pushes each whole packet to revBuffer, with
// the connection id as append and the measured speed.
int ReceiveAsnBufData(const std::atomic<unsigned int>& nContinue, int fd, int nAppend, const std::string& strIp,
                      unsigned short nPort, char*& pReceiveBuf, unsigned int& nReceiveBufLen,
                      unsigned int& nReceiveBufUnusedLen, unsigned long long& lNowPacketBeginRecvTime,
                      BrelNetPacketCompleteFun pFunBrelNetPacketComplete, CDataBufferSTLDeque& revBuffer,
                      CNetflowTokenBucket* pTokenBucket);

} // namespace brel_lib

// One connection of a network loop: its record, the events its loop reports,
// and the two steps that every loop calls to push a block out and pull bytes in.
#pragma once

#include <time.h>

#include <atomic>
#include <deque>
#include <string>

#include "data_buffer.h"
#include "network/stream_framing.h"

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

// A block taken from a send buffer that waits behind the one being sent.
struct BufDeq {
    char* pBuf;
    unsigned int nSize;
};

// The state of one connection, owned by the thread of its loop; no lock. A
// plain record: the owner allocates the receive buffer and releases what it
// holds (FreeSendData, FreeReceiveBuf, close of sockFd). The receive buffer
// is a block of the queues' pool, so that a large packet that fills it goes
// to the receive queue as it is and a fresh buffer takes its place.
struct ConnectInfo {
    unsigned int nConnectId = 0;  // never 0 in the multi-connection loops; the descriptor on the link
    int sockFd = -1;              // non-blocking
    bool bNeedTestConnected = false;      // an asynchronous connect is under way
    unsigned long long lBeginTime = 0;    // milliseconds, start of the connect
    unsigned int nConnectTimeout = 0;     // milliseconds allowed for the connect
    std::string strIp;                    // peer address, for log lines and users
    unsigned short nPort = 0;
    // Receive buffer: holds nReceiveBufLen - nReceiveBufUnusedLen bytes from offset 0.
    char* pReceiveBuf = nullptr;
    unsigned int nReceiveBufLen = 0;
    unsigned int nReceiveBufUnusedLen = 0;
    unsigned int nLastPacketSize = 0;  // of the last packet received, the likely size of the next
    // The block being sent, as taken from a send buffer, and how much of it is out.
    char* pSendData = nullptr;
    unsigned int nSendDataLen = 0;
    unsigned int nSendDataUsedLen = 0;
    time_t nLastAccessTime = 0;                     // seconds, last step that touched it
    unsigned long long lNowPacketBeginRecvTime = 0;  // milliseconds, start of the next packet
    std::deque<BufDeq> deqSend;                     // blocks behind pSendData, in order

    bool HasPendingData() const { return pSendData != nullptr || !deqSend.empty(); }
    bool ReceiveBufEmpty() const { return nReceiveBufUnusedLen == nReceiveBufLen; }
    // Drops a partly received packet; the buffer keeps its size.
    void EmptyReceiveBuf() { nReceiveBufUnusedLen = nReceiveBufLen; }
    // An empty receive buffer of nSize bytes in place of the one held; false
    // (and the old one kept) when there is no memory.
    bool AllocReceiveBuf(unsigned int nSize);
    void FreeReceiveBuf();
    // Gives back the block being sent and every block behind it.
    void FreeSendData();
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

// Writes what is left of info.pSendData; frees it to sendBuffer, the buffer
// it came from, once all is out. A positive result is errno of the write.
int SendAsnBufData(const std::atomic<unsigned int>& nContinue, ConnectInfo& info, CDataBufferSTLDeque& sendBuffer,
                   CNetflowTokenBucket* pTokenBucket);

// Reads what the socket has and pushes each whole packet to revBuffer, with
// the connection id as append and the measured speed. Under the BER framing
// a read stops at the end of a large packet, which then goes to revBuffer in
// the receive buffer itself. A positive result is errno of the read.
int ReceiveAsnBufData(const std::atomic<unsigned int>& nContinue, ConnectInfo& info,
                      BrelNetPacketCompleteFun pFunBrelNetPacketComplete, CDataBufferSTLDeque& revBuffer,
                      CNetflowTokenBucket* pTokenBucket);

} // namespace brel_lib

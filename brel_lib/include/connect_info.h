// The state of one connection of a multi-connection loop: its socket, its
// receive buffer, the block being sent and the blocks queued behind it. The
// step functions of the stream framing work on these fields by reference.
// Owned by the loop's thread; no lock.
#pragma once

#include <time.h>

#include <deque>
#include <string>

namespace brel_lib {

// A payload taken from a send buffer, waiting behind the block being sent.
struct BufDeq {
    char* pBuf;
    unsigned int nSize;
};

struct ConnectInfo {
    unsigned int nConnectId = 0;        // never 0 for a connection
    int sockFd = -1;                    // non-blocking
    bool bNeedTestConnected = false;    // an asynchronous connect is under way
    unsigned long long lBeginTime = 0;  // milliseconds at the start of the connect
    unsigned int nConnectTimeout = 0;   // milliseconds allowed for the connect
    std::string strIp;                  // peer
    unsigned short nPort = 0;
    char* pReceiveBuf = nullptr;
    unsigned int nReceiveBufLen = 0;
    unsigned int nReceiveBufUnusedLen = 0;  // free bytes at the buffer's end
    char* pSendData = nullptr;              // block being sent, null if none
    unsigned int nSendDataLen = 0;
    unsigned int nSendDataUsedLen = 0;  // bytes of it written so far
    time_t nLastAccessTime = 0;         // seconds, last time a step touched it
    unsigned long long lNowPacketBeginRecvTime = 0;
    std::deque<BufDeq> deqSend;  // blocks behind pSendData, in order
};

} // namespace brel_lib

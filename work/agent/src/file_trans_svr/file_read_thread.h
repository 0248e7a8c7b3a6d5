// The read threads of the file source: each serves the block requests of the
// connections given to it, in order per connection, and puts the answers on
// the send buffer of the listening loop. A file is opened anew for each
// request, so that nothing of a transfer is kept between two of them.
//
// A peer that does not read its answers must not cost memory nor hold up the
// others: the bytes a thread has queued for one connection and the peer has
// not yet taken are bounded, and a connection at its bound has its requests
// set aside while the thread serves the other connections.
#pragma once

#include <time.h>

#include <atomic>
#include <deque>
#include <map>
#include <string>

#include "asn_parse.h"
#include "data_buffer.h"
#include "network/network_multi.h"
#include "thread.h"

// Bytes sent in blocks by all read threads, for the dump.
extern std::atomic<unsigned long long> g_lWorkTransmitSize;
// Blocks carry their MD5 unless the configuration switched it off.
extern std::atomic<bool> g_bEnableMd5Calc;

class CFileReadThread;

// A call carried into a read thread. DoReq returns true when the thread may
// delete the object at once, false when the thread has kept it.
class CFileReadThreadReqBase {
public:
    virtual ~CFileReadThreadReqBase() = default;
    virtual bool DoReq(CFileReadThread* pThread) = 0;
};

// One ReqWorkFileAgentGet of a destination, with the progress of its answers.
class CFileReadThreadReqRead : public CFileReadThreadReqBase {
public:
    bool DoReq(CFileReadThread* pThread) override;

    unsigned int m_nSrcWorkId = 0;
    unsigned int m_nDstWorkId = 0;
    std::string m_strSrcFile;
    unsigned int m_nBeginPosHigh = 0;  // with the pre-get mark in its top bit
    unsigned int m_nBeginPosLow = 0;
    int m_nGetSize = 0;
    int m_nGetNum = 0;
    int m_nNowAppend = 0;
    unsigned int m_nNowConnectId = 0;
    int m_nSockFd = -1;  // the connection's socket, to see what its peer has taken; -1 for none

    // Progress, kept while the request waits for its peer.
    bool m_bStarted = false;
    unsigned long long m_lOffset = 0;  // next block's position
    unsigned long long m_lBeginOffset = 0;  // position asked for
    int m_nCount = 0;  // blocks answered
    unsigned int m_nFileAccessBit = 0;
    unsigned long long m_lReadSize = 0;  // bytes answered
};

// The connection is gone: its waiting requests are dropped.
class CFileReadThreadReqForget : public CFileReadThreadReqBase {
public:
    explicit CFileReadThreadReqForget(unsigned int nConnectId) : m_nConnectId(nConnectId) {}
    bool DoReq(CFileReadThread* pThread) override;
    unsigned int m_nConnectId;
};

class CFileReadThread : public brel_lib::CThread {
public:
    // The largest block a request may ask for: the framing's maximum.
    static constexpr int MAX_GET_SIZE = 0x8000000;
    // Bytes a connection may have queued and not yet taken by its peer
    // before its requests wait, or CONNECT_QUEUE_BLOCKS of its requests'
    // blocks where that is more (what the destination keeps asked for at
    // most), so that large blocks keep the link busy; a block in hand is
    // always finished.
    static constexpr unsigned long long CONNECT_QUEUE_MAX = 8ULL << 20;
    static constexpr unsigned long long CONNECT_QUEUE_BLOCKS = 8;
    // Whatever the blocks, a connection queues no more than this (and the
    // block in hand): a peer asking for the largest blocks and not reading
    // them must not hold eight of them here. The destination's largest
    // requests stay below it.
    static constexpr unsigned long long CONNECT_QUEUE_CEILING = 64ULL << 20;
    // Blocks of a request are read and summed in batches of up to this many
    // bytes, since the digests of a batch are computed side by side.
    static constexpr unsigned long long BATCH_BYTES_MAX = 32ULL << 20;
    // Blocks served for one connection before the next connection's turn.
    static constexpr int BLOCKS_PER_TURN = 8;
    // Requests a connection may have waiting; a destination keeps a few open,
    // so a connection with more is closed rather than remembered without end.
    static constexpr size_t CONNECT_HELD_MAX = 1024;
    // What the peer behind a socket has taken of the bytes sent to it; -1
    // when unknown. A seam for tests; the kernel's count of acked bytes.
    typedef long long (*PeerTakenFun)(int fd);
    static void SetPeerTakenFun(PeerTakenFun pFun);

    // pNetwork: the loop of the connections, to close one that asks too much; null in tests.
    CFileReadThread(brel_lib::CDataBufferSTLDeque& sendDataBuffer, brel_lib::CNetworkMultiBase* pNetwork);
    ~CFileReadThread() override;

    // Any thread: the thread owns the object from here on.
    void AddReq(CFileReadThreadReqBase* pReq);

    void Run() override;
    // Any thread: the thread looks at its flag and its deadline now.
    void WakeUp() override;

    // Steps of a request, on the thread itself.
    bool ReqFileAgentGet(CFileReadThreadReqRead* pReq);
    void ForgetConnect(unsigned int nConnectId);

    // For tests: requests held, waiting or set aside.
    size_t HeldRequests();

private:
    struct ConnectQueue {
        int nSockFd = -1;
        unsigned long long lPushed = 0;  // bytes of answers queued for it, from its start
        std::deque<CFileReadThreadReqRead*> deqReq;
    };
    // Results of a turn of one request.
    // TURN_ENDED: a batch ended the request with its last answer sent.
    enum { TURN_DONE, TURN_MORE, TURN_WAIT_PEER, TURN_ENDED };

    void TakeRequests(unsigned int nWaitMilliSecond);
    // Serves the connections with requests in turn; true if any moved.
    bool ServeConnects();
    int ServeTurn(ConnectQueue& conn, CFileReadThreadReqRead* pReq);
    int StartRead(CFileReadThreadReqRead* pReq, int fd);
    int RefuseReadBuf(const CFileReadThreadReqRead* pReq);
    // Bytes the connection may still have queued for blocks of nGetSize.
    unsigned long long QueueRoom(const ConnectQueue& conn, unsigned int nGetSize) const;
    // Reads, sums and sends the next blocks of a started request, up to
    // nMaxBlocks; TURN_MORE while the request goes on.
    int ServeBatch(ConnectQueue& conn, CFileReadThreadReqRead* pReq, int fd, unsigned long long lFileSize,
                   int nMaxBlocks, int& nServed);
    void ReleaseIdleBuffers();
    void SendFileAgentGetOk(unsigned int nDstWorkId, unsigned int nSrcWorkId, unsigned long long lBeginPos,
                            unsigned long long lTotalSize, char* pBuf, unsigned int nBufSize,
                            unsigned int nFileAccessBit, const std::string& strMd5);
    void SendFileAgentGetFailed(int ret, unsigned int nDstWorkId, unsigned int nSrcWorkId, unsigned int nFileAccessBit);
    template <class T>
    void SendToServer(T& message);

    // The manager's send buffer, to the connections; any thread may push.
    brel_lib::CDataBufferSTLDeque& m_sendDataBuffer;
    brel_lib::CNetworkMultiBase* m_pNetwork;  // CloseClient may be called from any thread
    // Request pointers from the manager; nothing else travels here.
    brel_lib::CDataBufferSTLDeque m_deqReq;

    // The wait of an idle pass: until the buffers are to be released, if held.
    unsigned int IdleWait() const;

    // The thread's own.
    brel_lib::CPacketBuffer m_packetBuf;
    char* m_pReadFileBuf = nullptr;  // a batch of blocks
    unsigned int m_nReadFileBufSize = 0;
    int m_nNowAppend = 0;
    unsigned int m_nNowConnectId = 0;
    std::map<unsigned int, ConnectQueue> m_mapConnect;  // connections with requests held
    std::deque<unsigned int> m_deqTurn;  // their ids, in turn order
    std::atomic<size_t> m_nHeld{0};
    time_t m_tLastWork = 0;
};

// The common part of the two loops that carry file traffic: one thread drives
// any number of TCP connections through one epoll set. Users never touch a
// socket: they push blocks tagged with a connection id into the send buffer,
// take packets tagged with a connection id from the receive buffer, and hear
// of connection events through a callback on the loop's thread. Two token
// buckets limit the bytes per second of all connections together, one per
// direction; while a bucket is empty its direction is taken out of the set.
#pragma once

#include <stdint.h>
#include <time.h>

#include <atomic>
#include <map>
#include <string>
#include <vector>

#include "network/connection.h"
#include "data_buffer.h"
#include "network/socket.h"
#include "thread.h"
#include "network/token_bucket.h"

namespace brel_lib {

// Payloads of the two control blocks that travel in the send buffer with
// append 0 at high priority; the terminating zero is part of the block.
inline constexpr char SPECIAL_EVENT_STR_NEW_CLIENT[] = "SpecialEventStrNewClient";      // 25 bytes
inline constexpr char SPECIAL_EVENT_STR_CLOSE_CLIENT[] = "SpecialEventStrCloseClient";  // 27 bytes

// The next connection id of a counter: one more, skipping 0. Any thread.
unsigned int NextConnectId(std::atomic<unsigned int>& nCounter);

class CNetworkMultiBase : public CThread {
public:
    CNetworkMultiBase(CDataBufferSTLDeque& revBuffer, CDataBufferSTLDeque& sendBuffer,
                      unsigned int nReceiveBufDefaultSize);
    ~CNetworkMultiBase() override;

    // A loop may be stopped and started again; Stop closes every connection
    // without a callback. Any thread but the loop's own.
    int Start() override;
    int Stop() override;
    // Any thread: asks the loop to close the connection; an unknown id is ignored there.
    virtual int CloseClient(unsigned int nConnectId);

    // Shaping, any thread, any time: bytes per second of the whole loop in one
    // direction, 0 for no limit; and the length of a token period.
    void SetNetflowSendSpeed(unsigned int nSpeed);
    void SetNetflowRecvSpeed(unsigned int nSpeed);
    void SetNetflowSendGenMilliSecond(unsigned int nGenMilliSecond) { m_nSendGenMilliSecond = nGenMilliSecond; }
    void SetNetflowRecvGenMilliSecond(unsigned int nGenMilliSecond) { m_nRecvGenMilliSecond = nGenMilliSecond; }

    // Before Start.
    void SetNetClientCallback(BrelNetCallback pCallback, void* pAppend);
    void SetPacketCompleteFun(BrelNetPacketCompleteFun pFun) { m_funBrelNetPacketComplete = pFun; }
    // Seconds of silence after which a connection is closed (checked every 10 s).
    void SetAutoCloseNoAccessConnectTime(unsigned int nSecond) { m_nAutoCloseConnectTime = nSecond; }
    // The millisecond clock of both token buckets; tests drive shaping through it.
    void SetNetflowClock(CNetflowTokenBucket::ClockFun pClock);

    // Loop's thread only, from a callback: the peer of a connection that is
    // still known (a closing one included); -1 for an unknown id.
    int GetConnectPeer(unsigned int nConnectId, std::string& strIp, unsigned short& nPort) const;

protected:
    // The local state of one run of the loop; the loop's thread only.
    struct LoopState {
        int epfd = -1;
        ConnectInfo* pSendDataBufInfo = nullptr;  // the send buffer's descriptor
        time_t nLastAutoCloseCheck = 0;
        bool bSendNoToken = false;      // a send found no tokens in this pass
        bool bRecvNoToken = false;      // a receive found no tokens in this pass
        bool bRemovedSendFlag = false;  // sending is out of the epoll set
        bool bRemovedRecvFlag = false;  // receiving is out of the epoll set
    };

    // Class name for the fatal log lines of Run.
    virtual const char* LoopName() const = 0;
    // Adds the send buffer's descriptor and readies the state; fatal on failure.
    void BeginLoop(LoopState& st, int epfd, ConnectInfo* pSendDataBufInfo);
    // One pass: shaping, one wait, the events, the send queue, the closes.
    void RunPass(LoopState& st);
    // An event on a descriptor of the derived loop (listener, connect under
    // way); true if it was handled there.
    virtual bool DealOwnEvent(LoopState& st, uint32_t nEvent, ConnectInfo* pInfo) = 0;
    // The last step of a pass; the base closes what other threads asked to close.
    virtual void DealCloseStep(LoopState& st, bool bCloseClient);
    // The new-client control block arrived.
    virtual void NewClientEventDeal(int epfd, bool bRecvNoToken);
    // The longest wait before the derived loop's own timed check (a connect that may time out).
    virtual int NextCheckMilliSecond() const;
    // A connection is leaving the table; the derived loop drops its own references.
    virtual void ForgetConnect(unsigned int nConnectId);
    // End of Run: every connection closed without a callback.
    virtual void UnInit();

    std::vector<unsigned int> RealCloseClientVec(int epfd);
    // Callback, then the socket closed and the entry erased. bClosedOrFailed:
    // BREL_CONNECT_CLOSE if true, BREL_CONNECT_FAILED if not.
    void CloseConnectInner(int epfd, ConnectInfo& info, bool bClosedOrFailed);
    void CloseConnectInfo(ConnectInfo& info);
    int AddSpecialFdToEpoll(ConnectInfo* pInfo, int fd, int epfd);
    void ModifyInfoEpollFlag(int epfd, ConnectInfo& info, uint32_t nEvent);
    void Notify(unsigned int nConnectId, BREL_NET_CALLBACK_TYPE type, int fd);
    // A fresh receive buffer of the default size (a block of the queues' pool), or null.
    char* NewReceiveBuf() const;

    CDataBufferSTLDeque& m_revBuffer;
    CDataBufferSTLDeque& m_sendBuffer;
    const unsigned int m_nReceiveBufDefaultSize;

    // Loop's thread only.
    std::map<unsigned int, ConnectInfo> m_mapIdConnectInfo;

    // Set before Start.
    BrelNetCallback m_funBrelNetCallback = nullptr;
    void* m_pBrelNetCallbackAppend = nullptr;
    BrelNetPacketCompleteFun m_funBrelNetPacketComplete = asn_packet_complete;

    // Written by the loop at the top of each pass, read by connecting callers.
    std::atomic<time_t> m_nNowTime;
    ConnectInfo m_wakeInfo;  // the epoll data of the thread's wake-up descriptor

    // Guards m_vecNeedCloseConnectId and the derived client's list of new
    // connections; never held across a callback.
    CLock m_lock;
    std::vector<unsigned int> m_vecNeedCloseConnectId;

private:
    enum { AUTO_CLOSE_CHECK_SECOND = 10, MAX_STEP = 50, MAX_WAIT_MILLISECOND = 50 };

    // Copies the speed words into the buckets, which belong to the loop.
    void ApplyNetflowSettings();
    void AutoCloseNoAccessConnect(int epfd);
    int DealNoToken(LoopState& st);
    void DealNoSendToken(LoopState& st);
    void DealNoRecvToken(LoopState& st);
    bool SendAndRecvFdData(int epfd, uint32_t nEvent, ConnectInfo& info, bool& bSendNoToken, bool& bRecvNoToken,
                           bool bRemovedRecvFlag);
    bool SendDataBufToAllClient(int epfd, bool& bSendNoToken, bool& bCloseClient, bool bRecvNoToken);
    int SendDataBufToAllClientPrivate(int epfd, bool& bCloseClient, bool bRecvNoToken);
    void ModifyDataBufFdEpollFlag(int epfd, uint32_t nEvent, ConnectInfo* pSendDataBufInfo);
    int SendConnectBufData(ConnectInfo& info);
    int ReceiveConnectData(ConnectInfo& info);
    CNetflowTokenBucket* SendBucket() { return m_bEnableSendNetFlow ? &m_tokenBucketSend : nullptr; }
    CNetflowTokenBucket* RecvBucket() { return m_bEnableRecvNetFlow ? &m_tokenBucketRecv : nullptr; }

    // Any thread: the shaping words; the loop copies them into the buckets.
    std::atomic<bool> m_bEnableSendNetFlow{false};
    std::atomic<bool> m_bEnableRecvNetFlow{false};
    std::atomic<unsigned int> m_nSendSpeed{0};
    std::atomic<unsigned int> m_nRecvSpeed{0};
    std::atomic<unsigned int> m_nSendGenMilliSecond{50};
    std::atomic<unsigned int> m_nRecvGenMilliSecond{50};
    std::atomic<unsigned int> m_nAutoCloseConnectTime{600};

    // Loop's thread only.
    CNetflowTokenBucket m_tokenBucketSend;
    CNetflowTokenBucket m_tokenBucketRecv;
};

} // namespace brel_lib

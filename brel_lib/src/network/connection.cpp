#include "network/connection.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "log.h"
#include "network/token_bucket.h"
#include "process.h"
#include "util.h"

namespace brel_lib {

void ConnectInfo::FreeSendData()
{
    CDataBufferSTLDeque::FreePopData(pSendData);
    pSendData = nullptr;
    nSendDataLen = nSendDataUsedLen = 0;
    for (BufDeq& block : deqSend) CDataBufferSTLDeque::FreePopData(block.pBuf);
    deqSend.clear();
}

bool ConnectInfo::AllocReceiveBuf(unsigned int nSize)
{
    char* pNew = static_cast<char*>(CDataBufferSTLDeque::AllocBlock(nSize));
    if (pNew == nullptr) return false;
    FreeReceiveBuf();
    pReceiveBuf = pNew;
    nReceiveBufLen = nReceiveBufUnusedLen = nSize;
    return true;
}

void ConnectInfo::FreeReceiveBuf()
{
    CDataBufferSTLDeque::FreePopData(pReceiveBuf);
    pReceiveBuf = nullptr;
    nReceiveBufLen = nReceiveBufUnusedLen = 0;
}

int SendAsnBufData(const std::atomic<unsigned int>& nContinue, ConnectInfo& info, CDataBufferSTLDeque& sendBuffer,
                   CNetflowTokenBucket* pTokenBucket)
{
    if (info.pSendData == nullptr) return BREL_STEP_OK;
    const char* szIp = info.strIp.c_str();
    unsigned int nSize = info.nSendDataLen - info.nSendDataUsedLen;
    unsigned int nTokenSize = nSize;
    if (pTokenBucket != nullptr) {
        nTokenSize = pTokenBucket->TakeToken(nSize);
        if (nTokenSize == 0) {
            Log(LOG_LEVEL_DEBUG, "SendAsnBufData(send data no valid token, ip: %s, port: %hu, connect id: %u)", szIp,
                info.nPort, info.nConnectId);
            return BREL_STEP_NO_TOKEN;
        }
    }
    while (nContinue != 0) {
        ssize_t r = write(info.sockFd, info.pSendData + info.nSendDataUsedLen, nTokenSize);
        if (r > 0 && nTokenSize <= static_cast<unsigned int>(r) && nTokenSize >= nSize) {
            Log(LOG_LEVEL_LOWEST,
                "SendAsnBufData(send is ok, real send size equal to need send size, send size: %u, packet size: %u, "
                "ip: %s, port: %hu, connect id: %u)",
                nSize, info.nSendDataLen, szIp, info.nPort, info.nConnectId);
            sendBuffer.FreePopData(info.pSendData);
            info.pSendData = nullptr;
            info.nSendDataLen = info.nSendDataUsedLen = 0;
            break;
        }
        if (r > 0) {
            Log(LOG_LEVEL_LOWEST,
                "SendAsnBufData(need send size: %u, token size: %u, real send size: %d, ip: %s, port: %hu, connect "
                "id: %u)",
                nSize, nTokenSize, static_cast<int>(r), szIp, info.nPort, info.nConnectId);
            unsigned int nSent = static_cast<unsigned int>(r);
            if (pTokenBucket != nullptr && nSent < nTokenSize) pTokenBucket->ReturnSomeToken(nTokenSize - nSent);
            info.nSendDataUsedLen += nSent;
            // The tokens set the limit, or the kernel did.
            return (nSent == nTokenSize && nTokenSize < nSize) ? BREL_STEP_NO_TOKEN : BREL_STEP_AGAIN;
        }
        if (r == 0 || errno == EINTR) continue;
        if (errno == EAGAIN || errno == EWOULDBLOCK) {
            if (pTokenBucket != nullptr) pTokenBucket->ReturnSomeToken(nTokenSize);
            Log(LOG_LEVEL_LOWEST, "SendAsnBufData(again, need send size: %u, ip: %s, port: %hu, connect id: %u)", nSize,
                szIp, info.nPort, info.nConnectId);
            return BREL_STEP_AGAIN;
        }
        int nErr = errno;
        Log(LOG_LEVEL_WARNING,
            "SendAsnBufData(the connect occur some error, need send size: %u, errno: %d, ip: %s, port: %hu, fd: %d, "
            "connect id: %u)",
            nSize, nErr, szIp, info.nPort, info.sockFd, info.nConnectId);
        return nErr;
    }
    return nContinue == 0 ? BREL_STEP_STOPPED : BREL_STEP_OK;
}

namespace {

// A packet at least this large, and filling at least half of the receive
// buffer, is read up to its end and handed over in the buffer itself; below
// it a copy costs less than the read that stopping at its end may add.
const unsigned int HAND_OVER_MIN_SIZE = 16 * 1024;

bool IsLargePacket(unsigned int nPacketSize, unsigned int nBufLen)
{
    return nPacketSize >= HAND_OVER_MIN_SIZE && 2ULL * nPacketSize >= nBufLen;
}

// The packets of one receive step, queued together when it ends, so that a
// waiting consumer wakes once for them rather than once for each.
class CDeliveryBatch {
public:
    explicit CDeliveryBatch(CDataBufferSTLDeque& revBuffer) : m_revBuffer(revBuffer) {}
    ~CDeliveryBatch() { Flush(); }
    CDeliveryBatch(const CDeliveryBatch&) = delete;
    CDeliveryBatch& operator=(const CDeliveryBatch&) = delete;

    void Add(void* pBlock, unsigned int nSize, unsigned int nSpeed, int nAppend)
    {
        if (m_nCount == MAX_ITEMS) Flush();
        m_items[m_nCount++] = CDataBufferSTLDeque::BlockItem{pBlock, nSize, nSpeed, nAppend};
    }
    void Flush()
    {
        m_revBuffer.PushBlocks(m_items, m_nCount, BREL_DATA_NORMAL_PRI);
        m_nCount = 0;
    }

private:
    static const unsigned int MAX_ITEMS = 64;
    CDataBufferSTLDeque& m_revBuffer;
    CDataBufferSTLDeque::BlockItem m_items[MAX_ITEMS];
    unsigned int m_nCount = 0;
};

// The receive buffer, holding exactly one packet, becomes the packet's block;
// a fresh one of the same size takes its place. False when no memory is left
// for it, and the caller copies instead.
bool HandOverReceiveBuf(ConnectInfo& info, CDeliveryBatch& batch, unsigned int nPacketSize, unsigned int nSpeed)
{
    char* pNew = static_cast<char*>(CDataBufferSTLDeque::AllocBlock(info.nReceiveBufLen));
    if (pNew == nullptr) return false;
    batch.Add(info.pReceiveBuf, nPacketSize, nSpeed, static_cast<int>(info.nConnectId));
    info.pReceiveBuf = pNew;
    info.nReceiveBufUnusedLen = info.nReceiveBufLen;
    return true;
}

// A copy of a packet that shares the receive buffer with others.
void CopyPacket(const ConnectInfo& info, CDeliveryBatch& batch, const char* pPacket, unsigned int nPacketSize,
                unsigned int nSpeed)
{
    void* pBlock = CDataBufferSTLDeque::AllocBlock(nPacketSize);
    if (pBlock == nullptr) return;  // logged there; the packet is lost, as a failed push loses it
    memcpy(pBlock, pPacket, nPacketSize);
    batch.Add(pBlock, nPacketSize, nSpeed, static_cast<int>(info.nConnectId));
}

// Takes every whole packet off the front of the receive buffer; what is left
// of the last one moves to the front once, whatever the number of packets.
int DeliverPackets(ConnectInfo& info, BrelNetPacketCompleteFun pFunComplete, CDeliveryBatch& batch, int& nCount)
{
    const char* szIp = info.strIp.c_str();
    const unsigned int nTotal = info.nReceiveBufLen - info.nReceiveBufUnusedLen;
    unsigned int nBegin = 0;
    int ret = BREL_STEP_OK;
    while (nBegin < nTotal) {
        unsigned int nHeld = nTotal - nBegin;
        const char* pPacket = info.pReceiveBuf + nBegin;
        int nPacketSize = pFunComplete != nullptr ? pFunComplete(pPacket, nHeld) : static_cast<int>(nHeld);
        if (nPacketSize < 0 || static_cast<unsigned int>(nPacketSize) > nHeld) {
            Log(LOG_LEVEL_WARNING, "ReceiveAsnBufData(packet complete check failed, ip: %s, port: %hu, connect id: %u)",
                szIp, info.nPort, info.nConnectId);
            ret = BREL_STEP_BAD_STREAM;
            break;
        }
        if (nPacketSize == 0) {
            unsigned int nMax = GetBrelRecvPacketMaxSize();
            if (nMax != 0 && nHeld > nMax) {
                Log(LOG_LEVEL_WARNING,
                    "ReceiveAsnBufData(packet size is over than the max size, now data size: %u, the max size: %u, "
                    "ip: %s, port: %hu, connect id: %u)",
                    nHeld, nMax, szIp, info.nPort, info.nConnectId);
                ret = BREL_STEP_BAD_STREAM;
            }
            break;
        }
        const unsigned int nSize = static_cast<unsigned int>(nPacketSize);
        --nCount;
        unsigned long long lNow = GetNowMilliSecond();
        if (lNow <= info.lNowPacketBeginRecvTime) info.lNowPacketBeginRecvTime = lNow - 1;  // at least 1 ms
        unsigned long long lElapsed = lNow - info.lNowPacketBeginRecvTime;
        unsigned int nSpeed = static_cast<unsigned int>(static_cast<unsigned long long>(nSize) * 1000 / lElapsed);
        Log(LOG_LEVEL_LOWEST,
            "ReceiveAsnBufData(receive complete packet, package size: %u, time: %d, size: %d, speed: %u, ip: %s, port: "
            "%hu, connect id: %u)",
            nSize, static_cast<int>(lElapsed), nPacketSize, nSpeed, szIp, info.nPort, info.nConnectId);
        info.lNowPacketBeginRecvTime = lNow;
        info.nLastPacketSize = nSize;
        if (nBegin == 0 && nSize == nTotal && IsLargePacket(nSize, info.nReceiveBufLen) &&
            HandOverReceiveBuf(info, batch, nSize, nSpeed)) {
            return BREL_STEP_OK;
        }
        CopyPacket(info, batch, pPacket, nSize, nSpeed);
        nBegin += nSize;
        if (nBegin < nTotal) {
            Log(LOG_LEVEL_LOWEST,
                "ReceiveAsnBufData(receive other packet in this step, now data size: %u, ip: %s, port: %hu, connect "
                "id: %u)",
                nTotal - nBegin, szIp, info.nPort, info.nConnectId);
        }
    }
    unsigned int nRest = nTotal - nBegin;
    if (nBegin > 0 && nRest > 0) memmove(info.pReceiveBuf, info.pReceiveBuf + nBegin, nRest);
    info.nReceiveBufUnusedLen = info.nReceiveBufLen - nRest;
    return ret;
}

// Doubles the receive buffer, whose free part is used up; the new half is free.
void GrowReceiveBuf(ConnectInfo& info)
{
    unsigned int nNewLen = info.nReceiveBufLen * 2;
    char* pNew = static_cast<char*>(CDataBufferSTLDeque::AllocBlock(nNewLen));
    if (pNew == nullptr) {
        Log(LOG_LEVEL_ERROR, "ReceiveAsnBufData(realloc is failed, new size: %u, ip: %s, port: %hu, connect id: %u)",
            nNewLen, info.strIp.c_str(), info.nPort, info.nConnectId);
        ExitProcess(1);
    }
    Log(LOG_LEVEL_INFO, "ReceiveAsnBufData(realloc, new size: %u, ip: %s, port: %hu, connect id: %u)", nNewLen,
        info.strIp.c_str(), info.nPort, info.nConnectId);
    memcpy(pNew, info.pReceiveBuf, info.nReceiveBufLen - info.nReceiveBufUnusedLen);
    CDataBufferSTLDeque::FreePopData(info.pReceiveBuf);
    info.pReceiveBuf = pNew;
    info.nReceiveBufUnusedLen = nNewLen - (info.nReceiveBufLen - info.nReceiveBufUnusedLen);
    info.nReceiveBufLen = nNewLen;
}

// Bytes the next read may take: the free part of the buffer, but no more than
// the rest of a large packet whose length is known (or, at a packet's start,
// as much as the last packet had), so that such a packet ends the buffer and
// can be handed over.
unsigned int ReadSize(const ConnectInfo& info, BrelNetPacketCompleteFun pFunComplete)
{
    unsigned int nFree = info.nReceiveBufUnusedLen;
    if (pFunComplete != asn_packet_complete) return nFree;
    unsigned int nHeld = info.nReceiveBufLen - info.nReceiveBufUnusedLen;
    unsigned int nExpect = info.nLastPacketSize;
    if (nHeld > 0) {
        int nLength = asn_packet_length(info.pReceiveBuf, nHeld);
        nExpect = nLength > 0 ? static_cast<unsigned int>(nLength) : 0;
    }
    if (!IsLargePacket(nExpect, info.nReceiveBufLen) || nExpect <= nHeld) return nFree;
    return nExpect - nHeld < nFree ? nExpect - nHeld : nFree;
}

} // namespace

int ReceiveAsnBufData(const std::atomic<unsigned int>& nContinue, ConnectInfo& info,
                      BrelNetPacketCompleteFun pFunBrelNetPacketComplete, CDataBufferSTLDeque& revBuffer,
                      CNetflowTokenBucket* pTokenBucket)
{
    const char* szIp = info.strIp.c_str();
    if (info.ReceiveBufEmpty()) info.lNowPacketBeginRecvTime = GetNowMilliSecond();
    int nCount = 50;  // the budget of packets of this step
    CDeliveryBatch batch(revBuffer);
    while (nContinue != 0 && nCount >= 0) {
        if (info.nReceiveBufUnusedLen == 0) GrowReceiveBuf(info);
        const unsigned int nWant = ReadSize(info, pFunBrelNetPacketComplete);
        unsigned int nTokenSize = nWant;
        if (pTokenBucket != nullptr) {
            nTokenSize = pTokenBucket->TakeToken(nWant);
            if (nTokenSize == 0) {
                Log(LOG_LEVEL_DEBUG, "ReceiveAsnBufData(recv data no valid token, ip: %s, port: %hu, connect id: %u)",
                    szIp, info.nPort, info.nConnectId);
                return BREL_STEP_NO_TOKEN;
            }
        }
        char* pFree = info.pReceiveBuf + (info.nReceiveBufLen - info.nReceiveBufUnusedLen);
        ssize_t r = read(info.sockFd, pFree, nTokenSize);
        if (r == 0) {
            Log(LOG_LEVEL_INFO,
                "ReceiveAsnBufData(the connect is closed by the remote, ip: %s, port: %hu, fd: %d, connect id: %u)",
                szIp, info.nPort, info.sockFd, info.nConnectId);
            return BREL_STEP_PEER_CLOSED;
        }
        if (r < 0) {
            if (errno == EINTR) continue;
            if (errno == EAGAIN || errno == EWOULDBLOCK) {
                if (pTokenBucket != nullptr) pTokenBucket->ReturnSomeToken(nTokenSize);
                return BREL_STEP_OK;
            }
            int nErr = errno;
            Log(LOG_LEVEL_WARNING,
                "ReceiveAsnBufData(the connect occur some error, errno: %d, ip: %s, port: %hu, fd: %d, connect id: %u)",
                nErr, szIp, info.nPort, info.sockFd, info.nConnectId);
            return nErr;
        }
        unsigned int nRead = static_cast<unsigned int>(r);
        info.nReceiveBufUnusedLen -= nRead;
        int ret = DeliverPackets(info, pFunBrelNetPacketComplete, batch, nCount);
        if (ret != BREL_STEP_OK) return ret;
        if (nRead == nTokenSize && nTokenSize < nWant) {
            Log(LOG_LEVEL_LOWEST,
                "ReceiveAsnBufData(no more token, recv buf unused size: %u, token size: %u, real recv size: %d, connect "
                "id: %u)",
                info.nReceiveBufUnusedLen, nTokenSize, static_cast<int>(r), info.nConnectId);
            return BREL_STEP_NO_TOKEN;
        }
        if (nRead < nTokenSize) {
            Log(LOG_LEVEL_LOWEST,
                "ReceiveAsnBufData(need retry read, recv buf unused size: %u, token size: %u, real recv size: %d, "
                "connect id: %u)",
                info.nReceiveBufUnusedLen, nTokenSize, static_cast<int>(r), info.nConnectId);
            if (pTokenBucket != nullptr) pTokenBucket->ReturnSomeToken(nTokenSize - nRead);
            return BREL_STEP_OK;
        }
    }
    return nCount < 0 ? BREL_STEP_BUDGET : BREL_STEP_STOPPED;
}

} // namespace brel_lib

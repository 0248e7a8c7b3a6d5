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

// Takes every whole packet off the front of the receive buffer.
int DeliverPackets(ConnectInfo& info, BrelNetPacketCompleteFun pFunComplete, CDataBufferSTLDeque& revBuffer,
                   int& nCount)
{
    const char* szIp = info.strIp.c_str();
    while (true) {
        unsigned int nHeld = info.nReceiveBufLen - info.nReceiveBufUnusedLen;
        int nPacketSize = pFunComplete != nullptr ? pFunComplete(info.pReceiveBuf, nHeld) : static_cast<int>(nHeld);
        if (nPacketSize < 0) {
            Log(LOG_LEVEL_WARNING, "ReceiveAsnBufData(packet complete check failed, ip: %s, port: %hu, connect id: %u)",
                szIp, info.nPort, info.nConnectId);
            return BREL_STEP_BAD_STREAM;
        }
        if (nPacketSize == 0) {
            unsigned int nMax = GetBrelRecvPacketMaxSize();
            if (nMax != 0 && nHeld > nMax) {
                Log(LOG_LEVEL_WARNING,
                    "ReceiveAsnBufData(packet size is over than the max size, now data size: %u, the max size: %u, "
                    "ip: %s, port: %hu, connect id: %u)",
                    nHeld, nMax, szIp, info.nPort, info.nConnectId);
                return BREL_STEP_BAD_STREAM;
            }
            return BREL_STEP_OK;
        }
        --nCount;
        unsigned long long lNow = GetNowMilliSecond();
        if (lNow <= info.lNowPacketBeginRecvTime) info.lNowPacketBeginRecvTime = lNow - 1;  // at least 1 ms
        unsigned long long lElapsed = lNow - info.lNowPacketBeginRecvTime;
        unsigned int nSpeed = static_cast<unsigned int>(static_cast<unsigned long long>(nPacketSize) * 1000 / lElapsed);
        Log(LOG_LEVEL_LOWEST,
            "ReceiveAsnBufData(receive complete packet, package size: %u, time: %d, size: %d, speed: %u, ip: %s, port: "
            "%hu, connect id: %u)",
            static_cast<unsigned int>(nPacketSize), static_cast<int>(lElapsed), nPacketSize, nSpeed, szIp, info.nPort,
            info.nConnectId);
        info.lNowPacketBeginRecvTime = lNow;
        revBuffer.Push3(info.pReceiveBuf, static_cast<unsigned int>(nPacketSize), nSpeed,
                        static_cast<int>(info.nConnectId), BREL_DATA_NORMAL_PRI);
        info.nReceiveBufUnusedLen += static_cast<unsigned int>(nPacketSize);
        unsigned int nRest = info.nReceiveBufLen - info.nReceiveBufUnusedLen;
        if (nRest == 0) return BREL_STEP_OK;
        Log(LOG_LEVEL_LOWEST,
            "ReceiveAsnBufData(receive other packet in this step, now data size: %u, ip: %s, port: %hu, connect id: "
            "%u)",
            nRest, szIp, info.nPort, info.nConnectId);
        memmove(info.pReceiveBuf, info.pReceiveBuf + nPacketSize, nRest);
    }
}

// Doubles the receive buffer, whose free part is used up; the new half is free.
void GrowReceiveBuf(ConnectInfo& info)
{
    unsigned int nNewLen = info.nReceiveBufLen * 2;
    char* pNew = static_cast<char*>(realloc(info.pReceiveBuf, nNewLen));
    if (pNew == nullptr) {
        Log(LOG_LEVEL_ERROR, "ReceiveAsnBufData(realloc is failed, new size: %u, ip: %s, port: %hu, connect id: %u)",
            nNewLen, info.strIp.c_str(), info.nPort, info.nConnectId);
        ExitProcess(1);
    }
    Log(LOG_LEVEL_INFO, "ReceiveAsnBufData(realloc, new size: %u, ip: %s, port: %hu, connect id: %u)", nNewLen,
        info.strIp.c_str(), info.nPort, info.nConnectId);
    info.pReceiveBuf = pNew;
    info.nReceiveBufUnusedLen = nNewLen - info.nReceiveBufLen;
    info.nReceiveBufLen = nNewLen;
}

} // namespace

int ReceiveAsnBufData(const std::atomic<unsigned int>& nContinue, ConnectInfo& info,
                      BrelNetPacketCompleteFun pFunBrelNetPacketComplete, CDataBufferSTLDeque& revBuffer,
                      CNetflowTokenBucket* pTokenBucket)
{
    const char* szIp = info.strIp.c_str();
    if (info.ReceiveBufEmpty()) info.lNowPacketBeginRecvTime = GetNowMilliSecond();
    int nCount = 50;  // the budget of packets of this step
    while (nContinue != 0 && nCount >= 0) {
        if (info.nReceiveBufUnusedLen == 0) GrowReceiveBuf(info);
        unsigned int nTokenSize = info.nReceiveBufUnusedLen;
        if (pTokenBucket != nullptr) {
            nTokenSize = pTokenBucket->TakeToken(info.nReceiveBufUnusedLen);
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
        unsigned int nUnusedBefore = info.nReceiveBufUnusedLen;
        info.nReceiveBufUnusedLen -= nRead;
        int ret = DeliverPackets(info, pFunBrelNetPacketComplete, revBuffer, nCount);
        if (ret != BREL_STEP_OK) return ret;
        if (nRead == nTokenSize && nTokenSize < nUnusedBefore) {
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

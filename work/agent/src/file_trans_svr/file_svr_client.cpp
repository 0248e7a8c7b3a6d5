// The destination agents' side of the source: their connections, their
// requests, and the expiry of works that nobody reads.
#include <map>
#include <vector>

#include "common/agent_clock.h"
#include "common/agent_globals.h"
#include "file_trans_cache/file_trans_cache.h"
#include "file_trans_svr/file_trans_svr.h"
#include "util.h"

using namespace brel_lib;

int FileSvrPacketComplete(const void* pData, unsigned int nDataLen)
{
    // The length as far as it has come: missing length bytes count as 0, so
    // the known high bytes alone may condemn the packet before the rest arrives.
    const unsigned char* p = static_cast<const unsigned char*>(pData);
    if (nDataLen >= 2 && p[0] == 0x30) {
        unsigned long long lHeadLen = 2, lContLen = p[1];
        if (p[1] > 0x80) {
            unsigned int nLenLen = p[1] & 0x7f;
            lHeadLen += nLenLen;
            lContLen = 0;
            for (unsigned int i = 0; i < nLenLen && i < 8; ++i) {
                unsigned int nPos = 2 + i;
                lContLen = (lContLen << 8) | (nPos < nDataLen ? p[nPos] : 0);
            }
            if (nLenLen > 4) return -1;
        }
        if (lHeadLen + lContLen > CFileTransSvrManager::CLIENT_PACKET_MAX) {
            Log(LOG_LEVEL_WARNING, "FileSvrPacketComplete(the client announces a packet of %llu bytes, we close it)",
                lHeadLen + lContLen);
            return -1;
        }
    }
    return asn_packet_complete(pData, nDataLen);
}

void CFileTransSvrManager::NetCallback(CFileSvrReqNetCallback* pReq)
{
    if (pReq->m_nType == BREL_CONNECT_NEW_CLIENT) {
        Log(LOG_LEVEL_DEBUG,
            "CFileTransSvrManager::NetCallback(new file client connect, connect id: %u, fd: %d, client ip: %s, port: "
            "%hu)",
            pReq->m_nConnectId, pReq->m_nSockFd, pReq->m_strClientIp.c_str(), pReq->m_nClientPort);
        // A connection keeps one read thread, so its blocks go out in the order asked.
        m_mapConnectIdThreadId[pReq->m_nConnectId] = m_nNowFileReadThread;
        ClientConnect& client = m_mapClient[pReq->m_nConnectId];
        client.nThreadId = m_nNowFileReadThread;
        client.nSockFd = pReq->m_nSockFd;
        client.strIp = pReq->m_strClientIp;
        if (++m_nNowFileReadThread >= m_vecFileReadThread.size()) m_nNowFileReadThread = 0;
    } else if (pReq->m_nType == BREL_CONNECT_CLOSE) {
        Log(LOG_LEVEL_DEBUG, "CFileTransSvrManager::NetCallback(client disconnect, connect id: %u, fd: %d)",
            pReq->m_nConnectId, pReq->m_nSockFd);
        auto it = m_mapClient.find(pReq->m_nConnectId);
        if (it != m_mapClient.end()) {
            m_vecFileReadThread[it->second.nThreadId]->AddReq(new CFileReadThreadReqForget(pReq->m_nConnectId));
            m_mapClient.erase(it);
        }
        m_mapConnectIdThreadId.erase(pReq->m_nConnectId);
    }
}

void CFileTransSvrManager::CloseClientOf(unsigned int nConnectId)
{
    m_networkServer.CloseClient(nConnectId);
    m_mapConnectIdThreadId.erase(nConnectId);
    // The read thread forgets it at the close event.
}

void CFileTransSvrManager::DealFileClientReq(char* pData, unsigned int nSize, unsigned int nConnectId)
{
    auto itClient = m_mapClient.find(nConnectId);
    if (itClient == m_mapClient.end()) {
        // Its new-client event may be queued behind: the loop posts it before any data.
        DealRequests();
        itClient = m_mapClient.find(nConnectId);
    }
    if (itClient == m_mapClient.end() || m_mapConnectIdThreadId.count(nConnectId) == 0) {
        Log(LOG_LEVEL_ERROR,
            "CFileTransSvrManager::DealFileClientReq(can not find connect id: %u, receive data size: %u, we close "
            "connect)",
            nConnectId, nSize);
        m_networkServer.CloseClient(nConnectId);
        return;
    }
    ZikPacket packet;
    unsigned int nUsed = 0;
    if (ParseFromBuffer(packet, nUsed, pData, nSize) != 0 || packet.body.get() == nullptr) {
        Log(LOG_LEVEL_WARNING,
            "CFileTransSvrManager::DealFileClientReq(parse from buffer is error, we close connect, connect id: %u, "
            "receive data size: %u)",
            nConnectId, nSize);
        CloseClientOf(nConnectId);
        return;
    }
    m_nNowAppend = packet.append;
    Zik& body = *packet.body;
    if (body.choiceId == Zik::reqWorkFileAgentGetCid) {
        ReqWorkFileAgentGet* pGet = body.reqWorkFileAgentGet;
        unsigned int nSrcWorkId = static_cast<unsigned int>(pGet->srcWorkId.value);
        unsigned int nDstWorkId = static_cast<unsigned int>(pGet->dstWorkId.value);
        std::string strSrcFile(pGet->srcFile.octs == nullptr ? "" : pGet->srcFile.octs, pGet->srcFile.octetLen);
        if (UpdateClientInfo(nSrcWorkId, nDstWorkId, nConnectId) != 0) return;
        if (!ClientMayRead(m_mapWork[nSrcWorkId], itClient->second, strSrcFile)) return;
        auto* pRead = new CFileReadThreadReqRead;
        pRead->m_nSrcWorkId = nSrcWorkId;
        pRead->m_nDstWorkId = nDstWorkId;
        pRead->m_strSrcFile = strSrcFile;
        pRead->m_nBeginPosHigh = static_cast<unsigned int>(pGet->beginPosHigh.value);
        pRead->m_nBeginPosLow = static_cast<unsigned int>(pGet->beginPosLow.value);
        pRead->m_nGetSize = pGet->getSize;
        pRead->m_nGetNum = pGet->getNum;
        pRead->m_nNowAppend = m_nNowAppend;
        pRead->m_nNowConnectId = nConnectId;
        pRead->m_nSockFd = itClient->second.nSockFd;
        m_vecFileReadThread[itClient->second.nThreadId]->AddReq(pRead);
    } else if (body.choiceId == Zik::reqWorkFileAgentHeartbeatCid) {
        ReqWorkFileAgentHeartbeat* pBeat = body.reqWorkFileAgentHeartbeat;
        UpdateClientInfo(static_cast<unsigned int>(pBeat->srcWorkId.value),
                         static_cast<unsigned int>(pBeat->dstWorkId.value), nConnectId);
    } else {
        Log(LOG_LEVEL_WARNING,
            "CFileReadThread::DealFileClientReq(we recevie a data, but we don't know it, the choiceid: %d, connect id: "
            "%u)",
            static_cast<int>(body.choiceId), nConnectId);
        LogAsnObj(LOG_LEVEL_OBJDBG, packet);
    }
}

int CFileTransSvrManager::UpdateClientInfo(unsigned int nWorkId, unsigned int nDstWorkId, unsigned int nConnectId)
{
    auto it = m_mapWork.find(nWorkId);
    if (it == m_mapWork.end()) {
        Log(LOG_LEVEL_WARNING,
            "CFileTransSvrManager::UpdateClientInfo(can not find src work id, work id: %u, connect id: %u, we close "
            "it)",
            nWorkId, nConnectId);
        CloseClientOf(nConnectId);
        return -1;
    }
    FileTransSvr& work = it->second;
    work.nLastGetTime = g_timeNow;
    work.nDstWorkId = nDstWorkId;
    work.nConnectId = nConnectId;
    if (work.nFlag & FILE_SVR_FLAG_CACHE_FILE) g_fileTransCache.UpdateCacheAccessTime(work.strCacheId);
    Log(LOG_LEVEL_DEBUG, "CFileTransSvrManager::UpdateClientInfo(work id: %u, dst work id: %u, connect id: %u)",
        nWorkId, nDstWorkId, nConnectId);
    return 0;
}

// With file_trans_svr_check_client on, a work admits only its own path, read
// by its own destination.
bool CFileTransSvrManager::ClientMayRead(const FileTransSvr& work, const ClientConnect& client,
                                         const std::string& strSrcFile)
{
    if (!m_bCheckClient) return true;
    bool bPathOk = strSrcFile == work.strSrcFile;
    bool bPeerOk = work.strDstIp.empty() || work.strDstIp == client.strIp;
    if (bPathOk && bPeerOk) return true;
    Log(LOG_LEVEL_WARNING,
        "CFileTransSvrManager::DealFileClientReq(the client may not read this, we close it, work id: %u, work file: "
        "%s, asked file: %s, dst ip: %s, client ip: %s)",
        work.nWorkId, work.strSrcFile.c_str(), strSrcFile.c_str(), work.strDstIp.c_str(), client.strIp.c_str());
    CloseClientOf(work.nConnectId);
    return false;
}

void CFileTransSvrManager::AutoDeleteWork(std::map<unsigned int, FileTransSvr>::iterator it, bool bMarkEnd)
{
    const FileTransSvr& work = it->second;
    Log(LOG_LEVEL_WARNING,
        "CFileTransSvrManager::DealAutoDelete(auto delete work, it not get data in very many time, work id: %u, begin "
        "time: %s, last get data time: %s)",
        work.nWorkId, ConvertUnixTimeToStr(work.nBeginTime).c_str(), ConvertUnixTimeToStr(work.nLastGetTime).c_str());
    if (work.nConnectId != 0) CloseClientOf(work.nConnectId);
    m_mapWork.erase(it);
    if (bMarkEnd) m_timeLastTaskEnd = g_timeNow;
}

// A work that a client read and then left goes after the keep time. One that
// no client ever touched goes too, unless a twin (same file, same
// destination) is being read: the server may have made both for one pull.
void CFileTransSvrManager::DealAutoDelete()
{
    time_t tNow = g_timeNow;
    std::map<std::string, std::vector<unsigned int>> mapNoGetData;
    for (auto it = m_mapWork.begin(); it != m_mapWork.end();) {
        FileTransSvr& work = it->second;
        PullBack(work.nLastGetTime, tNow);
        if (tNow - work.nLastGetTime < m_nNotGetKeepSecondBeforeAutoDelete) {
            ++it;
            continue;
        }
        if (work.nLastGetTime != work.nBeginTime) {
            auto itNext = std::next(it);
            AutoDeleteWork(it, true);
            it = itNext;
            continue;
        }
        mapNoGetData[work.strSrcFile + work.strDstIp].push_back(work.nWorkId);
        ++it;
    }
    if (mapNoGetData.empty()) return;
    std::map<std::string, int> mapHadGetData;
    for (const auto& pair : m_mapWork) {
        if (pair.second.nLastGetTime != pair.second.nBeginTime)
            mapHadGetData[pair.second.strSrcFile + pair.second.strDstIp] = 1;
    }
    for (const auto& pair : mapNoGetData) {
        if (mapHadGetData.count(pair.first) != 0) continue;
        for (unsigned int nWorkId : pair.second) {
            auto it = m_mapWork.find(nWorkId);
            if (it != m_mapWork.end()) AutoDeleteWork(it, false);
        }
    }
}

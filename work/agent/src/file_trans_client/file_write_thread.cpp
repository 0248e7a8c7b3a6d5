#include "file_trans_client/file_write_thread.h"

#include <assert.h>
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include "common/agent_globals.h"
#include "common/work_codes.h"
#include "file_trans_cache/file_trans_cache.h"
#include "file_trans_client/client_settings.h"
#include "file_trans_client/file_trans_client.h"
#include "log.h"
#include "md5.h"
#include "util.h"

using namespace brel_lib;

const char* const g_strFileTransClientInfo = "../log/file_client_info";

namespace {

const unsigned int WRITE_THREAD_STACK_SIZE = 0x100000;
const unsigned int PACKET_BUF_MIN_SIZE = 1024;
const time_t SWEEP_SECOND = 5;
// Blocks waiting in the queue are summed together, up to this many blocks
// and about this many bytes: the digests of a batch are computed side by side.
const size_t DIGEST_BATCH_MAX = 8;
const unsigned long long DIGEST_BATCH_BYTES = 32ULL << 20;

const char* TransTypeName(int nTransType)
{
    switch (nTransType) {
    case FTC_TRANS_MASTER: return "master";
    case FTC_TRANS_SLAVE: return "slave";
    default: return "common";
    }
}

} // namespace

const char* NowIp(const FileTransClient& task)
{
    return task.nNowUseServerIp < task.vecSrcServerIp.size() ? task.vecSrcServerIp[task.nNowUseServerIp].c_str() : "";
}

// ---- the request objects ------------------------------------------------------

void CFileWriteReqCreate::DoReq() { m_pWriteThread->CreateTransClient(this); }
void CFileWriteReqCreate2::DoReq() { m_pWriteThread->CreateTransClient2(this); }
void CFileWriteReqSetAction::DoReq() { m_pWriteThread->SetActionWork(this); }
void CFileWriteReqQuery::DoReq() { m_pWriteThread->QueryWork(this); }
void CFileWriteReqDelete::DoReq() { m_pWriteThread->DeleteWork(this); }
void CFileWriteReqReceiveData::DoReq() { m_pWriteThread->ReceiveFileData(this); }
void CFileWriteReqNetConnectCallback::DoReq() { m_pWriteThread->NetConnectCallback(this); }
void CFileWriteReqPrintAgentInfo::DoReq() { m_pWriteThread->PrintAgentInfo(); }

CFileWriteReqReceiveData::~CFileWriteReqReceiveData()
{
    if (m_pData != nullptr) CDataBufferSTLDeque::FreePopData(m_pData);
}

// ---- the thread ------------------------------------------------------------------

CFileWriteThread::CFileWriteThread(int nThreadId, CDataBufferSTLDeque& revDataBuffer,
                                   CDataBufferSTLDeque& sendDataBuffer, CDataBufferSTLDeque& sendDataBufferMain,
                                   CNetworkMultiClientBrel& networkMultiClient, CFileTransClientManager* pParent)
    : CThread(WRITE_THREAD_STACK_SIZE),
      m_nThreadId(nThreadId),
      m_revDataBuffer(revDataBuffer),
      m_sendDataBuffer(sendDataBuffer),
      m_sendDataBufferMain(sendDataBufferMain),
      m_networkMultiClient(networkMultiClient),
      m_pParent(pParent),
      m_packetBuf("CFileWriteThread", PACKET_BUF_MIN_SIZE)
{
    if (m_dataEventReq.Init() != 0) {
        Log(LOG_LEVEL_ERROR, "CFileWriteThread::CFileWriteThread(assert: m_dataEventReq.Init() == 0)");
        abort();
    }
}

CFileWriteThread::~CFileWriteThread()
{
    CThread::Stop();
    CAutoLock lock(m_lock);
    while (!m_deqReq.empty()) {
        delete m_deqReq.front();
        m_deqReq.pop();
    }
}

void CFileWriteThread::AddReq(CFileWriteReqBase* pReq)
{
    CAutoLock lock(m_lock);
    m_deqReq.push(pReq, pReq->GetType() == FWR_TYPE_DATA ? TPQ_LOW : TPQ_HIGH);
    m_dataEventReq.SetEvent();
    Log(LOG_LEVEL_LOWEST, "CFileWriteThread::AddReq(req deq size: %u, thread id: %d)", m_deqReq.size(), m_nThreadId);
}

void CFileWriteThread::WakeUp() { m_dataEventReq.SetEvent(); }

void CFileWriteThread::Run()
{
    time_t timePreTestNeedReGetAndAutoDelete = g_timeNow;
    WatchAgentClock(this);
    while (m_nContinueRun) {
        // A request, a stop or a moved clock wakes the wait; the sweep of the works is its only deadline.
        int nWait = m_mapWork.empty() ? DEADLINE_WAIT_MAX_MILLISECOND
                                      : MilliSecondsUntilAgentTime(timePreTestNeedReGetAndAutoDelete + SWEEP_SECOND);
        if (m_dataEventReq.WaitForSingleObject(static_cast<unsigned int>(nWait)) == 1) {
            while (m_nContinueRun) {
                CFileWriteReqBase* pReq = nullptr;
                unsigned int nLeft = 0;
                {
                    CAutoLock lock(m_lock);
                    if (m_deqReq.empty()) break;
                    pReq = m_deqReq.front();
                    m_deqReq.pop();
                    nLeft = m_deqReq.size();
                    m_dataEventReq.ClearEvent();
                }
                Log(LOG_LEVEL_LOWEST, "CFileWriteThread::Run(req deq size: %u, thread id: %d)", nLeft, m_nThreadId);
                pReq->DoReq();
                delete pReq;
            }
        }
        time_t tNow = g_timeNow;
        if (timePreTestNeedReGetAndAutoDelete > tNow) timePreTestNeedReGetAndAutoDelete = tNow;
        if (tNow - timePreTestNeedReGetAndAutoDelete >= SWEEP_SECOND) {
            timePreTestNeedReGetAndAutoDelete = tNow;
            DealReGetAndAutoDelete();
        }
        PublishStages();
    }
    UnwatchAgentClock(this);
    for (auto& item : m_mapWork)
        if (item.second.nConnectId != 0) m_networkMultiClient.CloseClient(item.second.nConnectId);
    m_mapWork.clear();
    m_mapWorkMasterSlave.clear();
    m_packetBuf.Allocate(0);
    CAutoLock lock(m_lock);
    while (!m_deqReq.empty()) {
        delete m_deqReq.front();
        m_deqReq.pop();
    }
}

// Works change only in this thread's passes: a count at the end of each is current.
void CFileWriteThread::PublishStages()
{
    unsigned int nByStage[3] = {0, 0, 0};
    for (const auto& item : m_mapWork)
        if (item.second.nStatus <= WORK_FINISHED) ++nByStage[item.second.nStatus];
    for (int i = 0; i < 3; ++i) m_nWorksByStage[i].store(nByStage[i], std::memory_order_relaxed);
}

void CFileWriteThread::CountWorks(unsigned int nByStage[3]) const
{
    for (int i = 0; i < 3; ++i) nByStage[i] += m_nWorksByStage[i].load(std::memory_order_relaxed);
}

unsigned int CFileWriteThread::QueuedRequests()
{
    CAutoLock lock(m_lock);
    return m_deqReq.size();
}

void CFileWriteThread::SetNowFrom(const FileWriteReqRoute& req)
{
    m_nNowWorkId = req.m_nWorkId;
    m_nNowAppend = req.m_nAppend;
    m_nNowRouteSrcServerIp = req.m_nRouteSrcServerIp;
    m_nNowRouteSrcServerId = req.m_nRouteSrcServerId;
}

void CFileWriteThread::SetNowFrom(const FileTransClient& task)
{
    m_nNowWorkId = task.nWorkId;
    m_nNowAppend = task.nAppend;
    m_nNowRouteSrcServerIp = task.nRouteSrcServerIp;
    m_nNowRouteSrcServerId = task.nRouteSrcServerId;
}

// ---- connecting --------------------------------------------------------------------

int CFileWriteThread::ConnectToFileServerAsync(FileTransClient& task)
{
    // The manager's lock stays held until the route of the new connect id
    // exists, so that no event of the connection can pass before it.
    m_pParent->Lock();
    unsigned int nConnectId = 0;
    int ret = -1;
    while (task.nNowUseServerIp < task.vecSrcServerIp.size()) {
        ret = m_networkMultiClient.ConnectToServerAsync(nConnectId, task.vecSrcServerIp[task.nNowUseServerIp],
                                                        task.nSrcServerPort,
                                                        static_cast<unsigned int>(g_nClientConnectSvrTimeoutSecond) * 1000);
        if (ret == 0) break;
        if (task.nNowUseServerIp + 1 >= task.vecSrcServerIp.size()) {
            m_pParent->UnLock();
            return ret;
        }
        ++task.nNowUseServerIp;
    }
    if (ret != 0) {
        m_pParent->UnLock();
        return ret;
    }
    m_pParent->BuildMapConnectIdAndThreadId(m_nNowWorkId, nConnectId);
    task.nConnectId = nConnectId;
    m_pParent->UnLock();
    return 0;
}

FileTransClient& CFileWriteThread::MakeWork(const CFileWriteReqCreate& req)
{
    FileTransClient& task = m_mapWork[req.m_nWorkId];
    task = FileTransClient();
    task.nWorkId = req.m_nWorkId;
    task.strSrcFile = req.m_strSrcFile;
    task.strDstPath = req.m_strDstPath;
    task.vecSrcServerIp = req.m_vecSrcServerIp;
    task.nSrcServerPort = req.m_nSrcServerPort;
    task.nSrcWorkId = req.m_nSrcWorkId;
    task.nFlag = req.m_nFlag;
    task.nTimeoutSecond = req.m_nTimeoutSecond;
    task.nAppend = req.m_nAppend;
    task.nRouteSrcServerIp = req.m_nRouteSrcServerIp;
    task.nRouteSrcServerId = req.m_nRouteSrcServerId;
    task.strFirstSrcFile = req.m_strFirstSrcFile;
    task.strFileMd5 = req.m_strFileMd5;
    task.bIsFirstMaster = true;
    task.nNowAllGetNum = task.nNowInGetNum = g_nGetNumPerReq;
    task.nNowGetSize = g_nGetSizePerReq;
    task.nBeginTime = task.nEndTime = g_timeNow;
    return task;
}

void CFileWriteThread::CreateTransClient(CFileWriteReqCreate* pReq)
{
    ++m_lWorkAllCount;
    SetNowFrom(*pReq);
    FileTransClient& task = MakeWork(*pReq);
    int ret = ConnectToFileServerAsync(task);
    if (ret != 0) {
        Log(LOG_LEVEL_WARNING,
            "CFileWriteThread::CreateTransClient(async connect the file svr is failed immediately, ret: %d, work id: "
            "%u, now use server ip: %s, port: %hu, append: %d)",
            ret, task.nWorkId, NowIp(task), task.nSrcServerPort, task.nAppend);
        DealConnectFailedWork(task);
        return;
    }
    if (!(task.nFlag & FILE_DST_FLAG_QUIET))
        Log(LOG_LEVEL_INFO,
            "CFileWriteThread::CreateTransClient(async connecting the file svr, work id: %u, now use server ip: %s, "
            "port: %hu, append: %d, connect id: %u)",
            task.nWorkId, NowIp(task), task.nSrcServerPort, task.nAppend, task.nConnectId);
}

void CFileWriteThread::CreateTransClient2(CFileWriteReqCreate2* pReq)
{
    ++m_lWorkAllCount;
    SetNowFrom(*pReq);
    std::string strCacheId;
    bool bComplete = false;
    unsigned int nThreadId = 0;
    if (g_fileTransCache.GetFromCache(strCacheId, bComplete, nThreadId, pReq->m_strDstPath) && bComplete) {
        Log(LOG_LEVEL_DEBUG, "CFileWriteThread::CreateTransClient2(file in cache and completed, work id: %u)",
            pReq->m_nWorkId);
        SendFileDstToServerCreateFailed(RET_IN_CACHE_COMPLETE);
        m_pParent->DeleteWorkId(pReq->m_nWorkId);
        return;
    }
    FileTransClient& task = MakeWork(*pReq);
    task.bIsFirstMaster = false;
    task.nStatus = WORK_RUNNING;
    task.strCacheId = pReq->m_strCacheId;
    task.nFirstSrcAgentId = pReq->m_nFirstSrcAgentId;
    task.tFileModify = pReq->m_tFileModify;
    task.lFileSize = pReq->m_lFileSize;

    std::list<FileTransClient*>& listWork = m_mapWorkMasterSlave[task.strCacheId];
    if (listWork.empty()) {
        task.nTransType = FTC_TRANS_MASTER;
        task.bIsFirstMaster = true;
    } else {
        task.nTransType = FTC_TRANS_SLAVE;
    }
    listWork.push_back(&task);

    if (task.nTransType == FTC_TRANS_MASTER) {
        int ret = ConnectToFileServerAsync(task);
        if (ret != 0) {
            Log(LOG_LEVEL_WARNING,
                "CFileWriteThread::CreateTransClient2(async connect the file svr is failed immediately, ret: %d, work "
                "id: %u, now use server ip: %s, port: %hu, append: %d)",
                ret, task.nWorkId, NowIp(task), task.nSrcServerPort, task.nAppend);
            DealConnectFailedWork(task);
            return;
        }
        if (!(task.nFlag & FILE_DST_FLAG_QUIET))
            Log(LOG_LEVEL_INFO,
                "CFileWriteThread::CreateTransClient2(is master, async connecting the file svr, work id: %u, src work "
                "id: %u, now use server ip: %s, port: %hu, append: %d, connect id: %u)",
                task.nWorkId, task.nSrcWorkId, NowIp(task), task.nSrcServerPort, task.nAppend, task.nConnectId);
        return;
    }
    FileTransClient* pMaster = listWork.front();
    if (!(task.nFlag & FILE_DST_FLAG_QUIET))
        Log(LOG_LEVEL_INFO,
            "CFileWriteThread::CreateTransClient2(is slave, work id: %u, src work id: %u, now use server ip: %s, port: "
            "%hu, append: %d, master work id: %u, connect id: %u)",
            task.nWorkId, task.nSrcWorkId, NowIp(task), task.nSrcServerPort, task.nAppend, pMaster->nWorkId,
            pMaster->nConnectId);
    if (pMaster->bConnectOk) SendFileDstToServerCreateFailed(RET_RUNS_BY_ITSELF);
}

void CFileWriteThread::NetConnectCallback(CFileWriteReqNetConnectCallback* pReq)
{
    FileTransClient* pTask = nullptr;
    for (auto& item : m_mapWork) {
        if (item.second.nConnectId == pReq->m_nConnectId) {
            pTask = &item.second;
            break;
        }
    }
    if (pTask == nullptr) return;  // a connection that this thread closed itself
    FileTransClient& task = *pTask;
    SetNowFrom(task);
    if (pReq->m_nType == BREL_CONNECT_OK) {
        Log(LOG_LEVEL_INFO,
            "CFileWriteThread::NetConnectCallback(async connect the file svr is sucess, work id: %u, append: %d, "
            "connect id: %u)",
            task.nWorkId, task.nAppend, task.nConnectId);
        if (task.nRetryConnectCount != 0) {
            if (task.nTransType == FTC_TRANS_SLAVE) return;
            task.lStatSpeedSum = 0;
            task.nStatDataSize = task.nStatPacketNum = task.nStatDealMSecond = task.nStatDealDataSize = 0;
            task.nStatBeginTime = 0;
            ReqFileAgentGet(task);
            return;
        }
        task.bConnectOk = true;
        if (task.nTransType == FTC_TRANS_COMMON) {
            SendFileDstToServerCreateOk();
        } else if (task.nTransType == FTC_TRANS_MASTER) {
            if (task.bIsFirstMaster) {
                SendFileDstToServerCreateFailed(RET_RUNS_BY_ITSELF);
                auto itList = m_mapWorkMasterSlave.find(task.strCacheId);
                if (itList != m_mapWorkMasterSlave.end()) {
                    for (auto it = std::next(itList->second.begin()); it != itList->second.end(); ++it) {
                        SetNowFrom(**it);
                        SendFileDstToServerCreateFailed(RET_RUNS_BY_ITSELF);
                    }
                }
                SetNowFrom(task);
            }
            ReqFileAgentGet(task);
        }
        return;
    }
    if (pReq->m_nType == BREL_CONNECT_CLOSE) {
        Log(LOG_LEVEL_DEBUG,
            "CFileWriteThread::NetConnectCallback(the connect is closed, work id: %u, append: %d, connect id: %u)",
            task.nWorkId, task.nAppend, task.nConnectId);
        task.nConnectId = 0;
        task.nLastReqTime = 0;
        task.nLastRspTime = 0;
        return;
    }
    if (pReq->m_nType != BREL_CONNECT_FAILED) return;
    if (task.nRetryConnectCount != 0) {
        Log(LOG_LEVEL_WARNING,
            "CFileWriteThread::NetConnectCallback(async connect the file svr is failed, work id: %u, failed server ip: "
            "%s, port: %hu, append: %d, connect id: %u)",
            task.nWorkId, NowIp(task), task.nSrcServerPort, task.nAppend, task.nConnectId);
        task.nConnectId = 0;
        return;
    }
    task.nConnectId = 0;
    bool bGiveUp = false;
    if (task.nNowUseServerIp + 1 >= task.vecSrcServerIp.size()) {
        Log(LOG_LEVEL_WARNING,
            "CFileWriteThread::NetConnectCallback(async connect the file svr is failed, this is the last file svr ip, "
            "work id: %u, failed server ip: %s, port: %hu, append: %d, connect id: %u)",
            task.nWorkId, NowIp(task), task.nSrcServerPort, task.nAppend, pReq->m_nConnectId);
        bGiveUp = true;
    } else {
        Log(LOG_LEVEL_DEBUG,
            "CFileWriteThread::NetConnectCallback(async connect the file svr is failed, we will retry the next file "
            "svr ip, work id: %u, failed server ip: %s, port: %hu, append: %d, connect id: %u)",
            task.nWorkId, NowIp(task), task.nSrcServerPort, task.nAppend, pReq->m_nConnectId);
        ++task.nNowUseServerIp;
        int ret = ConnectToFileServerAsync(task);
        if (ret == 0) {
            Log(LOG_LEVEL_INFO,
                "CFileWriteThread::NetConnectCallback(async connecting the file svr, work id: %u, now use server ip: "
                "%s, port: %hu, append: %d, connect id: %u)",
                task.nWorkId, NowIp(task), task.nSrcServerPort, task.nAppend, task.nConnectId);
        } else {
            Log(LOG_LEVEL_WARNING,
                "CFileWriteThread::NetConnectCallback(async connect the file svr is failed immediately, ret: %d, work "
                "id: %u, now use server ip: %s, port: %hu, append: %d, connect id: %u)",
                ret, task.nWorkId, NowIp(task), task.nSrcServerPort, task.nAppend, pReq->m_nConnectId);
            bGiveUp = true;
        }
    }
    if (!bGiveUp) return;
    if (task.bIsFirstMaster) {
        DealConnectFailedWork(task);
    } else {
        FinishWork(task, RET_SRC_CONNECT_FAILED);
    }
}

// A work whose create is still unanswered leaves without a trace, and so do
// the slaves that waited for it.
void CFileWriteThread::DealConnectFailedWork(FileTransClient& task)
{
    SetNowFrom(task);
    int nTransType = task.nTransType;
    std::string strCacheId = task.strCacheId;
    unsigned int nWorkId = task.nWorkId;
    m_mapWork.erase(nWorkId);  // task is gone from here on
    SendFileDstToServerCreateFailed(RET_SRC_CONNECT_FAILED);
    m_pParent->DeleteWorkId(nWorkId);
    if (nTransType != FTC_TRANS_MASTER) return;
    auto itList = m_mapWorkMasterSlave.find(strCacheId);
    if (itList == m_mapWorkMasterSlave.end()) return;
    std::list<FileTransClient*> listWork;
    listWork.swap(itList->second);
    m_mapWorkMasterSlave.erase(itList);
    if (!listWork.empty()) listWork.pop_front();  // the master, erased above
    for (FileTransClient* pSlave : listWork) {
        pSlave->nTransType = FTC_TRANS_COMMON;
        DealConnectFailedWork(*pSlave);
    }
}

void CFileWriteThread::SetActionWork(CFileWriteReqSetAction* pReq)
{
    SetNowFrom(*pReq);
    auto it = m_mapWork.find(pReq->m_nWorkId);
    if (it == m_mapWork.end()) {
        Log(LOG_LEVEL_WARNING, "CFileWriteThread::SetActionWork(work id is not exist, work id: %u, thread id: %d)",
            pReq->m_nWorkId, m_nThreadId);
        SendFileDstToServerSetActionFailed(RET_NO_SUCH_WORK);
        return;
    }
    FileTransClient& task = it->second;
    Log(LOG_LEVEL_DEBUG, "CFileWriteThread::SetActionWork(work id: %u, append: %d, thread id: %d)", task.nWorkId,
        m_nNowAppend, m_nThreadId);
    if (!(task.nFlag & FILE_DST_FLAG_NO_SET_ACTION_REPLY)) SendFileDstToServerSetActionOk();
    if (task.nStatus != WORK_NOT_BEGIN) return;
    task.nStatus = WORK_RUNNING;
    task.nAppend = m_nNowAppend;
    ReqFileAgentGet(task);
}

void CFileWriteThread::QueryWork(CFileWriteReqQuery* pReq)
{
    SetNowFrom(*pReq);
    auto it = m_mapWork.find(pReq->m_nWorkId);
    if (it == m_mapWork.end()) {
        Log(LOG_LEVEL_WARNING, "CFileWriteThread::QueryWork(work id is not exist, work id: %u, thread id: %d)",
            pReq->m_nWorkId, m_nThreadId);
        SendFileDstToServerQueryFailed(RET_NO_SUCH_WORK);
        return;
    }
    FileTransClient& task = it->second;
    task.nAppend = m_nNowAppend;
    const char* szRole = task.nTransType == FTC_TRANS_MASTER ? "master, " : task.nTransType == FTC_TRANS_SLAVE ? "slave, " : "";
    Log(LOG_LEVEL_DEBUG, "CFileWriteThread::QueryWork(%swork id: %u, append: %d, thread id: %d)", szRole, task.nWorkId,
        task.nAppend, m_nThreadId);
    if (task.nTransType == FTC_TRANS_SLAVE && task.nStatus == WORK_RUNNING) {
        auto itList = m_mapWorkMasterSlave.find(task.strCacheId);
        if (itList != m_mapWorkMasterSlave.end() && !itList->second.empty())
            CopySlaveFromMaster(*itList->second.front(), task);
    }
    SendFileDstToServerQueryOk(task);
}

// Takes the work out of the list of its cache id; a master's slaves go on
// with the oldest of them as the new master.
void CFileWriteThread::LeaveMasterSlaveList(FileTransClient& task)
{
    auto itList = m_mapWorkMasterSlave.find(task.strCacheId);
    if (itList == m_mapWorkMasterSlave.end()) return;
    std::list<FileTransClient*>& listWork = itList->second;
    bool bWasMaster = !listWork.empty() && listWork.front() == &task;
    listWork.remove(&task);
    if (listWork.empty()) {
        m_mapWorkMasterSlave.erase(itList);
        return;
    }
    if (!bWasMaster) return;
    FileTransClient& newMaster = *listWork.front();
    CopySlaveFromMaster(task, newMaster);
    newMaster.nTransType = FTC_TRANS_MASTER;
    int ret = ConnectToFileServerAsync(newMaster);
    if (ret != 0) {
        Log(LOG_LEVEL_WARNING,
            "CFileWriteThread::DeleteWork(the slave become master, async connect the file svr is failed immediately, "
            "ret: %d, work id: %u)",
            ret, newMaster.nWorkId);
        FinishWork(newMaster, RET_SRC_CONNECT_FAILED);
        return;
    }
    if (!(task.nFlag & FILE_DST_FLAG_QUIET))
        Log(LOG_LEVEL_INFO,
            "CFileWriteThread::DeleteWork(the slave become master, async connecting the file svr, work id: %u, connect "
            "id: %u)",
            task.nWorkId, task.nConnectId);
}

void CFileWriteThread::DeleteWork(CFileWriteReqDelete* pReq)
{
    SetNowFrom(*pReq);
    auto it = m_mapWork.find(pReq->m_nWorkId);
    if (it == m_mapWork.end()) {
        Log(LOG_LEVEL_WARNING,
            "CFileWriteThread::DeleteWork(work id is not exist, work id: %u, append: %d, thread id: %d)",
            pReq->m_nWorkId, m_nNowAppend, m_nThreadId);
        SendFileDstToServerDeleteFailed(RET_NO_SUCH_WORK);
        return;
    }
    FileTransClient& task = it->second;
    unsigned int nFlag = task.nFlag;
    if (task.nConnectId != 0) {
        m_networkMultiClient.CloseClient(task.nConnectId);
        task.nConnectId = 0;
    }
    if (task.nTransType == FTC_TRANS_COMMON) {
        // A delete takes a partial file with it; a finished file stays.
        if (task.nStatus != WORK_FINISHED && !task.strDstFile.empty()) unlink(task.strDstFile.c_str());
        Log(LOG_LEVEL_DEBUG, "CFileWriteThread::DeleteWork(work id: %u, append: %d, thread id: %d)", task.nWorkId,
            m_nNowAppend, m_nThreadId);
    } else {
        Log(LOG_LEVEL_DEBUG, "CFileWriteThread::DeleteWork(%s, work id: %u, append: %d, thread id: %d)",
            TransTypeName(task.nTransType), task.nWorkId, m_nNowAppend, m_nThreadId);
        LeaveMasterSlaveList(task);
    }
    m_mapWork.erase(it);
    if (!(nFlag & FILE_DST_FLAG_NO_DELETE_REPLY)) SendFileDstToServerDeleteOk();
    m_pParent->DeleteWorkId(pReq->m_nWorkId);
    m_timeLastTaskEnd = g_timeNow;
}

void CFileWriteThread::Decode(CFileWriteReqReceiveData* pReq)
{
    if (pReq->m_bDecoded) return;
    pReq->m_bDecoded = true;
    std::unique_ptr<ZikPacket> pPacket(new ZikPacket);
    unsigned int nUsed = 0;
    if (ParseFromBuffer(*pPacket, nUsed, pReq->m_pData, pReq->m_nSize) == 0 && pPacket->body.get() != nullptr)
        pReq->m_pPacket = std::move(pPacket);
    CDataBufferSTLDeque::FreePopData(pReq->m_pData);
    pReq->m_pData = nullptr;
}

void CFileWriteThread::DigestAhead(CFileWriteReqReceiveData* pFirst)
{
    if (!g_bEnableMd5Check || pFirst->m_bDecoded) return;
    CFileWriteReqBase* apBatch[DIGEST_BATCH_MAX];
    apBatch[0] = pFirst;
    size_t nBatch = 1;
    {
        // Only this thread takes from the queue, so the requests seen here
        // stay in it, and stay this thread's, until it takes them.
        CAutoLock lock(m_lock);
        nBatch += m_deqReq.PeekLow(apBatch + 1, DIGEST_BATCH_MAX - 1);
    }
    const unsigned char* apContent[DIGEST_BATCH_MAX];
    unsigned int anLength[DIGEST_BATCH_MAX];
    std::string* apMd5[DIGEST_BATCH_MAX];
    size_t nSum = 0;
    unsigned long long lBytes = 0;
    for (size_t i = 0; i < nBatch && lBytes < DIGEST_BATCH_BYTES; ++i) {
        if (apBatch[i]->GetType() != FWR_TYPE_DATA) break;
        CFileWriteReqReceiveData* pReq = static_cast<CFileWriteReqReceiveData*>(apBatch[i]);
        if (pReq->m_bDecoded) break;
        Decode(pReq);
        if (!pReq->m_pPacket || pReq->m_pPacket->body->choiceId != Zik::rspWorkFileAgentGetCid) continue;
        const RspWorkFileAgentGet* pRsp = pReq->m_pPacket->body->rspWorkFileAgentGet;
        if (pRsp->ret.value != 0 || pRsp->md5.octetLen == 0) continue;
        apContent[nSum] = reinterpret_cast<const unsigned char*>(pRsp->content.octs);
        anLength[nSum] = static_cast<unsigned int>(pRsp->content.octetLen);
        apMd5[nSum++] = &pReq->m_strOurMd5;
        lBytes += pRsp->content.octetLen;
    }
    std::string astrMd5[DIGEST_BATCH_MAX];
    MD5::HexDigests(apContent, anLength, nSum, astrMd5);
    for (size_t i = 0; i < nSum; ++i) apMd5[i]->swap(astrMd5[i]);
}

void CFileWriteThread::ReceiveFileData(CFileWriteReqReceiveData* pReq)
{
    DigestAhead(pReq);
    Decode(pReq);
    if (!pReq->m_pPacket) {
        Log(LOG_LEVEL_WARNING, "CFileWriteThread::ReceiveFileData(parse from buffer is error)");
        return;
    }
    ZikPacket& packet = *pReq->m_pPacket;
    if (packet.body->choiceId == Zik::rspWorkFileAgentGetCid) {
        RspFileAgentGet(packet.body->rspWorkFileAgentGet, pReq->m_nSpeed, pReq->m_strOurMd5);
    } else {
        Log(LOG_LEVEL_WARNING,
            "CFileWriteThread::ReceiveFileData(we recevie a data, but we don't know it, the choiceid: %d, thread id: "
            "%d)",
            static_cast<int>(packet.body->choiceId), m_nThreadId);
        LogAsnObj(LOG_LEVEL_OBJDBG, packet);
    }
}

void CFileWriteThread::ReqFileAgentHeartbeat(FileTransClient& task)
{
    Log(LOG_LEVEL_DEBUG, "CFileWriteThread::ReqFileAgentHeartbeat(work id: %u, src work id: %u)", task.nWorkId,
        task.nSrcWorkId);
    ReqWorkFileAgentHeartbeat req;
    req.dstWorkId = static_cast<int>(task.nWorkId);
    req.srcWorkId = static_cast<int>(task.nSrcWorkId);
    m_nNowConnectId = task.nConnectId;
    SendToServerFile(req);
}

// ---- the dump ----------------------------------------------------------------------

void CFileWriteThread::PrintWork(FILE* fp, const FileTransClient& t)
{
    auto timeText = [](time_t t) { return ConvertUnixTimeToStr(static_cast<long>(t)); };
    fprintf(fp, "nWorkId: %u\n", t.nWorkId);
    fprintf(fp, "strSrcFile: %s\n", t.strSrcFile.c_str());
    fprintf(fp, "strDstFile: %s\n", t.strDstFile.c_str());
    fprintf(fp, "strDstPath: %s\n", t.strDstPath.c_str());
    fprintf(fp, "vecSrcServerIp: %s\n", JoinDataToStr(t.vecSrcServerIp, ",").c_str());
    fprintf(fp, "nSrcServerPort: %hu\n", t.nSrcServerPort);
    fprintf(fp, "nNowUseServerIp: %u\n", t.nNowUseServerIp);
    fprintf(fp, "bConnectOk: %s\n", t.bConnectOk ? "true" : "false");
    fprintf(fp, "bIsFirstMaster: %s\n", t.bIsFirstMaster ? "true" : "false");
    fprintf(fp, "nSrcWorkId: %u\n", t.nSrcWorkId);
    fprintf(fp, "nFlag: %u\n", t.nFlag);
    fprintf(fp, "nTimeoutSecond: %d\n", t.nTimeoutSecond);
    fprintf(fp, "nAppend: %d\n", t.nAppend);
    fprintf(fp, "nRouteSrcServerIp: %u\n", t.nRouteSrcServerIp);
    fprintf(fp, "nRouteSrcServerId: %u\n", t.nRouteSrcServerId);
    fprintf(fp, "nConnectId: %u\n", t.nConnectId);
    fprintf(fp, "nStatus: %u\n", t.nStatus);
    fprintf(fp, "nRetryConnectCount: %u\n", t.nRetryConnectCount);
    fprintf(fp, "nNowGetNum: %u\n", t.nNowGetNum);
    fprintf(fp, "nNowAllGetNum: %u\n", t.nNowAllGetNum);
    fprintf(fp, "nNowInGetNum: %u\n", t.nNowInGetNum);
    fprintf(fp, "nNowGetSize: %u\n", t.nNowGetSize);
    fprintf(fp, "lInGetSize: %llu\n", t.lInGetSize);
    fprintf(fp, "lStatSpeedSum: %llu\n", t.lStatSpeedSum);
    fprintf(fp, "nStatDataSize: %u\n", t.nStatDataSize);
    fprintf(fp, "nStatPacketNum: %u\n", t.nStatPacketNum);
    fprintf(fp, "nStatDealMSecond: %u\n", t.nStatDealMSecond);
    fprintf(fp, "nStatDealDataSize: %u\n", t.nStatDealDataSize);
    fprintf(fp, "nStatBeginTime: %s\n", timeText(t.nStatBeginTime).c_str());
    fprintf(fp, "nLastReqTime: %s\n", timeText(t.nLastReqTime).c_str());
    fprintf(fp, "nLastRspTime: %s\n", timeText(t.nLastRspTime).c_str());
    fprintf(fp, "nBeginTime: %s\n", timeText(t.nBeginTime).c_str());
    fprintf(fp, "nEndTime: %s\n", timeText(t.nEndTime).c_str());
    fprintf(fp, "nNowReportResultCount: %u\n", t.nNowReportResultCount);
    fprintf(fp, "nErrno: %d\n", t.nErrno);
    fprintf(fp, "nNowPos: %llu\n", t.nNowPos);
    fprintf(fp, "nTotalSize: %llu\n", t.nTotalSize);
    fprintf(fp, "nTransType: %s\n", TransTypeName(t.nTransType));
    fprintf(fp, "strCacheId: %s\n", t.strCacheId.c_str());
    fprintf(fp, "nFirstSrcAgentId: %u\n", t.nFirstSrcAgentId);
    fprintf(fp, "strFirstSrcFile: %s\n", t.strFirstSrcFile.c_str());
    fprintf(fp, "tFileModify: %s\n", timeText(t.tFileModify).c_str());
    fprintf(fp, "lFileSize: %llu\n", t.lFileSize);
}

void CFileWriteThread::PrintAgentInfo()
{
    // The threads' parts follow one another whole.
    static CLock lockPrint;
    CAutoLock lock(lockPrint);
    FILE* fp = fopen(g_strFileTransClientInfo, "a");
    if (fp == nullptr) {
        Log(LOG_LEVEL_WARNING,
            "CFileWriteThread::PrintAgentInfo(need print agent info, but open file '%s' is error, errno: %d)",
            g_strFileTransClientInfo, errno);
        return;
    }
    std::string strNow = ConvertUnixTimeToStr(static_cast<long>(g_timeNow));
    fprintf(fp, "===========================[Start][Now Time: %s] Write Thread Id: %d===========================\n",
            strNow.c_str(), m_nThreadId);
    fprintf(fp, "last file client task end time: %s\n", ConvertUnixTimeToStr(static_cast<long>(m_timeLastTaskEnd)).c_str());
    fprintf(fp, "all work num: %llu\n", m_lWorkAllCount);
    fprintf(fp, "failed work num: %u\n", m_nWorkFailedCount);
    fprintf(fp, "all get file size: %llu\n", m_lAllGetSize);
    fprintf(fp, "m_mapWork.size: %u\n", static_cast<unsigned int>(m_mapWork.size()));
    int nWork = 0;
    for (const auto& item : m_mapWork) {
        const FileTransClient& task = item.second;
        fprintf(fp, "+++++++++++++++++++++<A Work: %d>++++++++++++++++++++++\n", ++nWork);
        PrintWork(fp, task);
        if (task.nTransType != FTC_TRANS_MASTER) continue;
        fprintf(fp, "===========[Start] All Slave==========\n");
        auto itList = m_mapWorkMasterSlave.find(task.strCacheId);
        if (itList != m_mapWorkMasterSlave.end() && !itList->second.empty()) {
            int nSlave = 0;
            for (auto it = std::next(itList->second.begin()); it != itList->second.end(); ++it)
                fprintf(fp, "+++++++<A Slave: %d, Work Id: %u>+++++++\n", ++nSlave, (*it)->nWorkId);
        }
        fprintf(fp, "===========[End] All Slave==========\n");
    }
    fprintf(fp, "===========================[End] Write Thread Id: %d===========================\n\n\n\n\n\n\n",
            m_nThreadId);
    fclose(fp);
}

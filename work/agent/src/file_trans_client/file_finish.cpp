// The end of a destination work, the sharing of its result with the works
// that waited for the same cache id, and the sweep that repeats gets,
// reconnects, times works out, repeats reports and drops old records.
#include "common/agent_clock.h"
#include "common/agent_globals.h"
#include "common/work_codes.h"
#include "file_trans_cache/file_trans_cache.h"
#include "file_trans_client/client_settings.h"
#include "file_trans_client/file_trans_client.h"
#include "file_trans_client/file_write_thread.h"
#include "log.h"
#include "util.h"

using namespace brel_lib;

namespace {

// A repeated get asks for little, until a period has measured the link anew.
const unsigned int REGET_SIZE = 51200;
const unsigned int REGET_NUM = 5;

void ClearStat(FileTransClient& task)
{
    task.lStatSpeedSum = 0;
    task.nStatDataSize = task.nStatPacketNum = task.nStatDealMSecond = task.nStatDealDataSize = 0;
    task.nStatBeginTime = 0;
}

} // namespace

void CopySlaveFromMaster(const FileTransClient& m, FileTransClient& s)
{
    if (s.strDstFile.empty()) s.strDstFile = m.strDstFile;
    s.nStatus = m.nStatus;
    s.nNowGetNum = m.nNowGetNum;
    s.nNowAllGetNum = m.nNowAllGetNum;
    s.nNowInGetNum = m.nNowInGetNum;
    s.nNowGetSize = m.nNowGetSize;
    s.lInGetSize = m.lInGetSize;
    s.lStatSpeedSum = m.lStatSpeedSum;
    s.nStatDataSize = m.nStatDataSize;
    s.nStatPacketNum = m.nStatPacketNum;
    s.nStatDealMSecond = m.nStatDealMSecond;
    s.nStatDealDataSize = m.nStatDealDataSize;
    s.nStatBeginTime = m.nStatBeginTime;
    s.nLastReqTime = m.nLastReqTime;
    s.nLastRspTime = m.nLastRspTime;
    s.nErrno = m.nErrno;
    s.nNowPos = m.nNowPos;
    s.nTotalSize = m.nTotalSize;
}

void CFileWriteThread::FinishWork(FileTransClient& task, int nRet)
{
    if (task.nConnectId != 0) {
        m_networkMultiClient.CloseClient(task.nConnectId);
        task.nConnectId = 0;
    }
    task.nEndTime = g_timeNow;
    task.nErrno = nRet;
    task.nStatus = WORK_FINISHED;
    SendFileDstToServerQueryOk(task);
    if (task.nErrno != 0) ++m_nWorkFailedCount;
    if (task.nTransType == FTC_TRANS_MASTER) FinishSlaves(task, nRet);
}

// The master's result is the result of every work that shared its pull; only
// a good end hands the file to the cache as finished.
void CFileWriteThread::FinishSlaves(FileTransClient& master, int nRet)
{
    master.nTransType = FTC_TRANS_COMMON;
    std::string strCacheId = master.strCacheId;
    auto itList = m_mapWorkMasterSlave.find(strCacheId);
    if (itList != m_mapWorkMasterSlave.end()) {
        std::list<FileTransClient*> listWork;
        listWork.swap(itList->second);
        m_mapWorkMasterSlave.erase(itList);
        for (FileTransClient* pSlave : listWork) {
            if (pSlave == &master) continue;
            CopySlaveFromMaster(master, *pSlave);
            pSlave->nTransType = FTC_TRANS_COMMON;
            FinishWork(*pSlave, nRet);
        }
    }
    if (nRet == 0) g_fileTransCache.SetCacheFileFinish(strCacheId);
}

void CFileWriteThread::DealReGetAndAutoDelete()
{
    time_t tNow = g_timeNow;
    for (auto it = m_mapWork.begin(); it != m_mapWork.end();) {
        FileTransClient& task = it->second;
        PullBack(task.nBeginTime, tNow);
        PullBack(task.nEndTime, tNow);
        PullBack(task.nLastReqTime, tNow);
        PullBack(task.nLastRspTime, tNow);
        if (task.nStatus == WORK_RUNNING) {
            if (tNow - task.nBeginTime >= task.nTimeoutSecond) {
                Log(LOG_LEVEL_WARNING,
                    "CFileWriteThread::DealReGetAndAutoDelete(transport is timeout, work id: %u, timeout: %d, begin "
                    "time: %u, now pos: %llu)",
                    task.nWorkId, task.nTimeoutSecond, static_cast<unsigned int>(task.nBeginTime), task.nNowPos);
                FinishWork(task, RET_WORK_TIMEOUT);
            } else if (task.nTransType != FTC_TRANS_SLAVE) {
                DealRunningWork(task, tNow);
            }
            ++it;
            continue;
        }
        if (task.nStatus == WORK_NOT_BEGIN) {
            if (tNow - task.nBeginTime < g_nClientNotBeginKeepSecondBeforeAutoDelete) {
                ++it;
                continue;
            }
            Log(LOG_LEVEL_WARNING,
                "CFileWriteThread::DealReGetAndAutoDelete(auto delete not begin task, work id: %u, begin time: %u)",
                task.nWorkId, static_cast<unsigned int>(task.nBeginTime));
            if (task.nConnectId != 0) m_networkMultiClient.CloseClient(task.nConnectId);
            unsigned int nWorkId = task.nWorkId;
            it = m_mapWork.erase(it);
            m_pParent->DeleteWorkId(nWorkId);
            m_timeLastTaskEnd = tNow;
            continue;
        }
        // Finished: the report once per period, and once more at the drop.
        unsigned int nDis = static_cast<unsigned int>((tNow - task.nEndTime) / g_nFinishSendResultDisSecondBeforeAutoDelete);
        bool bSent = false;
        if (nDis != task.nNowReportResultCount) {
            Log(LOG_LEVEL_DEBUG, "CFileWriteThread::DealReGetAndAutoDelete(send finish work to js, work id: %u, now count: %u)",
                task.nWorkId, task.nNowReportResultCount);
            SendFileDstToServerQueryOk(task);
            task.nNowReportResultCount = nDis;
            bSent = true;
        }
        if (tNow - task.nEndTime < g_nClientFinishKeepSecondBeforeAutoDelete) {
            ++it;
            continue;
        }
        Log(LOG_LEVEL_WARNING,
            "CFileWriteThread::DealReGetAndAutoDelete(auto delete finish task, work id: %u, begin time: %s, end time: %s)",
            task.nWorkId, ConvertUnixTimeToStr(static_cast<long>(task.nBeginTime)).c_str(),
            ConvertUnixTimeToStr(static_cast<long>(task.nEndTime)).c_str());
        if (!bSent) SendFileDstToServerQueryOk(task);
        // A slave that ended by its own time-out may still stand in a list.
        if (!task.strCacheId.empty()) {
            auto itList = m_mapWorkMasterSlave.find(task.strCacheId);
            if (itList != m_mapWorkMasterSlave.end()) {
                itList->second.remove(&task);
                if (itList->second.empty()) m_mapWorkMasterSlave.erase(itList);
            }
        }
        unsigned int nWorkId = task.nWorkId;
        it = m_mapWork.erase(it);
        m_pParent->DeleteWorkId(nWorkId);
        m_timeLastTaskEnd = tNow;
    }
}

// A running work that pulls for itself: reconnect a lost connection, repeat
// an overdue get, give up when nothing comes.
void CFileWriteThread::DealRunningWork(FileTransClient& task, time_t tNow)
{
    if (task.nConnectId == 0) {
        ++task.nRetryConnectCount;
        if (task.nRetryConnectCount >= static_cast<unsigned int>(g_nClientRetryConnectSecond / 5)) {
            Log(LOG_LEVEL_WARNING,
                "CFileWriteThread::DealReGetAndAutoDelete(connect the server is failed out of max retry, work id: %u, "
                "begin time: %u, now pos: %llu, now use server ip: %s, port: %hu)",
                task.nWorkId, static_cast<unsigned int>(task.nBeginTime), task.nNowPos, NowIp(task), task.nSrcServerPort);
            FinishWork(task, RET_SRC_CONNECT_FAILED);
            return;
        }
        int ret = ConnectToFileServerAsync(task);
        if (ret == 0) {
            Log(LOG_LEVEL_INFO,
                "CFileWriteThread::DealReGetAndAutoDelete(need retry connect, async connecting the file svr, work id: "
                "%u, now use server ip: %s, port: %hu, append: %d, connect id: %u)",
                m_nNowWorkId, NowIp(task), task.nSrcServerPort, task.nAppend, task.nConnectId);
        } else {
            task.nConnectId = 0;
            Log(LOG_LEVEL_WARNING,
                "CFileWriteThread::DealReGetAndAutoDelete(need retry connect, async connect the file svr is failed "
                "immediately, ret: %d, work id: %u, now use server ip: %s, port: %hu, append: %d)",
                ret, m_nNowWorkId, NowIp(task), task.nSrcServerPort, task.nAppend);
        }
    }
    if (task.nConnectId == 0 || task.nLastReqTime == 0 || tNow - task.nLastReqTime < g_nClientReGetTimeoutSecond) return;
    if (task.nLastRspTime == 0) task.nLastRspTime = task.nLastReqTime;
    if (tNow - task.nLastRspTime >= g_nClientReGetFailedTimeoutSecond) {
        Log(LOG_LEVEL_WARNING,
            "CFileWriteThread::DealReGetAndAutoDelete(task is timeout out of max retry count, work id: %u, begin time: "
            "%u, now pos: %llu)",
            task.nWorkId, static_cast<unsigned int>(task.nBeginTime), task.nNowPos);
        FinishWork(task, RET_SRC_NO_RESPONSE);
        return;
    }
    Log(LOG_LEVEL_WARNING, "CFileWriteThread::DealReGetAndAutoDelete(retry get, work id: %u, begin time: %u, now pos: %llu)",
        task.nWorkId, static_cast<unsigned int>(task.nBeginTime), task.nNowPos);
    ClearStat(task);
    task.nNowGetSize = REGET_SIZE;
    task.nNowAllGetNum = REGET_NUM;
    ReqFileAgentGet(task);
}

// The replies of the file destination to the server. Each answers for the
// work in the thread's register (the m_nNow fields), except a successful
// query, which carries the work's own route: it is also the unasked report.
#include "common/agent_counters.h"
#include "common/agent_globals.h"
#include "common/work_codes.h"
#include "file_trans_client/file_write_thread.h"
#include "log.h"

using namespace brel_lib;

namespace {

template <class T>
void FillReply(T& rsp, int nRet, unsigned int nWorkId, unsigned int nRouteIp, unsigned int nRouteId)
{
    rsp.ret = nRet;
    rsp.workId = static_cast<int>(nWorkId);
    rsp.routeDstServerIp = static_cast<int>(nRouteIp);
    rsp.routeDstServerId = static_cast<int>(nRouteId);
    rsp.routeSrcAgentId = static_cast<int>(g_nAgentId.load());
}

} // namespace

template <class T>
void CFileWriteThread::SendToServerMain(T& message, int nAppend)
{
    unsigned int nSize = 0;
    char* pBytes = EncodePacket(m_packetBuf, message, nAppend, nSize);
    if (pBytes == nullptr) return;  // logged by the encoder
    m_sendDataBufferMain.Push(pBytes, nSize, BREL_DATA_NORMAL_PRI);
}

template <class T>
void CFileWriteThread::SendToServerFile(T& message)
{
    unsigned int nSize = 0;
    char* pBytes = EncodePacket(m_packetBuf, message, 0, nSize);
    if (pBytes == nullptr) return;
    m_sendDataBuffer.Push2(pBytes, nSize, static_cast<int>(m_nNowConnectId), BREL_DATA_NORMAL_PRI);
}
template void CFileWriteThread::SendToServerFile(ReqWorkFileAgentGet&);
template void CFileWriteThread::SendToServerFile(ReqWorkFileAgentHeartbeat&);

// The reply shape of the requests in hand.
#define FILE_DST_REPLY(Name, Rsp, nRet, nLevel)                                                               \
    do {                                                                                                      \
        Log(nLevel, "CFileWriteThread::%s(ret: %d, work id: %u, append: %d)", Name, nRet, m_nNowWorkId,      \
            m_nNowAppend);                                                                                    \
        CountRefusal(nRet);                                                                                   \
        Rsp rsp;                                                                                              \
        FillReply(rsp, nRet, m_nNowWorkId, m_nNowRouteSrcServerIp, m_nNowRouteSrcServerId);                   \
        SendToServerMain(rsp, m_nNowAppend);                                                                  \
    } while (0)

void CFileWriteThread::SendFileDstToServerCreateOk()
{
    FILE_DST_REPLY("SendFileDstToServerCreateOk", RspWorkFileDstCreate, 0, LOG_LEVEL_DEBUG);
}

void CFileWriteThread::SendFileDstToServerCreateFailed(int nRet)
{
    // 330 and 331 are expected outcomes, not failures.
    unsigned int nLevel = nRet == RET_IN_CACHE_COMPLETE || nRet == RET_RUNS_BY_ITSELF ? LOG_LEVEL_DEBUG : LOG_LEVEL_WARNING;
    FILE_DST_REPLY("SendFileDstToServerCreateFailed", RspWorkFileDstCreate, nRet, nLevel);
}

void CFileWriteThread::SendFileDstToServerSetActionOk()
{
    FILE_DST_REPLY("SendFileDstToServerSetActionOk", RspWorkFileDstSetAction, 0, LOG_LEVEL_DEBUG);
}

void CFileWriteThread::SendFileDstToServerSetActionFailed(int nRet)
{
    FILE_DST_REPLY("SendFileDstToServerSetActionFailed", RspWorkFileDstSetAction, nRet, LOG_LEVEL_WARNING);
}

void CFileWriteThread::SendFileDstToServerDeleteOk()
{
    FILE_DST_REPLY("SendFileDstToServerDeleteOk", RspWorkFileDstDelete, 0, LOG_LEVEL_DEBUG);
}

void CFileWriteThread::SendFileDstToServerDeleteFailed(int nRet)
{
    FILE_DST_REPLY("SendFileDstToServerDeleteFailed", RspWorkFileDstDelete, nRet, LOG_LEVEL_WARNING);
}

// status 4 for a work that does not exist; times, sizes and file empty.
void CFileWriteThread::SendFileDstToServerQueryFailed(int nRet)
{
    Log(LOG_LEVEL_WARNING, "CFileWriteThread::SendFileDstToServerQueryFailed(ret: %d, work id: %u, append: %d)", nRet,
        m_nNowWorkId, m_nNowAppend);
    CountRefusal(nRet);
    RspWorkFileDstQuery rsp;
    FillReply(rsp, nRet, m_nNowWorkId, m_nNowRouteSrcServerIp, m_nNowRouteSrcServerId);
    rsp.status = WORK_UNKNOWN;
    rsp.beginTime = rsp.endTime = 0;
    rsp.srcFile = "";
    rsp.okSizeHigh = rsp.okSizeLow = rsp.totalSizeHigh = rsp.totalSizeLow = 0;
    SendToServerMain(rsp, m_nNowAppend);
}

void CFileWriteThread::SendFileDstToServerQueryOk(const FileTransClient& task)
{
    Log(LOG_LEVEL_DEBUG, "CFileWriteThread::SendFileDstToServerQueryOk(ret: %d, work id: %u, append: %d)", task.nErrno,
        task.nWorkId, task.nAppend);
    RspWorkFileDstQuery rsp;
    FillReply(rsp, task.nErrno, task.nWorkId, task.nRouteSrcServerIp, task.nRouteSrcServerId);
    rsp.status = static_cast<int>(task.nStatus);
    rsp.beginTime = static_cast<int>(task.nBeginTime);
    rsp.endTime = static_cast<int>(task.nEndTime);
    rsp.srcFile = task.strSrcFile.c_str();
    rsp.okSizeHigh = static_cast<int>(task.nNowPos >> 32);
    rsp.okSizeLow = static_cast<int>(task.nNowPos & 0xFFFFFFFFU);
    rsp.totalSizeHigh = static_cast<int>(task.nTotalSize >> 32);
    rsp.totalSizeLow = static_cast<int>(task.nTotalSize & 0xFFFFFFFFU);
    SendToServerMain(rsp, task.nAppend);
}

// The session's side of the file source: the requests of the server that
// create and delete source works, plain and encrypted, and the failure
// replies for what the manager refused before queueing.
#include "common/agent_counters.h"
#include "common/agent_globals.h"
#include "process_common/process_common.h"

using namespace brel_lib;

void CProcessCommon::ReqFileSrcCreate(ReqWorkFileSrcCreate* pReq, int nAppend)
{
    ServeFileSrcCreate(pReq, std::string(), nAppend);
}

// A known id is answered by silence. A create is remembered even when it
// failed, so the same id is not tried again until the history forgets it.
void CProcessCommon::ServeFileSrcCreate(ReqWorkFileSrcCreate* pReq, const std::string& strMd5, int nAppend)
{
    unsigned int nWorkId = static_cast<unsigned int>(pReq->workId.value);
    if (m_mapCreatedWorkId.Contains(nWorkId)) return;
    int ret = m_fileTransSvrManager.CreateTransSvr(pReq, strMd5, nAppend);
    m_mapCreatedWorkId.Remember(nWorkId, static_cast<long>(g_timeNow));
    if (ret == 0) return;
    if (static_cast<unsigned int>(pReq->flag.value) & FILE_SVR_FLAG_CREATE2_REPLY) {
        SendFileSrcToServerCreate2Failed(ret, *pReq, nAppend);
    } else {
        SendFileSrcToServerCreateFailed(ret, *pReq, nAppend);
    }
}

void CProcessCommon::ReqFileSrcDelete(ReqWorkFileSrcDelete* pReq, int nAppend)
{
    ServeOnce(m_mapDeletedWorkId, pReq, nAppend, &CProcessCommon::SendFileSrcToServerDeleteFailed,
              [&] { return m_fileTransSvrManager.DeleteTransSvr(pReq, nAppend); });
}

void CProcessCommon::ReqFileSrcCreateEnc(ReqWorkFileSrcCreateEnc* pReq, int nAppend)
{
    ReqWorkFileSrcCreateEncData data;
    unsigned int nKeySn = static_cast<unsigned int>(pReq->keySn.value);
    if (!m_sessionKeys.DecryptEncData("ReqFileSrcCreateEnc", nKeySn, pReq->encData, data)) return;
    ReqWorkFileSrcCreate plain;
    CopyClearPart(*pReq, plain);
    plain.srcFile = data.srcFile;
    plain.dstIp = data.dstIp;
    plain.flag = data.flag;
    std::string strMd5(data.fileMd5.octs == nullptr ? "" : data.fileMd5.octs, data.fileMd5.octetLen);
    Log(LOG_LEVEL_DEBUG, "CProcessCommon::ReqFileSrcCreateEnc(file md5: %s)", strMd5.c_str());
    ServeFileSrcCreate(&plain, strMd5, nAppend);
}

void CProcessCommon::SendFileSrcToServerCreateFailed(int nRet, const ReqWorkFileSrcCreate& req, int nAppend)
{
    Log(LOG_LEVEL_WARNING, "CProcessCommon::SendFileSrcToServerCreateFailed(ret: %d, work id: %u, append: %d)", nRet,
        static_cast<unsigned int>(req.workId.value), nAppend);
    CountRefusal(nRet);
    RspWorkFileSrcCreate rsp;
    FillFileSrcCreate(rsp, static_cast<unsigned int>(req.workId.value), RouteOf(req, nAppend), nRet, 0, 0);
    SendToServer(rsp, nAppend);
}

void CProcessCommon::SendFileSrcToServerCreate2Failed(int nRet, const ReqWorkFileSrcCreate& req, int nAppend)
{
    Log(LOG_LEVEL_WARNING, "CProcessCommon::SendFileSrcToServerCreate2Failed(ret: %d, work id: %u, append: %d)", nRet,
        static_cast<unsigned int>(req.workId.value), nAppend);
    CountRefusal(nRet);
    RspWorkFileSrcCreate2 rsp;
    FillFileSrcCreate2(rsp, static_cast<unsigned int>(req.workId.value), RouteOf(req, nAppend), nRet,
                       std::vector<unsigned int>(), 0, 0, 0);
    SendToServer(rsp, nAppend);
}

void CProcessCommon::SendFileSrcToServerDeleteFailed(int nRet, const ReqWorkFileSrcDelete& req, int nAppend)
{
    Log(LOG_LEVEL_WARNING, "CProcessCommon::SendFileSrcToServerDeleteFailed(ret: %d, work id: %u, append: %d)", nRet,
        static_cast<unsigned int>(req.workId.value), nAppend);
    CountRefusal(nRet);
    RspWorkFileSrcDelete rsp;
    FillFileSrcDelete(rsp, static_cast<unsigned int>(req.workId.value), RouteOf(req, nAppend), nRet);
    SendToServer(rsp, nAppend);
}
